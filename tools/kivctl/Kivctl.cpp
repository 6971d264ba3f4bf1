#include "Kivctl.h"

#include <android-base/parseint.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "ApnsConf.h"
#include "Manager.h"
#include "ModemServer.h"
#include "Mutex.h"
#include "ServiceControl.h"
#include "SettingsJson.h"
#include "StateFile.h"
#include "Util.h"
#include "XalRemote.h"
#include "diag_host.h"

namespace kivctl {

namespace {

using kiv::FilterProfileParams;
using kiv::IPType;
using kiv::Manager;
using kiv::ProfileParams;
using kiv::TechType;

// Bad input: one line on standard error, exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Refused by the modem or the library: exit status 1.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------------------
// Help

const char* const kGlobalHelp = R"(usage: kivctl [global options] COMMAND [options]

Runs libkivr against a simulated modem: the modem service (kivmodemd) named
by --modem or KIVR_MODEM, shared with other processes, or else a modem of
its own whose profile table persists in a file between runs.

Global options:
  --modem PATH        the modem service's socket (default $KIVR_MODEM)
  --modem-state FILE  without a service: the modem's table (default
                      $XDG_STATE_HOME/kivr/modem.state, else ~/.local/state/kivr/modem.state)
  --instance N        modem instance to bind to (default 0)
  --json              machine-readable output
  --log               show the library's log lines on standard error
  --timeout MS        how long to wait for the modem (default 5000)
  --no-service        start with the modem's data service down
  --help              this text; COMMAND --help for a command's

Commands:
  list                 the profiles on the modem
  show PROFILE         one profile in full
  add [options]        create a profile (persistent unless --temporary)
  modify PROFILE [options]
  delete PROFILE
  find [filter options]
  attach [options]     find or create the LTE attach profile
  data-call [options]  find or create a data-call profile
  emergency [options]  find or create the emergency profile
  apply-apns FILE --mcc M --mnc N
                       apply a carrier's APN types from an apns-conf.xml file
  dump                 the library's cache and recent log
  watch [--count N]    print the profile changes the modem service announces
  modem ACTION         restart, reset, down, up, status, fail, timeout, send
                       (kivctl modem --help)
  shell                read commands from standard input, one per line

PROFILE is a modem profile id (3GPP below 101, 3GPP2 from 101, or --tech),
or a handle #N in the shell.
Exit status: 0 done, 1 refused by the modem or the library, 2 bad input.
)";

const char* const kProfileOptionsHelp = R"(Profile options:
  --apn NAME  --user NAME  --password TEXT  --auth none|pap|chap|pap_chap
  --ip v4|v6|v4v6 (home)  --roam-ip v4|v6|v4v6  --types default,ims,...
  --class ims|admn|inet|app  --clat on|off  --disabled on|off  --emergency on|off
  --max-conns N  --max-conns-time SECONDS  --wait-time SECONDS
)";

const std::map<std::string, std::string> kCommandHelp = {
        {"list", "usage: kivctl list\n  Every profile on the modem, as the library sees it.\n"},
        {"show", "usage: kivctl show PROFILE [--tech 3gpp|3gpp2]\n"},
        {"add", std::string("usage: kivctl add [--temporary] [--tech 3gpp|3gpp2] [--attach] "
                            "[profile options]\n  A temporary profile is deleted when its last "
                            "handle goes: at the end of the command, or on drop in the shell.\n") +
                        kProfileOptionsHelp},
        {"modify", std::string("usage: kivctl modify PROFILE [--tech 3gpp|3gpp2] [profile "
                               "options]\n") +
                           kProfileOptionsHelp},
        {"delete", "usage: kivctl delete PROFILE [--tech 3gpp|3gpp2]\n"},
        {"find", std::string("usage: kivctl find [filter options]\n"
                             "Filter options: the profile options, and\n"
                             "  --id N  --tech 3gpp|3gpp2  --kiv yes|no  --attach-profile yes|no\n"
                             "  --home-subset --home-superset --roam-subset --roam-superset\n"
                             "  --apn-subset --types-subset\n") +
                         kProfileOptionsHelp},
        {"attach", std::string("usage: kivctl attach [--allow-update] [profile options]\n") +
                           kProfileOptionsHelp},
        {"data-call", std::string("usage: kivctl data-call [--tech 3gpp|3gpp2] [--allow-update] "
                                  "[profile options]\n") +
                              kProfileOptionsHelp},
        {"emergency", std::string("usage: kivctl emergency [--allow-update] [profile "
                                  "options]\n") +
                              kProfileOptionsHelp},
        {"apply-apns",
         "usage: kivctl apply-apns FILE --mcc M --mnc N [--mvno-type T "
         "[--mvno-match DATA]] [--allow-update]\n"
         "  Merges the APN types of the carrier's entries into the modem "
         "profiles with the same APN names.\n"},
        {"dump", "usage: kivctl dump\n"},
        {"modem",
         "usage: kivctl modem ACTION\n"
         "  restart              the modem restarts: temporary profiles are lost, clients\n"
         "                       reconnect and reread\n"
         "  reset                the factory table back\n"
         "  down | up            the modem's data service goes down, or comes back\n"
         "  status               service, capacity, latency, clients, requests\n"
         "  fail KIND [N]        the next N requests of a kind fail (KIND: create, modify,\n"
         "                       delete, list, get, bind, register, events or a message id;\n"
         "                       service: finding the service; connect: opening a client)\n"
         "  timeout KIND [N]     the next N requests of a kind get no answer\n"
         "  send subscription-change | profile-ready\n"
         "  send changed 3gpp|3gpp2|all INDEX EVENT   a profile-changed indication\n"
         "                       (EVENT: create, delete, modify, subscription-change,\n"
         "                       profile-ready or a number)\n"
         "  send raw MESSAGE-ID HEX   any bytes as an indication\n"
         "  Faults and indications reach every client of the modem service; on the\n"
         "  embedded modem they last for the command (or the shell).\n"},
        {"watch",
         "usage: kivctl watch [--count N]\n"
         "  Prints every profile change the modem service announces, as it arrives: the\n"
         "  profile, the event and, after a create or modify, the modem's settings; one\n"
         "  line (or JSON object) per change, until interrupted or N changes. Needs the\n"
         "  modem service (--modem PATH or KIVR_MODEM).\n"},
        {"shell",
         "usage: kivctl shell\n  Commands one per line; handles (#1, #2, ...) stay "
         "between them.\n  Also: handles, drop #N, help, exit.\n"},
};

// ---------------------------------------------------------------------------
// Arguments

class Args {
  public:
    explicit Args(std::vector<std::string> words) : mWords(std::move(words)) {}

    bool flag(const std::string& name) {
        auto it = std::find(mWords.begin(), mWords.end(), name);
        if (it == mWords.end()) return false;
        mWords.erase(it);
        return true;
    }

