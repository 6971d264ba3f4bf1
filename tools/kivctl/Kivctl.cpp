#include "Kivctl.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "ApnsConf.h"
#include "Manager.h"
#include "SimModem.h"
#include "Util.h"
#include "diag_host.h"

namespace kivctl {

namespace {

using kiv::FilterProfileParams;
using kiv::IPType;
using kiv::Manager;
using kiv::ProfileParams;
using kiv::TechType;
using xalsim::SimModem;

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

Runs libkivr against a simulated modem whose profile table persists between
runs.

Global options:
  --modem-state FILE  the modem's table (default $XDG_STATE_HOME/kivr/modem.state,
                      else ~/.local/state/kivr/modem.state)
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
  modem restart        restart the modem (temporary profiles are lost)
  modem reset          put the seeded table back
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
        {"modem", "usage: kivctl modem restart|reset\n"},
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
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            throw Refused("cannot create " + dir + ": " + strerror(errno));
        }
    }
}

// A small, realistic table for a first run.
void seedTable(SimModem& sim) {
    auto internet = xalsim::make3gppSettings("internet", "internet", WDS_PDP_TYPE_PDP_IPV4V6_V01,
                                             0x1 | 0x10, true);  // default, supl
    internet.apn_class_valid = 1;
    internet.apn_class = 3;
    sim.seedProfile(WDS_PROFILE_TYPE_3GPP_V01, internet);
    auto ims = xalsim::make3gppSettings("ims", "ims", WDS_PDP_TYPE_PDP_IPV4V6_V01, 0x2, true);
    ims.apn_class_valid = 1;
    ims.apn_class = 1;
    sim.seedProfile(WDS_PROFILE_TYPE_3GPP_V01, ims);
    auto mms = xalsim::make3gppSettings("mms", "mms", WDS_PDP_TYPE_PDP_IPV4_V01, 0x4, true);
    mms.apn_class_valid = 1;
    mms.apn_class = 4;
    sim.seedProfile(WDS_PROFILE_TYPE_3GPP_V01, mms);
    sim.seedProfile(
            WDS_PROFILE_TYPE_3GPP2_V01,
            xalsim::make3gpp2Settings("cdma.internet", WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01, true));
}

void discardDiag(const msg_desc_type*, const char*, void*) {}

class Session {
  public:
    explicit Session(const Globals& globals)
        : mGlobals(globals), mSim(SimModem::instance()), mManager(Manager::getInstance()) {
        mSim.reset();
        struct stat info {};
        if (stat(mGlobals.statePath.c_str(), &info) == 0) {
            std::string error;
            if (!mSim.load(mGlobals.statePath, &error)) {
                throw UsageError("malformed modem state: " + error);
            }
        } else {
            makeParentDirectories(mGlobals.statePath);
            seedTable(mSim);
        }
        if (mGlobals.noService) mSim.setServiceUp(false);
        diag_host_set_sink(mGlobals.log ? nullptr : discardDiag, nullptr);
        mManager.init(mGlobals.instance, mGlobals.log);
        waitForLibrary(0);
        mManager.refresh(kiv::PDC_REFRESH_COMPLETED);
    }

    // Keys are dropped, their effects settled, and the table saved.
    ~Session() {
        mHandles.clear();
        settle();
        std::string error;
        if (!mSim.save(mGlobals.statePath, &error)) std::cerr << "kivctl: " << error << "\n";
    }

    Manager& manager() { return mManager; }
    kiv::Util& util() { return mUtil; }
    SimModem& sim() { return mSim; }

    // Waits until the library has connected more than `before` times.
    void waitForLibrary(size_t before) {
        const auto registered = [this, before] {
            return mSim.requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) > before;
        };
        if (!mSim.waitUntil(registered, std::chrono::milliseconds(mGlobals.timeoutMs))) {
            throw Refused("the modem did not come up within " + std::to_string(mGlobals.timeoutMs) +
                          " ms");
        }
    }

    // Every indication sent so far has been handled by the library.
    void settle() {
        mSim.waitForCallbacks();
        mManager.match(FilterProfileParams(), nullptr);
        mManager.match(FilterProfileParams(), nullptr);
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

    ProfileView view(const std::shared_ptr<kiv::IProfileKey>& key, int handleNumber = 0) {
        ProfileView v;
        v.id = key->getProfileId();
        v.tech = key->getTechType();
        v.handle = handleNumber;
        if (auto params = mManager.getProfile(key)) v.params = *params;
        const auto type = v.tech == TechType::TECH_3GPP2 ? WDS_PROFILE_TYPE_3GPP2_V01
                                                         : WDS_PROFILE_TYPE_3GPP_V01;
        if (auto settings = mSim.getProfile(type, static_cast<uint8_t>(v.id))) {
            v.persistent = settings->persistent_valid && settings->persistent;
        }
        return v;
    }

  private:
    Globals mGlobals;
    SimModem& mSim;
    Manager& mManager;
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

    int execute(const std::string& command, Args args) {
        if (args.flag("--help")) {
            auto it = kCommandHelp.find(command);
            if (it == kCommandHelp.end()) throw UsageError("unknown command '" + command + "'");
            mOut << it->second;
            return kOk;
        }
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
        if (command == "modem") return modem(args);
        if (command == "shell") {
            if (mInShell) throw UsageError("already in the shell");
            return shell(args);
        }
        throw UsageError("unknown command '" + command + "'");
    }

  private:
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
        for (const auto& key : manager().filter(FilterProfileParams())) {
            views.push_back(mSession.view(key));
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
        for (const auto& key : manager().filter(filter)) {
            views.push_back(mSession.view(key, mInShell ? mSession.keep(key) : 0));
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
        const auto before = mSession.sim().requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
        mSession.util().updateAPNTypeBitmaskOnModemProfile(records);
        const auto updates =
                mSession.sim().requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01) - before;

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

    int modem(Args& args) {
        auto words = args.positionals(1);
        if (words.empty()) throw UsageError("modem needs restart or reset");
        SimModem& sim = mSession.sim();
        const size_t connections = sim.requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01);
        if (words[0] == "restart") {
            sim.restart();
            mSession.waitForLibrary(connections);
        } else if (words[0] == "reset") {
            sim.clearProfiles();
            seedTable(sim);
        } else {
            throw UsageError("unknown modem action '" + words[0] + "' (restart|reset)");
        }
        // The modem announces its table; the library rereads it.
        sim.sendProfileReady();
        mSession.settle();
        const size_t profiles = sim.profiles().size();
        if (mGlobals.json) {
            mOut << "{\"modem\":" << jsonString(words[0]) << ",\"profiles\":" << profiles << "}\n";
        } else {
            mOut << "modem " << (words[0] == "restart" ? "restarted" : "reset") << ": " << profiles
                 << " profiles on the modem\n";
        }
        return kOk;
    }

    int shell(Args& args);

    Session& mSession;
    const Globals& mGlobals;
    std::istream& mIn;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
};

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
                mOut << "dropped #" << number << "\n";
            } else {
                status = inner.execute(command, Args(words));
            }
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
        if (globals.statePath.empty()) globals.statePath = defaultStatePath();

        Session session(globals);
        Commands commands(session, globals, in, out, err, false);
        return commands.execute(command, std::move(args));
    } catch (const UsageError& e) {
        err << "kivctl: " << e.what() << "\n";
        return kBadInput;
    } catch (const Refused& e) {
        err << "kivctl: " << e.what() << "\n";
        return kRefused;
    }
}

}  // namespace kivctl
