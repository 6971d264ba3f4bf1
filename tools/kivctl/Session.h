// The modem and the library for one run of kivctl: the modem service named
// by --modem (or KIVR_MODEM), or else a modem service of kivctl's own on the
// state file; the library on it; and the shell's handles.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "Manager.h"
#include "Output.h"
#include "RequestLedger.h"
#include "Util.h"
#include "remote/ServiceControl.h"

namespace kivctl {

struct Globals {
    std::string statePath;    // the embedded modem's table
    std::string modemSocket;  // the modem service; empty: the embedded modem
    // A modem of the modem manager instead: its equipment or device
    // identifier (empty: by --instance), and the bus (empty: the system bus).
    bool modemManager = false;
    std::string modemManagerId;
    std::string modemManagerBus;
    int instance = 0;
    bool json = false;
    bool log = false;
    bool noService = false;
    int timeoutMs = 5000;
};

// $XDG_STATE_HOME/kivr/modem.state, else ~/.local/state/kivr/modem.state;
// none without either (never a path under the current directory).
std::optional<std::string> defaultStatePath();

class EmbeddedModem;
struct NotHeldLog;

class Session {
  public:
    explicit Session(const Globals& globals);
    // Keys are dropped and their effects settled before the modem goes.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const Globals& globals() const { return mGlobals; }
    kiv::Manager& manager() { return mManager; }
    kiv::Util& util() { return mUtil; }

    // Brings the library up on the modem and reads its table, once a run.
    void startLibrary();
    bool libraryStarted() const { return mLibrary; }
    // Waits until this process's library has connected and registered.
    void waitForLibrary();
    // Every indication sent so far has been handled by the library.
    void settle();
    // Before a command: after the modem service went away and came back,
    // the library has reconnected and reread the table; refused while the
    // modem's data service is down or the service is away. A table the
    // library could not read whole is read again; the command is refused,
    // before it changes anything, when that fails too.
    void catchUp(const std::string& command);
    // The end of a run that went well: keys are dropped (temporary profiles
    // leave the modem) and whatever that asked of the modem must be done.
    void finish(const std::string& command);

    // What the library's requests for this run came to.
    RequestLedger& ledger() { return mLedger; }
    // The passwords met in this run, hidden in whatever it prints.
    Secrets& secrets() { return mSecrets; }
    // The command fails when a request of its own failed since the last
    // check, saying which and why.
    void requireDone(const std::string& command);

    // One command to the modem; its refusal is the command's.
    nlohmann::json call(const nlohmann::json& command);
    // The modem's state: the service's status, or the modem manager's modem.
    nlohmann::json status();
    // The modem's profiles, each as its settings (SettingsJson.h).
    nlohmann::json modemProfiles();

    // The view of a profile the library holds a key for.
    ProfileView view(const std::shared_ptr<kiv::IProfileKey>& key, const nlohmann::json& table,
                     int handle = 0);

    // The shell's handles: one per profile, numbered from 1; a number is
    // never given to another profile.
    int keep(std::shared_ptr<kiv::IProfileKey> key);
    // The key of #N; bad input when there is none, refused when it no longer
    // names a profile (the modem restarted, was reset or reread).
    std::shared_ptr<kiv::IProfileKey> handle(int number);
    bool drop(int number) {
        mHandleApns.erase(number);
        return mHandles.erase(number) != 0;
    }
    const std::map<int, std::shared_ptr<kiv::IProfileKey>>& handles() const { return mHandles; }

  private:
    // Why a change could not be stored, from the system's error number.
    std::string storageReason(uint32_t systemError) const;
    std::string describe(const FailedRequest& failed);
    // The modem manager's modem: its state as the service's status says it.
    nlohmann::json managerStatus();
    // The next value the modem manager's modem could not hold, as its
    // client logged it.
    std::string nextNotHeld();
    // Why there is no modem manager's modem to work on.
    std::string noModem() const;

    Globals mGlobals;
    Secrets mSecrets;
    RequestLedger mLedger;
    std::unique_ptr<EmbeddedModem> mEmbedded;
    std::optional<xalremote::ServiceControl> mControl;
    kiv::Manager& mManager;
    bool mLibrary = false;
    kiv::Util mUtil;
    std::map<int, std::shared_ptr<kiv::IProfileKey>> mHandles;
    std::map<int, std::string> mHandleApns;  // each handle's profile's APN when it was kept
    int mNextHandle = 1;
    // What the modem manager's client said a modem could not hold, in order.
    std::shared_ptr<NotHeldLog> mNotHeld;
};

}  // namespace kivctl