    std::optional<std::string> value(const std::string& name) {
        for (size_t i = 0; i < mWords.size(); ++i) {
            if (mWords[i] == name) {
                if (i + 1 >= mWords.size()) throw UsageError("option " + name + " needs a value");
                std::string text = mWords[i + 1];
                mWords.erase(mWords.begin() + static_cast<long>(i),
                             mWords.begin() + static_cast<long>(i) + 2);
                return text;
            }
            if (mWords[i].rfind(name + "=", 0) == 0) {
                std::string text = mWords[i].substr(name.size() + 1);
                mWords.erase(mWords.begin() + static_cast<long>(i));
                return text;
            }
        }
        return std::nullopt;
    }

    // What is left once every known option was taken: positional words only.
    std::vector<std::string> positionals(size_t most) {
        for (const auto& word : mWords) {
            if (word.size() > 1 && word[0] == '-' && word[1] == '-') {
                throw UsageError("unknown option " + word);
            }
        }
        if (mWords.size() > most) throw UsageError("unexpected argument '" + mWords[most] + "'");
        return mWords;
    }

  private:
    std::vector<std::string> mWords;
};

int32_t parseInt(const std::string& text, const std::string& what, long low = INT32_MIN,
                 long high = INT32_MAX) {
    errno = 0;
    char* end = nullptr;
    const long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || value < low || value > high) {
        throw UsageError("bad number '" + text + "' for " + what);
    }
    return static_cast<int32_t>(value);
}

template <typename T>
T parseChoice(const std::string& text, const std::string& what,
              const std::map<std::string, T>& choices) {
    auto it = choices.find(text);
    if (it != choices.end()) return it->second;
    std::string names;
    for (const auto& [name, value] : choices) names += (names.empty() ? "" : "|") + name;
    throw UsageError("bad value '" + text + "' for " + what + " (" + names + ")");
}

IPType parseIP(const std::string& text, const std::string& what) {
    return parseChoice<IPType>(text, what,
                               {{"v4", IPType::V4}, {"v6", IPType::V6}, {"v4v6", IPType::V4V6}});
}

bool parseSwitch(const std::string& text, const std::string& what) {
    return parseChoice<bool>(text, what,
                             {{"on", true}, {"off", false}, {"yes", true}, {"no", false}});
}

TechType parseTech(const std::string& text) {
    return parseChoice<TechType>(text, "--tech",
                                 {{"3gpp", TechType::TECH_3GPP}, {"3gpp2", TechType::TECH_3GPP2}});
}

uint32_t parseTypes(const std::string& text) {
    uint32_t mask = 0;
    std::stringstream list(text);
    std::string name;
    while (std::getline(list, name, ',')) {
        auto bit = apnTypeByName(name);
        if (!bit) throw UsageError("unknown APN type '" + name + "' for --types");
        mask |= *bit;
    }
    return mask;
}

void readProfileOptions(Args& args, ProfileParams& p) {
    if (auto v = args.value("--apn")) p.setApnName(*v);
    if (auto v = args.value("--user")) p.setUserName(*v);
    if (auto v = args.value("--password")) p.setPassword(*v);
    if (auto v = args.value("--auth")) {
        p.setAuthType(parseChoice<kiv::AuthType>(*v, "--auth",
                                                 {{"none", kiv::AuthType::NONE},
                                                  {"pap", kiv::AuthType::PAP},
                                                  {"chap", kiv::AuthType::CHAP},
                                                  {"pap_chap", kiv::AuthType::PAP_CHAP}}));
    }
    if (auto v = args.value("--ip")) p.setHomeIPType(parseIP(*v, "--ip"));
    if (auto v = args.value("--roam-ip")) p.setRoamIPType(parseIP(*v, "--roam-ip"));
    if (auto v = args.value("--types")) p.setApnTypesMask(parseTypes(*v));
    if (auto v = args.value("--class")) {
        p.setApnClass(parseChoice<kiv::ApnClass>(*v, "--class",
                                                 {{"ims", kiv::ApnClass::IMS},
                                                  {"admn", kiv::ApnClass::ADMN},
                                                  {"inet", kiv::ApnClass::INET},
                                                  {"app", kiv::ApnClass::APP}}));
    }
    if (auto v = args.value("--clat")) p.setIsClatEnabled(parseSwitch(*v, "--clat"));
    if (auto v = args.value("--disabled")) p.setIsApnDisabled(parseSwitch(*v, "--disabled"));
    if (auto v = args.value("--emergency")) {
        p.setIsEmergencySupported(parseSwitch(*v, "--emergency"));
    }
    if (auto v = args.value("--max-conns")) {
        p.setMaxPdnsConnPerBlock(parseInt(*v, "--max-conns", 0, 65535));
    }
    if (auto v = args.value("--max-conns-time")) {
        p.setMaxPdnConnTimer(parseInt(*v, "--max-conns-time", 0, 65535));
    }
    if (auto v = args.value("--wait-time")) {
        p.setPdnReqWaitInterval(parseInt(*v, "--wait-time", 0, 65535));
    }
}

// ---------------------------------------------------------------------------
// Output

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", c);
            out += escape;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

