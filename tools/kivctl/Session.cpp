#include "Session.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <thread>

#include "Errors.h"
#include "ModemServer.h"
#include "ProfileOptions.h"
#include "StateFile.h"
#include "XalRemote.h"
#include "diag_host.h"

namespace kivctl {

std::optional<std::string> defaultStatePath() {
    const char* xdg = getenv("XDG_STATE_HOME");
    if (xdg != nullptr && xdg[0] == '/') return std::string(xdg) + "/kivr/modem.state";
    const char* home = getenv("HOME");
    if (home != nullptr && home[0] == '/')
        return std::string(home) + "/.local/state/kivr/modem.state";
    return std::nullopt;
}

namespace {

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

// --log: the library's lines on standard error, text from the modem in them
// escaped as everywhere else.
void printDiag(const msg_desc_type*, const char* line, void*) {
    std::cerr << "kivctl: library: " << printable(line) << "\n";
}

}  // namespace

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
        auto log = [verbose = globals.log](const std::string& line) {
            if (verbose) std::cerr << "kivctl: modem: " << printable(line) << "\n";
        };
        mServer = std::make_unique<kivmodemd::ModemServer>(kivmodemd::ModemServer::Options(), log);
        xalsim::ModemCore& modem = mServer->modem();
        const bool firstUse = !mState->exists();
        xalsim::Table table = xalsim::factoryTable();
        if (!firstUse) {
            auto loaded = mState->load();
            // The system's reason for a file that cannot be read; what is in
            // a file that can is the user's to fix.
            if (!loaded.ok() && loaded.error().code() != 0) throw Refused(loaded.error().message());
            if (!loaded.ok()) {
                throw UsageError("malformed modem state: " + loaded.error().message());
            }
            table = std::move(*loaded);
        }
        std::string why;
        if (!modem.replaceTable(table, &why)) {
            throw UsageError("malformed modem state: " + mState->path() + ": " + why);
        }
        // Each run is the modem powering on: temporaries of a run that ended
        // without cleaning up (it was killed) are gone.
        xalsim::keepPersistent(table);
        modem.replaceTable(table);
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

Session::Session(const Globals& globals)
    : mGlobals(globals), mManager(kiv::Manager::getInstance()) {
    if (mGlobals.modemSocket.empty()) {
        mEmbedded = std::make_unique<EmbeddedModem>(mGlobals);
    } else {
        if (mGlobals.noService) {
            throw UsageError(
                    "--no-service is for kivctl's own modem; on the service, "
                    "'kivctl modem down' takes it down");
        }
        xalremote::setConnector(nullptr);
        xalremote::setSocketPath(mGlobals.modemSocket);
    }
    auto control = xalremote::ServiceControl::connect();
    if (!control.ok()) throw Refused(control.error().message() + " (is kivmodemd running?)");
    mControl.emplace(std::move(*control));
    mFailedSaves = status().value("failedCommits", uint64_t{0});
}

Session::~Session() {
    mHandles.clear();
    if (mLibrary) settle();
}

void Session::startLibrary() {
    if (mLibrary) return;
    // The diagnostics channel, whose lines pass through here, rather than
    // the Android log, which writes to the terminal itself.
    diag_host_set_sink(mGlobals.log ? printDiag : discardDiag, nullptr);
    mManager.init(mGlobals.instance, /*adbLog=*/false);
    waitForLibrary();
    mManager.refresh(kiv::PDC_REFRESH_COMPLETED);
    mLibrary = true;
}

void Session::waitForLibrary() {
    if (!xalremote::waitForRegisteredClients(1, std::chrono::milliseconds(mGlobals.timeoutMs))) {
        throw Refused("the modem did not come up within " + std::to_string(mGlobals.timeoutMs) +
                      " ms" + (status().value("serviceUp", true) ? "" : " (its service is down)"));
    }
}

void Session::settle() {
    xalremote::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    mManager.match(kiv::FilterProfileParams(), nullptr);
    mManager.match(kiv::FilterProfileParams(), nullptr);
}

void Session::finish() {
    mHandles.clear();
    if (mLibrary) settle();
    checkSaved();
}

nlohmann::json Session::call(const nlohmann::json& command) {
    auto answer = mControl->call(command);
    if (!answer.ok()) throw Refused("the modem refused: " + answer.error().message());
    return *answer;
}

void Session::checkSaved() {
    const auto now = status();
    const uint64_t failed = now.value("failedCommits", uint64_t{0});
    if (failed == mFailedSaves) return;
    mFailedSaves = failed;
    throw Refused("the modem could not store the change: " +
                  now.value("commitError", std::string("unknown reason")));
}

nlohmann::json Session::modemProfiles() {
    return call({{"op", "profiles"}})["profiles"];
}

ProfileView Session::view(const std::shared_ptr<kiv::IProfileKey>& key, const nlohmann::json& table,
                          int handle) {
    ProfileView v;
    v.id = key->getProfileId();
    v.tech = key->getTechType();
    v.handle = handle;
    if (auto params = mManager.getProfile(key)) {
        v.params = *params;
    } else {
        v.stale = true;
    }
    const std::string tech = techName(v.tech);
    for (const auto& profile : table) {
        if (profile.value("type", "") == tech && profile.value("index", 0) == v.id) {
            v.persistent = profile.value("persistent", 0) != 0;
        }
    }
    return v;
}

int Session::keep(std::shared_ptr<kiv::IProfileKey> key) {
    for (auto& [number, held] : mHandles) {
        if (held->getTechType() != key->getTechType() ||
            held->getProfileId() != key->getProfileId()) {
            continue;
        }
        // One handle per profile: a live one stays, a stale one takes the new key.
        if (!mManager.getProfile(held)) held = std::move(key);
        return number;
    }
    mHandles[mNextHandle] = std::move(key);
    return mNextHandle++;
}

std::shared_ptr<kiv::IProfileKey> Session::handle(int number) {
    auto it = mHandles.find(number);
    if (it == mHandles.end()) throw UsageError("no handle #" + std::to_string(number));
    if (!mManager.getProfile(it->second)) {
        throw Refused("#" + std::to_string(number) +
                      " no longer names a profile: the modem was restarted, reset or reread, or "
                      "the profile is gone (find it again)");
    }
    return it->second;
}

}  // namespace kivctl
