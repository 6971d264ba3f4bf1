// A simulated modem manager: simulated modems (ModemCore) served on a D-Bus
// bus with the modem manager's object layout and the interfaces a profile
// client uses: the object manager, Modem (identifiers, state, SIM),
// Modem3gpp (the initial EPS bearer settings), the profile manager, Sim.
//
// Besides, a control object on a bus name of its own
// (org.kivr.ModemManagerSim, /org/kivr/ModemManagerSim) makes what a real
// modem manager does on its own happen on demand: the daemon leaving and
// coming back, the modem re-exported under a new path, a SIM swap, the
// modem's state dropping, a change made by another program (announced or
// behind the daemon's back), a bearer using a profile, failures.
//
// Single-threaded: everything runs on the thread that calls run().
#pragma once

#include <android-base/result.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "mm/MmNames.h"
#include "mm/ProfileDict.h"
#include "mmsim/ProfileService.h"
#include "sim/ModemCore.h"

namespace mmsim {

inline constexpr const char* kControlBusName = "org.kivr.ModemManagerSim";
inline constexpr const char* kControlPath = "/org/kivr/ModemManagerSim";
inline constexpr const char* kControlInterface = "org.kivr.ModemManagerSim";

struct Options {
    Behaviour behaviour = Behaviour::kV120;
    bool deleteClearsSlot = false;
    // Every answer of the profile manager comes this much later.
    std::chrono::milliseconds replyDelay{0};
    int modems = 1;
    xalsim::Config config;  // of every modem
};

class ModemManagerSim {
  public:
    using Log = std::function<void(const std::string& line)>;
    ModemManagerSim(const Options& options, Log log);
    ~ModemManagerSim();
    ModemManagerSim(const ModemManagerSim&) = delete;
    ModemManagerSim& operator=(const ModemManagerSim&) = delete;

    // The simulated modem behind modem `n` (0 first), to load and store
    // its table before start().
    xalsim::ModemCore& modem(size_t n);
    // Connects to the bus at `address` (empty: the system bus, or the one
    // DBUS_SYSTEM_BUS_ADDRESS names), takes both names and exports the
    // modems.
    android::base::Result<void> start(const std::string& address);
    // Serves until SIGTERM or SIGINT (blocked by the caller) or stop().
    int run();
    // From any thread.
    void stop();

  private:
    struct Modem;
    struct Call;

    // --- Objects on the modem manager's connection.
    android::base::Result<sd_bus*> openBus();
    android::base::Result<void> openManagerBus();
    void closeManagerBus();
    int exportModem(Modem& modem);
    void unexportModem(Modem& modem);
    void reexport(Modem& modem);
    void setState(Modem& modem, int32_t state);

    // --- The profile manager, and its Updated signal in each behaviour.
    int reply(sd_bus_message* call, sd_bus_message* answer);
    int refuse(sd_bus_message* call, int kind, const std::string& message);
    int refuseNamed(sd_bus_message* call, const std::string& name, const std::string& message);
    // The modem of a profile manager call, when it may be served; null when
    // the call has been refused (an injected failure, a modem not enabled).
    static Modem* ready(sd_bus_message* call, void* data, const char* method);
    // An injected failure for the method, if one is due: already answered.
    bool injectedFailure(sd_bus_message* call, const std::string& method);
    void changed(Modem& modem, bool ownWrite);
    void emitUpdated(Modem& modem);
    static int onUpdatedDue(sd_event_source* source, uint64_t usec, void* data);

    static int methodList(sd_bus_message* m, void* data, sd_bus_error* error);
    static int methodSet(sd_bus_message* m, void* data, sd_bus_error* error);
    static int methodDelete(sd_bus_message* m, void* data, sd_bus_error* error);
    static int methodEnable(sd_bus_message* m, void* data, sd_bus_error* error);
    static int methodSetInitialEps(sd_bus_message* m, void* data, sd_bus_error* error);
    static int methodScanDevices(sd_bus_message* m, void* data, sd_bus_error* error);
    static int propertyGet(sd_bus* bus, const char* path, const char* interface,
                           const char* property, sd_bus_message* reply, void* data,
                           sd_bus_error* error);
    static int onDelayedReply(sd_event_source* source, uint64_t usec, void* data);

    // --- The control object.
    static int control(sd_bus_message* m, void* data, sd_bus_error* error);
    int controlCall(sd_bus_message* m, const std::string& member);
    // A modem by its equipment or device identifier.
    Modem* modemNamed(const std::string& identifier);

    const Options mOptions;
    const Log mLog;
    sd_event* mEvent = nullptr;
    sd_bus* mControlBus = nullptr;
    sd_bus* mManagerBus = nullptr;  // null while the daemon is gone
    std::vector<sd_bus_slot*> mManagerSlots;
    std::vector<std::unique_ptr<Modem>> mModems;
    uint32_t mNextModemNumber = 0;
    uint32_t mNextSimNumber = 0;
    // Method name -> D-Bus errors for its next calls.
    std::map<std::string, std::deque<std::string>> mFailures;
    // Method name -> delays (ms) of its next answers.
    std::map<std::string, std::deque<uint64_t>> mDelays;
    std::set<Call*> mCalls;  // answers held back
    std::string mAddress;
    int mStopFd = -1;
};

struct ModemManagerSim::Modem {
    ModemManagerSim* sim = nullptr;
    size_t position = 0;  // in mModems
    std::unique_ptr<xalsim::ModemCore> core;
    std::unique_ptr<ProfileService> profiles;
    uint32_t number = 0;
    uint32_t simNumber = 0;
    std::string equipmentId;
    std::string deviceId;
    std::string simIdentifier;
    std::string imsi;
    int32_t state = mm::kStateRegistered;
    mm::ProfileDict initialEps;
    std::vector<sd_bus_slot*> slots;
    // 1.24's quiet time after its own writes, its last Updated, and the
    // one held back by the throttle.
    uint64_t quietUntil = 0;
    uint64_t lastUpdated = 0;
    sd_event_source* updatedDue = nullptr;

    std::string path() const { return mm::kModemPathPrefix + std::to_string(number); }
    std::string simPath() const { return mm::kSimPathPrefix + std::to_string(simNumber); }
};

}  // namespace mmsim