template <typename T>
std::string text(T value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

std::string typeNames(uint32_t mask) {
    std::string names;
    for (uint32_t bit = 1; bit <= kiv::APN_TYPE_XCAP; bit <<= 1) {
        if (!(mask & bit)) continue;
        std::string name = text(static_cast<kiv::ApnTypes>(bit));
        name.pop_back();  // the printer's "|"
        for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        names += (names.empty() ? "" : ",") + name;
    }
    return names.empty() ? "none" : names;
}

std::string techName(TechType tech) {
    return tech == TechType::TECH_3GPP2 ? "3gpp2" : "3gpp";
}

struct ProfileView {
    int id = 0;
    TechType tech = TechType::TECH_3GPP;
    ProfileParams params;
    bool persistent = false;
    int handle = 0;  // 0: none
};

std::vector<std::string> flagsOf(const ProfileView& view) {
    std::vector<std::string> flags;
    const ProfileParams& p = view.params;
    if (p.getIsKivProfile()) flags.emplace_back("library");
    if (p.getIsIAProfile()) flags.emplace_back("attach");
    if (view.persistent) flags.emplace_back("persistent");
    if (p.hasIsEmergencySupported() && p.getIsEmergencySupported()) flags.emplace_back("emergency");
    if (p.hasIsApnDisabled() && p.getIsApnDisabled()) flags.emplace_back("disabled");
    if (p.hasIsClatEnabled() && p.getIsClatEnabled()) flags.emplace_back("clat");
    return flags;
}

std::string profileJson(const ProfileView& view) {
    const ProfileParams& p = view.params;
    std::ostringstream os;
    os << "{\"id\":" << view.id << ",\"tech\":" << jsonString(techName(view.tech));
    if (view.handle) os << ",\"handle\":" << jsonString("#" + std::to_string(view.handle));
    auto field = [&os](const char* name, bool present, const std::string& value) {
        os << ",\"" << name << "\":" << (present ? jsonString(value) : "null");
    };
    field("apn", p.hasApnName(), p.getApnName());
    field("homeIp", p.hasHomeIPType(), text(p.getHomeIPType()));
    field("roamIp", p.hasRoamIPType(), text(p.getRoamIPType()));
    field("types", p.hasApnTypesMask(), typeNames(p.getApnTypesMask()));
    field("auth", p.hasAuthType(), text(p.getAuthType()));
    field("class", p.hasApnClass(), text(p.getApnClass()));
    field("user", p.hasUserName(), p.getUserName());
    auto number = [&os](const char* name, bool present, int value) {
        os << ",\"" << name << "\":" << (present ? std::to_string(value) : "null");
    };
    number("maxConns", p.hasMaxPdnsConnPerBlock(), p.getMaxPdnsConnPerBlock());
    number("maxConnsTime", p.hasMaxPdnConnTimer(), p.getMaxPdnConnTimer());
    number("waitTime", p.hasPdnReqWaitInterval(), p.getPdnReqWaitInterval());
    os << ",\"flags\":[";
    const auto flags = flagsOf(view);
    for (size_t i = 0; i < flags.size(); ++i) os << (i ? "," : "") << jsonString(flags[i]);
    os << "]}";
    return os.str();
}

void printTable(std::ostream& out, const std::vector<ProfileView>& views, bool withHandles) {
    auto orDash = [](bool present, const std::string& value) { return present ? value : "-"; };
    out << std::left;
    if (withHandles) out << std::setw(5) << "#";
    out << std::setw(5) << "ID" << std::setw(7) << "TECH" << std::setw(22) << "APN" << std::setw(6)
        << "HOME" << std::setw(6) << "ROAM" << std::setw(24) << "TYPES" << std::setw(10) << "AUTH"
        << std::setw(6) << "CLASS"
        << "FLAGS\n";
    for (const auto& view : views) {
        const ProfileParams& p = view.params;
        if (withHandles) {
            out << std::setw(5) << (view.handle ? "#" + std::to_string(view.handle) : "");
        }
        std::string flags;
        for (const auto& flag : flagsOf(view)) flags += (flags.empty() ? "" : ",") + flag;
        out << std::setw(5) << view.id << std::setw(7) << techName(view.tech) << std::setw(22)
            << orDash(p.hasApnName(), p.getApnName()) << std::setw(6)
            << orDash(p.hasHomeIPType(), text(p.getHomeIPType())) << std::setw(6)
            << orDash(p.hasRoamIPType(), text(p.getRoamIPType())) << std::setw(24)
            << orDash(p.hasApnTypesMask(), typeNames(p.getApnTypesMask())) << std::setw(10)
            << orDash(p.hasAuthType(), text(p.getAuthType())) << std::setw(6)
            << orDash(p.hasApnClass(), text(p.getApnClass())) << (flags.empty() ? "-" : flags)
            << "\n";
    }
}

// ---------------------------------------------------------------------------
// The modem and the library for one run

struct Globals {
    std::string statePath;
    std::string modemSocket;  // the modem service; empty: the embedded modem
    int instance = 0;
    bool json = false;
    bool log = false;
    bool noService = false;
    int timeoutMs = 5000;
};

std::string defaultStatePath() {
    const char* xdg = getenv("XDG_STATE_HOME");
    std::string base;
    if (xdg != nullptr && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = getenv("HOME");
        base = std::string(home != nullptr ? home : ".") + "/.local/state";
    }
    return base + "/kivr/modem.state";
}

void makeParentDirectories(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string dir = path.substr(0, slash);
        if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            throw Refused("cannot create " + dir + ": " + strerror(errno));
        }
    }
}

void discardDiag(const msg_desc_type*, const char*, void*) {}

// The modem of one run when no service is named: a modem service in this
// process on the state file, which stays locked for the whole run so that
// concurrent commands take turns and lose nothing. Every change is saved
// before the modem answers it.
class EmbeddedModem {
  public:
    explicit EmbeddedModem(const Globals& globals) {
        makeParentDirectories(globals.statePath);
        auto state = xalsim::StateFile::open(globals.statePath, "kivctl",
                                             std::chrono::milliseconds(globals.timeoutMs));
        if (!state.ok()) throw Refused(state.error().message());
        mState.emplace(std::move(*state));
        kivmodemd::ModemServer::Options options;
        auto log = [verbose = globals.log](const std::string& line) {
            if (verbose) std::cerr << "kivctl: modem: " << line << "\n";
        };
        mServer = std::make_unique<kivmodemd::ModemServer>(options, log);
        xalsim::ModemCore& modem = mServer->modem();
        const bool firstUse = !mState->exists();
        xalsim::Table table = xalsim::factoryTable();
        if (!firstUse) {
            auto loaded = mState->load();
            if (!loaded.ok())
                throw UsageError("malformed modem state: " + loaded.error().message());
            table = std::move(*loaded);
        }
        std::string why;
        if (!modem.replaceTable(table, &why)) {
            throw UsageError("malformed modem state: " + mState->path() + ": " + why);
        }
        if (firstUse) {
            if (auto saved = mState->save(table); !saved.ok())
                throw Refused(saved.error().message());
        }
        modem.setCommitHook([this](const xalsim::Table& changed, std::string* error) {
            auto saved = mState->save(changed);
            if (!saved.ok()) *error = saved.error().message();
            return saved.ok();
        });
        if (globals.noService) modem.setServiceUp(false);
        mThread = std::thread([this] { mServer->run(); });
        xalremote::setConnector([server = mServer.get()] {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
                return android::base::unique_fd();
            }
            server->adopt(android::base::unique_fd(ends[0]));
            return android::base::unique_fd(ends[1]);
        });
    }

    ~EmbeddedModem() {
        // Later connections find no modem, as when a service went away.
        xalremote::setConnector([] { return android::base::unique_fd(); });
        mServer->stop();
        mThread.join();
    }

  private:
    std::optional<xalsim::StateFile> mState;
    std::unique_ptr<kivmodemd::ModemServer> mServer;
    std::thread mThread;
};

class Session {
  public:
    explicit Session(const Globals& globals) : mGlobals(globals), mManager(Manager::getInstance()) {
        if (mGlobals.modemSocket.empty()) {
            mEmbedded = std::make_unique<EmbeddedModem>(mGlobals);
        } else {
            if (mGlobals.noService) {
                throw UsageError(
                        "--no-service is for the embedded modem; on the service, "
                        "'kivctl modem down' takes it down");
            }
            xalremote::setConnector(nullptr);
            xalremote::setSocketPath(mGlobals.modemSocket);
        }
        auto control = xalremote::ServiceControl::connect();
        if (!control.ok()) throw Refused(control.error().message());
        mControl.emplace(std::move(*control));
        mFailedSaves = status().value("failedCommits", uint64_t{0});
    }

    // Brings the library up on the modem and reads its table, once a run.
    void startLibrary() {
        if (mLibrary) return;
        diag_host_set_sink(mGlobals.log ? nullptr : discardDiag, nullptr);
        mManager.init(mGlobals.instance, mGlobals.log);
        waitForLibrary();
        mManager.refresh(kiv::PDC_REFRESH_COMPLETED);
        mLibrary = true;
    }

    bool libraryStarted() const { return mLibrary; }

