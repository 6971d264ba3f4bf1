#include "Session.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <iostream>
#include <map>
#include <thread>

#include "ClientChoice.h"
#include "ProfileOptions.h"
#include "WdsNames.h"
#include "base/Mutex.h"
#include "common/Errors.h"
#include "diag/diag_host.h"
#include "mmclient/XalMm.h"
#include "remote/XalRemote.h"
#include "service/ModemServer.h"
#include "sim/ModemCore.h"
#include "sim/SettingsJson.h"
#include "sim/StateFile.h"
#include "xal/wds_v01.h"

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

// The library waits this long for every answer of the modem, and the
// service answers only with this much of it left for the way back.
constexpr int kLibraryRequestTimeoutMs = 1000;
constexpr int kAnswerMarginMs = 100;

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

// --log: the library's lines on standard error, their passwords hidden and
// text from the modem in them escaped as everywhere else.
void printDiag(const msg_desc_type*, const char* line, void* secrets) {
    std::cerr << "kivctl: library: " << printable(static_cast<const Secrets*>(secrets)->hide(line))
              << "\n";
}

// Why the modem manager's client refused a request.
std::string managerReason(uint32_t error) {
    switch (error) {
        case xalmm::kErrInvalidProfileType:
            return "the modem manager keeps 3GPP profiles only";
        case xalmm::kErrInUse:
            return "a connected bearer uses the profile";
        case xalmm::kErrNotEnabled:
            return "the modem is not enabled";
        case xalmm::kErrRecord:
            return "the record of temporary profiles could not be written";
        default:
            return "refused by the modem manager (kivctl --log tells why)";
    }
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
        mServer =
                std::make_unique<xalservice::ModemServer>(xalservice::ModemServer::Options(), log);
        xalsim::ModemCore& modem = mServer->modem();
        // Each run is the modem powering on: temporaries of a run that ended
        // without cleaning up (it was killed) are gone.
        auto powered = mState->powerOn(modem, /*mustSave=*/false);
        // The system's reason for a file that cannot be read or written;
        // what is in a file that can is the user's to fix.
        if (!powered.ok() && powered.error().code() != 0) throw Refused(powered.error().message());
        if (!powered.ok()) throw UsageError("malformed modem state: " + powered.error().message());
        modem.setCommitHook([this](const xalsim::Table& changed) {
            auto saved = mState->save(changed);
            if (!saved.ok()) {
                kiv::MutexLock guard(mLock);
                mLastSaveError = saved.error().message();
            }
            return saved;
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

    // Why the last change could not be stored, in full; empty when none failed.
    std::string lastSaveError() {
        kiv::MutexLock guard(mLock);
        return mLastSaveError;
    }

  private:
    kiv::Mutex mLock;
    std::string mLastSaveError GUARDED_BY(mLock);
    std::optional<xalsim::StateFile> mState;
    std::unique_ptr<xalservice::ModemServer> mServer;
    std::thread mThread;
};

// What the modem manager's client logged of values a modem cannot hold.
struct NotHeldLog {
    kiv::Mutex lock;
    std::deque<std::string> values GUARDED_BY(lock);

    void add(const std::string& line) {
        for (const char* said : {"cannot hold ", "did not keep "}) {
            const size_t at = line.find(said);
            if (at == std::string::npos) continue;
            kiv::MutexLock guard(lock);
            values.push_back(line.substr(at + strlen(said)));
        }
    }
};

Session::Session(const Globals& globals)
    : mGlobals(globals), mManager(kiv::Manager::getInstance()) {
    if (mGlobals.modemManager) {
        if (mGlobals.noService) {
            throw UsageError("--no-service is for kivctl's own modem, not a modem manager's");
        }
        if (!mGlobals.modemManagerId.empty()) xalmm::setModem(mGlobals.modemManagerId);
        if (!mGlobals.modemManagerBus.empty()) xalmm::setBusAddress(mGlobals.modemManagerBus);
        xalmm::setInstance(static_cast<uint32_t>(mGlobals.instance));
        mNotHeld = std::make_shared<NotHeldLog>();
        xalmm::setLogSink(
                [notHeld = mNotHeld, verbose = mGlobals.log](int, const std::string& line) {
                    notHeld->add(line);
                    if (verbose) std::cerr << "kivctl: modem manager: " << printable(line) << "\n";
                });
        return;
    }
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
}

Session::~Session() {
    mHandles.clear();
    if (mLibrary) settle();
    // The library outlives the session in a process that runs several.
    diag_host_set_sink(discardDiag, nullptr);
}

void Session::startLibrary() {
    if (mLibrary) return;
    // The diagnostics channel, whose lines pass through here, rather than
    // the Android log, which writes to the terminal itself.
    // The modem's passwords are known before the library logs its table.
    mSecrets.learnFromModem(modemProfiles());
    diag_host_set_sink(mGlobals.log ? printDiag : discardDiag, &mSecrets);
    mManager.init(mGlobals.instance, /*adbLog=*/false);
    waitForLibrary();
    {
        // The table read for this command: what cannot be read fails it.
        const auto reading = mLedger.reading();
        mManager.refresh(kiv::PDC_REFRESH_COMPLETED);
    }
    mLibrary = true;
}

void Session::waitForLibrary() {
    if (mGlobals.modemManager) {
        // A modem that is not there does not come by waiting: said at once.
        if (!xalmm::currentModem()) xalmm::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
        if (!xalmm::currentModem() ||
            !client::waitForRegisteredClients(1, std::chrono::milliseconds(mGlobals.timeoutMs))) {
            throw Refused(noModem());
        }
        return;
    }
    // A service that is down does not come up by waiting, nor does one
    // slower than the library waits for an answer.
    const auto now = status();
    if (!now.value("serviceUp", true)) {
        throw Refused("the modem's data service is down (kivctl modem up brings it back)");
    }
    const int latency = now.value("latencyMs", 0);
    if (latency >= kLibraryRequestTimeoutMs - kAnswerMarginMs) {
        throw Refused("the modem takes " + std::to_string(latency) +
                      " ms per request (kivmodemd --latency), more than the library's requests "
                      "wait for an answer (" +
                      std::to_string(kLibraryRequestTimeoutMs) + " ms): none would be answered");
    }
    if (!client::waitForRegisteredClients(1, std::chrono::milliseconds(mGlobals.timeoutMs))) {
        throw Refused("the modem did not come up within " + std::to_string(mGlobals.timeoutMs) +
                      " ms" + (status().value("serviceUp", true) ? "" : " (its service is down)"));
    }
}

void Session::settle() {
    client::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    mManager.match(kiv::FilterProfileParams(), nullptr);
    mManager.match(kiv::FilterProfileParams(), nullptr);
}

void Session::catchUp(const std::string& command) {
    if (!mLibrary) return;
    for (int attempt = 1;; ++attempt) {
        // While the service is away, said at once; once it is back, the
        // library has come back with it.
        if (client::registeredClients() == 0) {
            waitForLibrary();
        } else if (!status().value("serviceUp", true)) {
            throw Refused("the modem's data service is down (kivctl modem up brings it back)");
        }
        {
            // A reread the modem asked for on the way is done before the command.
            const auto reading = mLedger.reading();
            settle();
        }
        if (!mLedger.hasFailures()) return;
        // The table was not read whole. When the service went away meanwhile
        // it is read again once it is back; what the modem refused or left
        // unanswered fails the command before anything is changed.
        if (attempt == 3 || !mLedger.onlyUnsent()) requireDone(command);
        mLedger.takeFailures();
        if (client::registeredClients() == 0) waitForLibrary();
        const auto reading = mLedger.reading();
        mManager.refresh(kiv::PDC_REFRESH_COMPLETED);
    }
}

void Session::finish(const std::string& command) {
    mHandles.clear();
    if (mLibrary) settle();
    requireDone(command);
}

std::string Session::storageReason(uint32_t systemError) const {
    if (mEmbedded) {
        const std::string reason = mEmbedded->lastSaveError();
        if (!reason.empty()) return reason;
    }
    if (systemError == 0) return "the modem service's state file could not be written";
    return std::string(strerror(static_cast<int>(systemError))) +
           " (the modem service's state file)";
}

std::string Session::describe(const FailedRequest& failed) {
    std::string why;
    switch (failed.result) {
        case XAL_NO_ERR:
            if (mGlobals.modemManager && failed.error == xalmm::kErrNotHeld) {
                why = "the modem cannot hold " + nextNotHeld();
                break;
            }
            if (mGlobals.modemManager && failed.error >= xalmm::kErrInvalidProfileType) {
                why = managerReason(failed.error);
                break;
            }
            switch (failed.error) {
                case xalsim::kErrNoFreeProfile:
                    why = "the modem's table is full";
                    break;
                case xalsim::kErrInvalidProfile:
                    why = "no such profile";
                    break;
                case xalsim::kErrInjected:
                    why = "refused, as injected";
                    break;
                case xalsim::kErrStorage:
                    why = "not stored";
                    break;
                default:
                    why = "refused with error " + std::to_string(failed.error);
                    break;
            }
            break;
        case XAL_TIMEOUT_ERR:
            why = "no answer in time";
            break;
        case XAL_SERVICE_ERR:
            why = failed.sent ? "the modem service went away before it answered"
                              : "not sent: the modem's data service was away";
            break;
        case XAL_CLIENT_INVALID_CLNT:
            why = "not sent: the modem's data service was away";
            break;
        default:
            why = "failed on the way, error " + std::to_string(failed.result);
            break;
    }
    return requestName(failed.msgId) + " (" + why + ")";
}

void Session::requireDone(const std::string& command) {
    const auto failures = mLedger.takeFailures();
    if (failures.empty()) return;
    for (const auto& failed : failures) {
        if (failed.result == XAL_NO_ERR && failed.error == xalsim::kErrStorage) {
            throw Refused(command + ": the modem could not store the change: " +
                          storageReason(failed.systemError));
        }
    }
    std::string what;
    bool certain = true;
    for (const auto& failed : failures) {
        what += (what.empty() ? "" : ", ") + describe(failed);
        certain = certain && failed.certain();
    }
    throw Refused(command + ": the modem refused or did not answer " +
                  std::to_string(failures.size()) +
                  (failures.size() == 1 ? " request: " : " requests: ") + what +
                  (certain ? "; not everything was done (kivctl --log tells more)"
                           : "; what was not answered may have been done all the same "
                             "(kivctl list shows the modem's table)"));
}

nlohmann::json Session::call(const nlohmann::json& command) {
    if (!mControl) {
        throw Refused("not on a modem manager's modem: " + command.value("op", std::string()) +
                      " is for the simulated modem (kivctl modem --help)");
    }
    auto answer = mControl->call(command);
    if (!answer.ok()) {
        // The service's own refusal, or the way to it failing: said as it is.
        throw Refused(answer.error().code() == 0 ? "the modem refused: " + answer.error().message()
                                                 : answer.error().message());
    }
    return *answer;
}

nlohmann::json Session::status() {
    return mGlobals.modemManager ? managerStatus() : call({{"op", "status"}});
}

nlohmann::json Session::managerStatus() {
    const std::chrono::milliseconds timeout(mGlobals.timeoutMs);
    // Where the modem stands now.
    xalmm::sync(timeout);
    const auto modem = xalmm::currentModem();
    nlohmann::json status = {{"serviceUp", modem.has_value()}};
    if (modem) {
        status["path"] = modem->path;
        status["equipmentId"] = modem->equipmentId;
        status["deviceId"] = modem->deviceId;
        status["sim"] = modem->simIdentifier;
        if (auto profiles = xalmm::profiles(timeout); profiles.ok()) {
            status["profiles"] = profiles->size();
        }
    }
    return status;
}

nlohmann::json Session::modemProfiles() {
    if (!mGlobals.modemManager) return call({{"op", "profiles"}})["profiles"];
    const std::chrono::milliseconds timeout(mGlobals.timeoutMs);
    if (!xalmm::currentModem()) xalmm::settle(timeout);  // the client's first look at the bus
    if (!xalmm::currentModem()) throw Refused(noModem());
    auto profiles = xalmm::profiles(timeout);
    if (!profiles.ok()) throw Refused(profiles.error().message() + " (" + client::where() + ")");
    nlohmann::json table = nlohmann::json::array();
    for (const auto& [index, settings] : *profiles) {
        table.push_back(nlohmann::json(
                xalsim::profileToJson({WDS_PROFILE_TYPE_3GPP_V01, index}, settings)));
    }
    return table;
}

std::string Session::noModem() const {
    if (auto chosen = xalmm::chosenModem()) {
        return "modem " + (chosen->equipmentId.empty() ? chosen->deviceId : chosen->equipmentId) +
               " on the modem manager is not enabled (state " + std::to_string(chosen->state) +
               "; kivctl --modem-manager modem state 8 enables a simulated one)";
    }
    const std::string why = xalmm::whyNoModem();
    return "no modem " +
           (mGlobals.modemManagerId.empty() ? std::to_string(mGlobals.instance) + " (by instance)"
                                            : mGlobals.modemManagerId) +
           " up on the modem manager" +
           (xalmm::busAddress().empty() ? "" : " at " + xalmm::busAddress()) +
           (why.empty() ? "" : ": " + why);
}

std::string Session::nextNotHeld() {
    if (mNotHeld) {
        kiv::MutexLock guard(mNotHeld->lock);
        if (!mNotHeld->values.empty()) {
            std::string value = mNotHeld->values.front();
            mNotHeld->values.pop_front();
            return value;
        }
    }
    return "a value (kivctl --log tells which)";
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
    const auto seen = mManager.getProfile(key);
    const std::string apn = seen ? seen->getApnName() : std::string();
    for (auto& [number, held] : mHandles) {
        if (held->getTechType() != key->getTechType() ||
            held->getProfileId() != key->getProfileId()) {
            continue;
        }
        // One handle per profile: a live one stays. A stale one (the library
        // read the table anew) takes the new key only if it is its profile
        // still, by its APN; another profile at the index gets a handle of
        // its own.
        if (mManager.getProfile(held)) return number;
        if (mHandleApns[number] != apn) continue;
        held = std::move(key);
        return number;
    }
    mHandleApns[mNextHandle] = apn;
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