    // The end of a run that went well: keys are dropped (temporary profiles
    // leave the modem) and every change must have been stored.
    void finish() {
        mHandles.clear();
        if (mLibrary) settle();
        checkSaved();
    }

    // Keys are dropped and their effects settled before the modem goes.
    ~Session() {
        mHandles.clear();
        if (mLibrary) settle();
    }

    Manager& manager() { return mManager; }
    kiv::Util& util() { return mUtil; }
    const Globals& globals() const { return mGlobals; }

    // One command to the modem; its refusal is the command's.
    nlohmann::json call(const nlohmann::json& command) {
        auto answer = mControl->call(command);
        if (!answer.ok()) throw Refused("modem: " + answer.error().message());
        return *answer;
    }
    nlohmann::json status() { return call({{"op", "status"}}); }

    // A change the modem could not store is the command's failure.
    void checkSaved() {
        const auto now = status();
        const uint64_t failed = now.value("failedCommits", uint64_t{0});
        if (failed == mFailedSaves) return;
        mFailedSaves = failed;
        throw Refused("the modem could not store the change: " +
                      now.value("commitError", std::string("unknown reason")));
    }

    // Waits until this process's library has connected and registered.
    void waitForLibrary() {
        if (!xalremote::waitForRegisteredClients(1,
                                                 std::chrono::milliseconds(mGlobals.timeoutMs))) {
            throw Refused("the modem did not come up within " + std::to_string(mGlobals.timeoutMs) +
                          " ms");
        }
    }

    // Every indication sent so far has been handled by the library.
    void settle() {
        xalremote::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
        mManager.match(FilterProfileParams(), nullptr);
        mManager.match(FilterProfileParams(), nullptr);
    }

    // Which profiles the modem stores persistently, by (tech, id).
    std::set<std::pair<TechType, int>> persistentProfiles() {
        std::set<std::pair<TechType, int>> persistent;
        const nlohmann::json table = call({{"op", "profiles"}});
        for (const auto& profile : table["profiles"]) {
            if (profile.value("persistent", 0) == 0) continue;
            const TechType tech = profile.value("type", "") == "3gpp2" ? TechType::TECH_3GPP2
                                                                       : TechType::TECH_3GPP;
            persistent.emplace(tech, profile.value("index", 0));
        }
        return persistent;
    }

    int keep(std::shared_ptr<kiv::IProfileKey> key) {
        mHandles[mNextHandle] = std::move(key);
        return mNextHandle++;
    }
    std::shared_ptr<kiv::IProfileKey> handle(int number) {
        auto it = mHandles.find(number);
        if (it == mHandles.end()) throw UsageError("no handle #" + std::to_string(number));
        return it->second;
    }
    bool drop(int number) { return mHandles.erase(number) != 0; }
    const std::map<int, std::shared_ptr<kiv::IProfileKey>>& handles() const { return mHandles; }

    ProfileView view(const std::shared_ptr<kiv::IProfileKey>& key, int handleNumber = 0,
                     const std::set<std::pair<TechType, int>>* persistent = nullptr) {
        ProfileView v;
        v.id = key->getProfileId();
        v.tech = key->getTechType();
        v.handle = handleNumber;
        if (auto params = mManager.getProfile(key)) v.params = *params;
        const auto stored = persistent ? *persistent : persistentProfiles();
        v.persistent = stored.count({v.tech, v.id}) != 0;
        return v;
    }

  private:
    Globals mGlobals;
    std::unique_ptr<EmbeddedModem> mEmbedded;
    std::optional<xalremote::ServiceControl> mControl;
    uint64_t mFailedSaves = 0;
    Manager& mManager;
    bool mLibrary = false;
    kiv::Util mUtil;
    std::map<int, std::shared_ptr<kiv::IProfileKey>> mHandles;
    int mNextHandle = 1;
};

// ---------------------------------------------------------------------------
// Commands

class Commands {
  public:
    Commands(Session& session, const Globals& globals, std::istream& in, std::ostream& out,
             std::ostream& err, bool inShell)
        : mSession(session), mGlobals(globals), mIn(in), mOut(out), mErr(err), mInShell(inShell) {}

    // Runs one command; a change the modem could not store fails it, with
    // the reason, whatever else it reports.
    int execute(const std::string& command, Args args) {
        if (args.flag("--help")) {
            auto it = kCommandHelp.find(command);
            if (it == kCommandHelp.end()) throw UsageError("unknown command '" + command + "'");
            mOut << it->second;
            return kOk;
        }
        int status;
        try {
            status = dispatch(command, args);
        } catch (const Refused&) {
            mSession.checkSaved();
            throw;
        }
        mSession.checkSaved();
        return status;
    }

  private:
    int dispatch(const std::string& command, Args& args) {
        if (command == "watch") return watch(args);
        if (command == "modem") return modem(args);
        if (command == "shell") {
            if (mInShell) throw UsageError("already in the shell");
            return shell(args);
        }
        if (kCommandHelp.count(command) == 0) throw UsageError("unknown command '" + command + "'");
        mSession.startLibrary();
        if (command == "list") return list(args);
        if (command == "show") return show(args);
        if (command == "add") return add(args);
        if (command == "modify") return modify(args);
        if (command == "delete") return remove(args);
        if (command == "find") return find(args);
        if (command == "attach") return attach(args);
        if (command == "data-call") return dataCall(args);
        if (command == "emergency") return emergency(args);
        if (command == "apply-apns") return applyApns(args);
        if (command == "dump") return dump(args);
        throw UsageError("unknown command '" + command + "'");
    }

    Manager& manager() { return mSession.manager(); }

    // A profile named by id (with --tech) or, in the shell, by handle.
    std::shared_ptr<kiv::IProfileKey> resolve(const std::string& word,
                                              const std::optional<std::string>& tech) {
        if (!word.empty() && word[0] == '#') {
            return mSession.handle(parseInt(word.substr(1), "a handle", 1));
        }
        const int id = parseInt(word, "a profile id", 1, 255);
        const TechType techType = tech ? parseTech(*tech)
                                       : (id >= xalsim::kFirst3gpp2Index ? TechType::TECH_3GPP2
                                                                         : TechType::TECH_3GPP);
        FilterProfileParams byId;
        byId.setFilterByProfileId(id);
        byId.setFilterByTechType(techType);
        auto keys = manager().filter(byId);
        if (keys.empty()) {
            throw UsageError("no profile " + std::to_string(id) + " (" + techName(techType) + ")");
        }
        return keys.front();
    }

    std::shared_ptr<kiv::IProfileKey> resolveOne(Args& args) {
        const auto tech = args.value("--tech");
        auto words = args.positionals(1);
        if (words.empty()) throw UsageError("which profile? (an id, or #N in the shell)");
        return resolve(words[0], tech);
    }

    int report(const std::string& action, const std::shared_ptr<kiv::IProfileKey>& key) {
        if (!key) throw Refused(action + ": refused by the library or the modem");
        const int number = mInShell ? mSession.keep(key) : 0;
        const ProfileView v = mSession.view(key, number);
        if (mGlobals.json) {
            mOut << "{\"action\":" << jsonString(action) << ",\"profile\":" << profileJson(v)
                 << "}\n";
        } else {
            mOut << action << ": profile " << v.id << " (" << techName(v.tech) << ")";
            if (number) mOut << " as #" << number;
            mOut << "\n";
        }
        return kOk;
    }

    int printProfiles(std::vector<ProfileView> views, bool withHandles) {
        std::sort(views.begin(), views.end(), [](const ProfileView& a, const ProfileView& b) {
            return std::make_pair(a.tech, a.id) < std::make_pair(b.tech, b.id);
        });
        if (mGlobals.json) {
            mOut << "{\"profiles\":[";
            for (size_t i = 0; i < views.size(); ++i) {
                mOut << (i ? "," : "") << profileJson(views[i]);
            }
            mOut << "]}\n";
        } else {
            printTable(mOut, views, withHandles);
        }
        return kOk;
    }

    int list(Args& args) {
        args.positionals(0);
        std::vector<ProfileView> views;
        const auto persistent = mSession.persistentProfiles();
        for (const auto& key : manager().filter(FilterProfileParams())) {
            views.push_back(mSession.view(key, 0, &persistent));
        }
        return printProfiles(std::move(views), false);
    }

    int show(Args& args) {
        const ProfileView v = mSession.view(resolveOne(args));
        if (mGlobals.json) {
            mOut << profileJson(v) << "\n";
            return kOk;
        }
        const ProfileParams& p = v.params;
        mOut << "profile " << v.id << " (" << techName(v.tech) << ")\n";
        auto line = [this](const char* name, bool present, const std::string& value) {
            if (present) mOut << "  " << std::left << std::setw(16) << name << value << "\n";
        };
        line("apn", p.hasApnName(), p.getApnName());
        line("home ip", p.hasHomeIPType(), text(p.getHomeIPType()));
        line("roam ip", p.hasRoamIPType(), text(p.getRoamIPType()));
        line("types", p.hasApnTypesMask(), typeNames(p.getApnTypesMask()));
        line("auth", p.hasAuthType(), text(p.getAuthType()));
        line("user", p.hasUserName(), p.getUserName());
        line("password", p.hasPassword(), p.getPassword());
        line("class", p.hasApnClass(), text(p.getApnClass()));
        line("max conns", p.hasMaxPdnsConnPerBlock(), std::to_string(p.getMaxPdnsConnPerBlock()));
        line("max conns time", p.hasMaxPdnConnTimer(), std::to_string(p.getMaxPdnConnTimer()));
        line("wait time", p.hasPdnReqWaitInterval(), std::to_string(p.getPdnReqWaitInterval()));
        std::string flags;
        for (const auto& flag : flagsOf(v)) flags += (flags.empty() ? "" : ",") + flag;
        line("flags", true, flags.empty() ? "-" : flags);
        return kOk;
    }

    int add(Args& args) {
        const bool temporary = args.flag("--temporary");
        const bool attach = args.flag("--attach");
        const auto tech = args.value("--tech");
        ProfileParams params;
        readProfileOptions(args, params);
        args.positionals(0);
        const kiv::AddProfileParams add(params, !temporary,
                                        tech ? parseTech(*tech) : TechType::TECH_3GPP, attach);
        return report("added", manager().addProfile(add));
    }

    int modify(Args& args) {
        const auto tech = args.value("--tech");
        kiv::ModifyProfileParams params;
        readProfileOptions(args, params);
        auto words = args.positionals(1);
        if (words.empty()) throw UsageError("which profile? (an id, or #N in the shell)");
        auto key = resolve(words[0], tech);
        if (!manager().modifyProfile(params, key)) throw Refused("modify: refused");
        return report("modified", key);
    }

    int remove(Args& args) {
        auto key = resolveOne(args);
        const int id = key->getProfileId();
        if (!manager().deleteProfile(key)) throw Refused("delete: refused by the modem");
        if (mGlobals.json) {
            mOut << "{\"action\":\"deleted\",\"id\":" << id << "}\n";
        } else {
            mOut << "deleted: profile " << id << "\n";
        }
        return kOk;
    }

    int find(Args& args) {
        FilterProfileParams filter;
        readProfileOptions(args, filter);
        if (auto v = args.value("--id")) filter.setFilterByProfileId(parseInt(*v, "--id", 0, 255));
        if (auto v = args.value("--tech")) filter.setFilterByTechType(parseTech(*v));
        if (auto v = args.value("--kiv")) filter.setFilterByIsKivProfile(parseSwitch(*v, "--kiv"));
        if (auto v = args.value("--attach-profile")) {
            filter.setFilterByIsIAProfile(parseSwitch(*v, "--attach-profile"));
        }
        const std::pair<const char*, uint32_t> criteria[] = {
                {"--home-subset", kiv::HomeIPSubset},
                {"--home-superset", kiv::HomeIPSuperset},
                {"--roam-subset", kiv::RoamIPSubset},
                {"--roam-superset", kiv::RoamIPSuperset},
                {"--apn-subset", kiv::ApnNameSubset},
                {"--types-subset", kiv::ApnTypeBitmaskSubset}};
        for (const auto& [name, bit] : criteria) {
            if (args.flag(name)) filter.addFilterMatchCriteria(bit);
        }
        args.positionals(0);
        std::vector<ProfileView> views;
        const auto persistent = mSession.persistentProfiles();
        for (const auto& key : manager().filter(filter)) {
            views.push_back(mSession.view(key, mInShell ? mSession.keep(key) : 0, &persistent));
        }
        return printProfiles(std::move(views), mInShell);
    }

    ProfileParams policyParams(Args& args) {
        mSession.util().setProfileUpdateAllowed(args.flag("--allow-update"));
        ProfileParams params;
        readProfileOptions(args, params);
        return params;
    }

    int attach(Args& args) {
        const ProfileParams params = policyParams(args);
        args.positionals(0);
        return report("attach profile", mSession.util().findOrCreateProfileForLteAttach(params));
    }

    int dataCall(Args& args) {
        const auto tech = args.value("--tech");
        const ProfileParams params = policyParams(args);
        args.positionals(0);
        return report("data-call profile",
                      mSession.util().findOrCreateProfileForSetupDataCall(
                              tech ? parseTech(*tech) : TechType::TECH_3GPP, params));
    }

    int emergency(Args& args) {
        const ProfileParams params = policyParams(args);
        args.positionals(0);
        return report("emergency profile",
                      mSession.util().findOrCreateProfileForEmergencyDataCall(params));
    }

    int applyApns(Args& args) {
        CarrierSelection selection;
        const auto mcc = args.value("--mcc");
        const auto mnc = args.value("--mnc");
        if (!mcc || !mnc) throw UsageError("apply-apns needs --mcc and --mnc");
        selection.mcc = *mcc;
        selection.mnc = *mnc;
        selection.mvnoType = args.value("--mvno-type");
        selection.mvnoMatchData = args.value("--mvno-match");
        if (selection.mvnoMatchData && !selection.mvnoType) {
            throw UsageError("--mvno-match needs --mvno-type");
        }
        mSession.util().setProfileUpdateAllowed(args.flag("--allow-update"));
        auto words = args.positionals(1);
        if (words.empty()) throw UsageError("apply-apns needs an apns-conf.xml file");

        const ApnsConfResult read = ApnsConf::read(words[0], selection);
        if (!read.ok) throw UsageError(read.error);
        for (const auto& warning : read.warnings) mErr << "kivctl: warning: " << warning << "\n";
        if (read.entries.empty()) {
            throw UsageError("no entries for carrier " + *mcc + "/" + *mnc + " in " + words[0]);
        }
        std::list<ProfileParams> records;
        for (const auto& entry : read.entries) records.push_back(entry.params);
        const auto before = xalremote::answeredRequests(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
        mSession.util().updateAPNTypeBitmaskOnModemProfile(records);
        const auto updates =
                xalremote::answeredRequests(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01) - before;

        int skipped = 0;
        for (const auto& [reason, count] : read.skipped) skipped += count;
        if (mGlobals.json) {
            mOut << "{\"carrier\":" << jsonString(*mcc + "/" + *mnc)
                 << ",\"used\":" << read.entries.size() << ",\"skipped\":{";
            bool firstReason = true;
            for (const auto& [reason, count] : read.skipped) {
                mOut << (firstReason ? "" : ",") << jsonString(reason) << ":" << count;
                firstReason = false;
            }
            mOut << "},\"warnings\":" << read.warnings.size() << ",\"profilesUpdated\":" << updates
                 << "}\n";
        } else {
            mOut << "carrier " << *mcc << "/" << *mnc << ": used " << read.entries.size() << " of "
                 << read.total << " entries, skipped " << skipped;
            for (const auto& [reason, count] : read.skipped) {
                mOut << (reason == read.skipped.begin()->first ? " (" : ", ") << count << " "
                     << reason;
            }
            mOut << (read.skipped.empty() ? "" : ")") << "; " << read.warnings.size()
                 << " warnings\n";
            mOut << "modem profiles updated: " << updates << "\n";
        }
        return kOk;
    }

    int dump(Args& args) {
        args.positionals(0);
        const auto lines = manager().dump();
        if (mGlobals.json) {
            mOut << "{\"dump\":[";
            for (size_t i = 0; i < lines.size(); ++i) {
                mOut << (i ? "," : "") << jsonString(lines[i]);
            }
            mOut << "]}\n";
        } else {
            for (const auto& line : lines) mOut << line << "\n";
        }
        return kOk;
    }

    // The library picks itself up after the modem came back or changed wholesale.
    void resyncLibrary() {
        if (!mSession.libraryStarted()) return;
        xalremote::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
        mSession.waitForLibrary();
        mSession.settle();
    }

    int modem(Args& args) {
        auto words = args.positionals(4);
        if (words.empty()) throw UsageError("modem needs an action (kivctl modem --help)");
        const std::string action = words[0];
        words.erase(words.begin());
        auto noMore = [&](size_t most) {
            if (words.size() > most) throw UsageError("unexpected argument '" + words[most] + "'");
        };
        nlohmann::json command;
        std::string done;
        if (action == "restart" || action == "reset" || action == "down" || action == "up") {
            noMore(0);
            command = {{"op", action}};
            done = action == "restart" ? "restarted" : action == "reset" ? "reset" : action;
        } else if (action == "status") {
            noMore(0);
            return modemStatus();
        } else if (action == "fail" || action == "timeout") {
            noMore(2);
            if (words.empty())
                throw UsageError("modem " + action + " needs a kind (kivctl modem --help)");
            const int count = words.size() > 1 ? parseInt(words[1], "a count", 1, 1000000) : 1;
            if (action == "fail" && (words[0] == "service" || words[0] == "connect")) {
                command = {{"op", words[0] == "service" ? "failService" : "failConnect"},
                           {"count", count}};
            } else {
                command = {{"op", action}, {"msgId", messageIdOf(words[0])}, {"count", count}};
            }
            done = (action == "fail" ? "the next " : "no answer to the next ") +
                   std::to_string(count) + " " + words[0] +
                   (action == "fail" ? " will fail" : " requests");
        } else if (action == "send") {
            command = indication(words);
            done = "sent " + words[0];
        } else {
            throw UsageError("unknown modem action '" + action +
                             "' (restart|reset|down|up|status|fail|timeout|send)");
        }
        mSession.call(command);
        if (action == "restart" || action == "reset" || action == "up") resyncLibrary();
        if (action == "down" && mSession.libraryStarted()) {
            xalremote::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
        }
        const auto status = mSession.status();
        const int profiles = status.value("profiles", 0);
        if (mGlobals.json) {
            mOut << "{\"modem\":" << jsonString(action)
                 << ",\"serviceUp\":" << (status.value("serviceUp", false) ? "true" : "false")
                 << ",\"profiles\":" << profiles << "}\n";
        } else if (action == "restart" || action == "reset") {
            mOut << "modem " << done << ": " << profiles << " profiles on the modem\n";
        } else {
            mOut << "modem: " << done << "\n";
        }
        return kOk;
    }

    static unsigned int messageIdOf(const std::string& kind) {
        static const std::map<std::string, unsigned int> kKinds = {
                {"create", XAL_WDS_CREATE_PROFILE_REQ_V01},
                {"modify", XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01},
                {"delete", XAL_WDS_DELETE_PROFILE_REQ_V01},
                {"list", XAL_WDS_GET_PROFILE_LIST_REQ_V01},
                {"get", XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01},
                {"bind", XAL_WDS_BIND_SUBSCRIPTION_REQ_V01},
                {"register", XAL_WDS_INDICATION_REGISTER_REQ_V01},
                {"events", XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01}};
        auto it = kKinds.find(kind);
        if (it != kKinds.end()) return it->second;
        unsigned int id = 0;
        if (android::base::ParseUint(kind, &id, 0xFFFFu)) return id;
        throw UsageError("unknown request kind '" + kind +
                         "' (create|modify|delete|list|get|bind|register|events, a message id, "
                         "or for fail: service|connect)");
    }

    static nlohmann::json indication(const std::vector<std::string>& words) {
        if (words.empty()) throw UsageError("modem send needs an indication (kivctl modem --help)");
        const std::string& kind = words[0];
        if (kind == "subscription-change" || kind == "profile-ready") {
            if (words.size() > 1) throw UsageError("unexpected argument '" + words[1] + "'");
            return {{"op", "indicate"}, {"kind", kind}};
        }
        if (kind == "changed") {
            if (words.size() != 4)
                throw UsageError("usage: modem send changed 3gpp|3gpp2|all INDEX EVENT");
            static const std::map<std::string, int> kEvents = {
                    {"create", WDS_PROFILE_EVENT_CREATE_V01},
                    {"delete", WDS_PROFILE_EVENT_DELETE_V01},
                    {"modify", WDS_PROFILE_EVENT_MODIFY_V01},
                    {"subscription-change", WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01},
                    {"profile-ready", WDS_PROFILE_EVENT_PROFILE_READY_V01}};
            const int type = words[1] == "3gpp"    ? WDS_PROFILE_TYPE_3GPP_V01
                             : words[1] == "3gpp2" ? WDS_PROFILE_TYPE_3GPP2_V01
                             : words[1] == "all"
                                     ? WDS_PROFILE_TYPE_ALL_V01
                                     : throw UsageError("bad profile type '" + words[1] +
                                                        "' (3gpp|3gpp2|all)");
            auto event = kEvents.find(words[3]);
            return {{"op", "indicate"},
                    {"kind", "changed"},
                    {"type", type},
                    {"index", parseInt(words[2], "an index", 0, 255)},
                    {"event", event != kEvents.end() ? event->second
                                                     : parseInt(words[3], "an event", 0, 1000000)}};
        }
        if (kind == "raw") {
            if (words.size() != 3) throw UsageError("usage: modem send raw MESSAGE-ID HEX-BYTES");
            const std::string& hex = words[2];
            if (hex.size() % 2 != 0 || hex.size() > 2 * 16384) {
                throw UsageError("bad bytes '" + hex +
                                 "' (pairs of hex digits, at most 16384 bytes)");
            }
            nlohmann::json bytes = nlohmann::json::array();
            for (size_t i = 0; i < hex.size(); i += 2) {
                unsigned int byte = 0;
                if (!isxdigit(static_cast<unsigned char>(hex[i])) ||
                    !isxdigit(static_cast<unsigned char>(hex[i + 1])) ||
                    !android::base::ParseUint("0x" + hex.substr(i, 2), &byte, 0xFFu)) {
                    throw UsageError("bad bytes '" + hex + "' (pairs of hex digits)");
                }
                bytes.push_back(byte);
            }
            return {{"op", "indicate"},
                    {"kind", "raw"},
                    {"msgId", messageIdOf(words[1])},
                    {"bytes", bytes}};
        }
        throw UsageError("unknown indication '" + kind +
                         "' (subscription-change|profile-ready|changed|raw)");
    }

    int modemStatus() {
        const auto status = mSession.status();
        if (mGlobals.json) {
            mOut << status.dump() << "\n";
            return kOk;
        }
        mOut << "service:   " << (status.value("serviceUp", false) ? "up" : "down") << "\n"
             << "profiles:  " << status.value("profiles", 0) << " (room for "
             << status.value("capacity3gpp", 0) << " 3gpp, " << status.value("capacity3gpp2", 0)
             << " 3gpp2)\n"
             << "latency:   " << status.value("latencyMs", 0) << " ms per request\n"
             << "clients:   " << status.value("clients", 0) << "\n"
             << "requests:  " << status.value("requests", 0) << " ("
             << status.value("failedRequests", 0) << " failed)\n";
        const std::string error = status.value("commitError", std::string());
        if (!error.empty()) mOut << "last save: failed: " << error << "\n";
        return kOk;
    }

    int watch(Args& args);

    int shell(Args& args);

    Session& mSession;
    const Globals& mGlobals;
    std::istream& mIn;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
};

// A client of the modem service of its own, printing the profile changes
// the modem announces.
class ChangeWatcher {
  public:
    struct Indication {
        unsigned int msgId;
        std::vector<uint8_t> bytes;
    };

    explicit ChangeWatcher(std::chrono::milliseconds timeout) : mTimeout(timeout) {
        xal_idl_service_object_type service = wds_get_service_object_internal_v01(1, 0xF1, 6);
        xal_service_info info{};
        xal_client_os_params os{};
        if (xal_client_get_any_service(service, &info) != XAL_NO_ERR ||
            xal_client_init(&info, service, onIndication, this, &os, &mClient) != XAL_NO_ERR) {
            throw Refused("cannot reach the modem service at " + xalremote::socketPath());
        }
        xal_client_register_error_cb(mClient, onError, this);
        wds_indication_register_req_msg_v01 events{};
        events.report_profile_changed_events_valid = 1;
        events.report_profile_changed_events = 1;
        wds_configure_profile_event_list_req_msg_v01 all{};
        all.profile_event_register_valid = 1;
        all.profile_event_register_len = 1;
        all.profile_event_register[0] = {WDS_PROFILE_TYPE_ALL_V01, 0xFF};
        all.report_all_profiles_valid = 1;
        all.report_all_profiles = 1;
        if (!send(XAL_WDS_INDICATION_REGISTER_REQ_V01, &events, sizeof(events)) ||
            !send(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01, &all, sizeof(all))) {
            throw Refused("the modem service refused to report profile changes");
        }
    }
    ~ChangeWatcher() { xal_client_release(mClient); }

    // The next indication; none when the service went away.
    std::optional<Indication> next() {
        kiv::MutexLock guard(mLock);
        guard.wait(mChanged, [this]() REQUIRES(mLock) { return !mQueue.empty() || mLost; });
        if (mQueue.empty()) return std::nullopt;
        Indication indication = std::move(mQueue.front());
        mQueue.pop_front();
        return indication;
    }

    std::optional<xalsim::Settings> settings(const wds_profile_identifier_type_v01& profile) {
        wds_get_profile_settings_req_msg_v01 request{};
        request.profile = profile;
        wds_get_profile_settings_resp_msg_v01 response{};
        if (xal_client_send_msg_sync(mClient, XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01, &request,
                                     sizeof(request), &response, sizeof(response),
                                     static_cast<unsigned int>(mTimeout.count())) != XAL_NO_ERR ||
            response.resp.result != 0) {
            return std::nullopt;
        }
        return response;
    }

  private:
    bool send(unsigned int msgId, void* request, unsigned int length) {
        wds_generic_resp_msg_v01 response{};
        return xal_client_send_msg_sync(
                       mClient, msgId, request, length, &response, sizeof(response),
                       static_cast<unsigned int>(mTimeout.count())) == XAL_NO_ERR &&
               response.resp.result == 0;
    }
    static void onIndication(xal_client_type, unsigned int msgId, void* buffer, unsigned int length,
                             void* data) {
        auto* self = static_cast<ChangeWatcher*>(data);
        const auto* bytes = static_cast<const uint8_t*>(buffer);
        kiv::MutexLock guard(self->mLock);
        self->mQueue.push_back({msgId, std::vector<uint8_t>(bytes, bytes + length)});
        self->mChanged.notify_all();
    }
    static void onError(xal_client_type, xal_client_error_type, void* data) {
        auto* self = static_cast<ChangeWatcher*>(data);
        kiv::MutexLock guard(self->mLock);
        self->mLost = true;
        self->mChanged.notify_all();
    }

    const std::chrono::milliseconds mTimeout;
    xal_client_type mClient = nullptr;
    kiv::Mutex mLock;
    std::condition_variable mChanged;
    std::deque<Indication> mQueue GUARDED_BY(mLock);
    bool mLost GUARDED_BY(mLock) = false;
};

int Commands::watch(Args& args) {
    const auto countText = args.value("--count");
    const int limit = countText ? parseInt(*countText, "--count", 1) : 0;
    args.positionals(0);
    if (mGlobals.modemSocket.empty()) {
        throw UsageError(
                "watch needs the modem service: start kivmodemd and name its socket "
                "with --modem PATH or KIVR_MODEM");
    }
    ChangeWatcher watcher(std::chrono::milliseconds(mGlobals.timeoutMs));
    mErr << "kivctl: watching the modem at " << xalremote::socketPath() << "\n";
    mErr.flush();
    static const char* const kEvents[] = {
            "0", "create", "delete", "modify", "subscription-change", "profile-ready"};
    for (int seen = 0; limit == 0 || seen < limit; ++seen) {
        auto indication = watcher.next();
        if (!indication) throw Refused("the modem service went away");
        nlohmann::ordered_json change;
        wds_profile_changed_ind_msg_v01 decoded{};
        const auto result = xal_client_message_decode(
                nullptr, XAL_IDL_INDICATION, indication->msgId, indication->bytes.data(),
                static_cast<unsigned int>(indication->bytes.size()), &decoded, sizeof(decoded));
        if (indication->msgId != XAL_WDS_PROFILE_CHANGED_IND_V01) {
            change["event"] = "indication";
            change["msgId"] = indication->msgId;
            change["bytes"] = indication->bytes.size();
        } else if (result != XAL_NO_ERR) {
            change["event"] = "undecodable";
            change["bytes"] = indication->bytes.size();
        } else if (!decoded.profile_changed_ind_valid) {
            change["event"] = "empty";
        } else {
            const auto& record = decoded.profile_changed_ind;
            const int32_t event = record.profile_change_evt;
            change["event"] = event >= 1 && event <= 5 ? kEvents[event] : std::to_string(event);
            if (record.profile_type != WDS_PROFILE_TYPE_ALL_V01) {
                change["type"] = xalsim::typeName(record.profile_type);
                change["index"] = record.profile_index;
            }
            if (event == WDS_PROFILE_EVENT_CREATE_V01 || event == WDS_PROFILE_EVENT_MODIFY_V01) {
                if (auto settings = watcher.settings({record.profile_type, record.profile_index})) {
                    auto fields = xalsim::profileToJson({record.profile_type, record.profile_index},
                                                        *settings);
                    fields.erase("type");
                    fields.erase("index");
                    change["settings"] = fields;
                }
            }
        }
        if (mGlobals.json) {
            mOut << change.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
        } else {
            std::string line = change["event"].get<std::string>();
            if (change.contains("type")) {
                line += " " + change["type"].get<std::string>() + " " + change["index"].dump();
            }
            if (change.contains("msgId")) line += " " + change["msgId"].dump();
            if (change.contains("bytes")) line += " (" + change["bytes"].dump() + " bytes)";
            if (change.contains("settings")) {
                line += ":";
                for (const auto& [name, value] : change["settings"].items()) {
                    line += " " + name + "=" +
                            value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
                }
            }
            mOut << line << "\n";
        }
        mOut.flush();
    }
    return kOk;
}

// Splits a shell line into words; double quotes group, backslash escapes.
std::vector<std::string> splitLine(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false, quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            inWord = true;
        } else if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            if (inWord) words.push_back(word);
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quoted) throw UsageError("unterminated quote");
    if (inWord) words.push_back(word);
    return words;
}

int Commands::shell(Args& args) {
    args.positionals(0);
    Commands inner(mSession, mGlobals, mIn, mOut, mErr, true);
    int worst = kOk;
    std::string line;
    while (std::getline(mIn, line)) {
        int status = kOk;
        try {
            auto words = splitLine(line);
            if (words.empty() || words[0][0] == '#') continue;
            const std::string command = words[0];
            words.erase(words.begin());
            if (command == "exit" || command == "quit") break;
            if (command == "help") {
                mOut << kGlobalHelp;
            } else if (command == "handles") {
                std::vector<ProfileView> views;
                for (const auto& [number, key] : mSession.handles()) {
                    views.push_back(mSession.view(key, number));
                }
                printTable(mOut, views, true);
            } else if (command == "drop") {
                if (words.size() != 1 || words[0].empty() || words[0][0] != '#') {
                    throw UsageError("usage: drop #N");
                }
                const int number = parseInt(words[0].substr(1), "a handle", 1);
                if (!mSession.drop(number)) throw UsageError("no handle " + words[0]);
                mSession.settle();
                mSession.checkSaved();
                mOut << "dropped #" << number << "\n";
            } else {
                status = inner.execute(command, Args(words));
            }
            // What the line changed is stored now: an interrupted session
            // keeps every change it reported.
        } catch (const UsageError& e) {
            mErr << "kivctl: " << e.what() << "\n";
            status = kBadInput;
        } catch (const Refused& e) {
            mErr << "kivctl: " << e.what() << "\n";
            status = kRefused;
        }
        worst = std::max(worst, status);
        mOut.flush();
    }
    return worst;
}

}  // namespace

int run(const std::vector<std::string>& words, std::istream& in, std::ostream& out,
        std::ostream& err) {
    try {
        Globals globals;
        size_t next = 0;
        for (; next < words.size() && words[next].rfind("--", 0) == 0; ++next) {
            const std::string& option = words[next];
            auto valueOf = [&]() -> std::string {
                if (next + 1 >= words.size())
                    throw UsageError("option " + option + " needs a value");
                return words[++next];
            };
            if (option == "--help") {
                out << kGlobalHelp;
                return kOk;
            } else if (option == "--modem-state") {
                globals.statePath = valueOf();
            } else if (option == "--modem") {
                globals.modemSocket = valueOf();
            } else if (option == "--instance") {
                globals.instance = parseInt(valueOf(), "--instance", 0);
            } else if (option == "--timeout") {
                globals.timeoutMs = parseInt(valueOf(), "--timeout", 1, 3600000);
            } else if (option == "--json") {
                globals.json = true;
            } else if (option == "--log") {
                globals.log = true;
            } else if (option == "--no-service") {
                globals.noService = true;
            } else {
                throw UsageError("unknown option " + option);
            }
        }
        if (next >= words.size()) throw UsageError("no command (kivctl --help lists them)");
        const std::string command = words[next];
        Args args(
                std::vector<std::string>(words.begin() + static_cast<long>(next) + 1, words.end()));
        if (args.flag("--help")) {
            auto it = kCommandHelp.find(command);
            if (it == kCommandHelp.end()) throw UsageError("unknown command '" + command + "'");
            out << it->second;
            return kOk;
        }
        if (kCommandHelp.count(command) == 0) throw UsageError("unknown command '" + command + "'");
        if (globals.modemSocket.empty()) {
            const char* named = getenv("KIVR_MODEM");
            if (named != nullptr) globals.modemSocket = named;
        }
        if (globals.statePath.empty()) globals.statePath = defaultStatePath();

        Session session(globals);
        Commands commands(session, globals, in, out, err, false);
        const int status = commands.execute(command, std::move(args));
        session.finish();
        return status;
    } catch (const UsageError& e) {
        err << "kivctl: " << e.what() << "\n";
        return kBadInput;
    } catch (const Refused& e) {
        err << "kivctl: " << e.what() << "\n";
        return kRefused;
    }
}

}  // namespace kivctl
