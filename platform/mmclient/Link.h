// The messaging client's link to one modem of the modem manager: the
// process's clients and notifiers, the modem in use and whether its data
// service is up, the last table seen (to tell what changed), and the
// thread that watches the bus and delivers every callback.
//
// The service is up while the chosen modem is exported and at least
// enabled. The modem is the one whose equipment or device identifier was
// named; with none named, the one at the instance's place among all modems
// ordered by their identifiers. A modem that leaves, falls below enabled,
// or whose daemon leaves the bus is a service going down (error callbacks,
// notifiers told it went); the modem found again (under whatever path) is
// the service coming up, and a client that registers for profile events
// after that is told ProfileReady, as after a modem restart. Another SIM is
// a SubscriptionChange.
//
// Changes reach clients registered for profile events as the modem
// announces them: Create then Modify for a new profile, Modify, Delete.
// This client's own writes are announced once each, at once; others' when
// the modem manager says Updated or the table is polled, by comparing it
// with the last one seen.
//
// Locks: mCallLock serialises the calls on the call connection and the
// table's updates that follow them; mLock guards the rest. mCallLock is
// never taken with mLock held.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/EventFd.h"
#include "base/Mutex.h"
#include "mm/ProfileDict.h"
#include "mmclient/ManagerBus.h"
#include "mmclient/TemporaryRecord.h"
#include "mmclient/XalMm.h"
#include "wire/RequestHooks.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace xalmm {

struct Settings {
    std::string busAddress;  // empty: the system bus
    std::string modem;       // equipment or device identifier; empty: by instance
    std::chrono::milliseconds pollInterval{5000};
    std::string stateFolder;  // for the record of temporaries; empty: none
};

// The settings of one profile are read from a List made this recently: a
// reread of the whole table (a list, then every profile's settings) lists
// once, not once per profile. A change since then is announced when it is
// seen, and read again then.
inline constexpr std::chrono::milliseconds kRecentList{1000};

// A client's handle is a number of this library's, never a pointer, and
// never given twice.
inline xal_client_type toHandle(uintptr_t id) {
    return reinterpret_cast<xal_client_type>(id);
}
inline uintptr_t idOf(xal_client_type handle) {
    return reinterpret_cast<uintptr_t>(handle);
}

class Link {
  public:
    static Link& instance();

    // Before the first client; the defaults come from the environment.
    void configure(const std::function<void(Settings&)>& change) EXCLUDES(mLock);
    Settings settings() const EXCLUDES(mLock);
    using LogSink = std::function<void(int priority, const std::string& line)>;
    void setLogSink(LogSink sink);
    void log(int priority, const std::string& line);

    // --- The messaging client interface.
    xal_client_type newNotifier() EXCLUDES(mLock);
    xal_client_error_type registerNotify(xal_client_type handle, xal_client_notify_cb callback,
                                         void* data) EXCLUDES(mLock);
    xal_client_error_type probe() EXCLUDES(mLock);
    xal_client_error_type newClient(xal_client_ind_cb callback, void* data, xal_client_type* handle)
            EXCLUDES(mLock);
    xal_client_error_type registerError(xal_client_type handle, xal_client_error_cb callback,
                                        void* data) EXCLUDES(mLock);
    bool isLive(xal_client_type handle) EXCLUDES(mLock);
    // The largest request of the interface: a modify (or a create).
    static constexpr size_t kMostRequest = std::max(sizeof(wds_modify_profile_settings_req_msg_v01),
                                                    sizeof(wds_create_profile_req_msg_v01));
    xal_client_error_type sendSync(xal_client_type handle, unsigned int msgId, const void* request,
                                   unsigned int requestLength, void* response,
                                   unsigned int responseLength, unsigned int timeoutMs)
            EXCLUDES(mLock, mCallLock);
    xal_client_error_type release(xal_client_type handle) EXCLUDES(mLock);
    void setRequestHook(wire::RequestHook hook) EXCLUDES(mLock);
    void setRequestObserver(wire::RequestObserver observer) EXCLUDES(mLock);
    void observe(const wire::RequestOutcome& outcome) EXCLUDES(mLock);

    // --- For hosts and tests.
    std::optional<Modem> modem() EXCLUDES(mLock);
    // The modem chosen at the last look at the bus, up or not.
    std::optional<Modem> chosen() EXCLUDES(mLock);
    size_t registeredClients() EXCLUDES(mLock);
    bool waitForRegistered(size_t count, std::chrono::milliseconds timeout) EXCLUDES(mLock);
    // The table compared with the modem's now, and every event so far
    // delivered (true), or the time-out.
    // `listAgain`: the table is listed now; else a table listed within the
    // last second will do.
    bool sync(std::chrono::milliseconds timeout, bool listAgain = true) EXCLUDES(mLock);
    // The instance used when no modem is named (until the library binds one).
    void setInstance(uint32_t instance) EXCLUDES(mLock);
    // Why there is no modem up: empty while one is.
    std::string whyNoModem() EXCLUDES(mLock);
    // The modem's profiles as this client reads them.
    android::base::Result<std::vector<std::pair<uint8_t, mm::Settings>>> profiles(
            std::chrono::milliseconds timeout) EXCLUDES(mLock, mCallLock);

  private:
    Link();

    struct Client {
        bool notifier = false;
        bool released = false;
        bool lost = false;        // the service went down while it was open
        bool errorOwed = false;   // lost before it had an error callback
        bool events = false;      // registered for profile-changed indications
        bool registered = false;  // its event-list request was answered
        bool returning = false;   // made after the service was lost
        xal_client_ind_cb indication = nullptr;
        void* indicationData = nullptr;
        xal_client_error_cb error = nullptr;
        void* errorData = nullptr;
        xal_client_notify_cb notify = nullptr;
        void* notifyData = nullptr;
    };
    struct Delivery {
        uintptr_t handle;
        enum Kind { kNotify, kError, kIndication } kind;
        int code;
        std::vector<uint8_t> payload;
    };
    using Table = std::map<int32_t, mm::ProfileDict>;

    void startLocked() REQUIRES(mLock);
    Client* findLocked(xal_client_type handle) REQUIRES(mLock);
    void queueLocked(uintptr_t handle, Delivery::Kind kind, int code,
                     std::vector<uint8_t> payload = {}) REQUIRES(mLock);
    void announceLocked(int32_t index, wds_profile_changed_event_enum_v01 event) REQUIRES(mLock);
    void announceLocked(wds_profile_changed_event_enum_v01 event) REQUIRES(mLock);

    // --- The event thread (Link.cpp).
    void run() EXCLUDES(mLock, mCallLock);
    bool connectSignals();
    static int onSignal(sd_bus_message* message, void* data, sd_bus_error* error);
    // Finds the modem and brings the service up or down to match.
    void rescan() EXCLUDES(mLock, mCallLock);
    // Lists the table and announces what changed since the last one seen.
    void refresh() EXCLUDES(mLock, mCallLock);
    void upLocked(const ModemObject& modem, const std::string& sim, Table table,
                  const std::string& folder) REQUIRES(mLock);
    // The profiles of a List by index (cleared slots, and indexes the
    // modem's records cannot number, left out).
    static Table tableOf(const std::vector<mm::ProfileDict>& profiles);
    void downLocked(const std::string& why) REQUIRES(mLock);
    // No modem to bring up, for this reason.
    void noModemLocked(const std::string& why) REQUIRES(mLock);
    // Announces the differences between the last table seen and `now`.
    void compareLocked(const Table& now) REQUIRES(mLock);
    // The record's entries whose profile is gone or replaced, dropped.
    void forgetStaleLocked() REQUIRES(mLock);
    void deliver() EXCLUDES(mLock);
    void wake();

    // --- The requests (Requests.cpp), on the caller's thread. Each fills
    // the response and returns the client's result.
    // A request past the hook; `sent`: it went to the modem manager.
    xal_client_error_type serve(xal_client_type handle, unsigned int msgId, const void* request,
                                unsigned int requestLength, void* response,
                                unsigned int responseLength, unsigned int timeoutMs, bool& sent)
            EXCLUDES(mLock, mCallLock);
    xal_client_error_type serveList(const void* request, void* response,
                                    std::chrono::milliseconds timeout) EXCLUDES(mLock);
    xal_client_error_type serveSettings(const void* request, void* response,
                                        std::chrono::milliseconds timeout) EXCLUDES(mLock);
    xal_client_error_type serveCreate(const void* request, void* response,
                                      std::chrono::milliseconds timeout) EXCLUDES(mLock);
    xal_client_error_type serveModify(const void* request, void* response,
                                      std::chrono::milliseconds timeout) EXCLUDES(mLock);
    xal_client_error_type serveDelete(const void* request, void* response,
                                      std::chrono::milliseconds timeout) EXCLUDES(mLock);
    // The modem's profiles by index (cleared slots left out), or the
    // client's result of a failed List with the response filled.
    xal_client_error_type listTable(Table& table, void* response, std::chrono::milliseconds timeout)
            REQUIRES(mCallLock);
    // A failed call as the client's result: a time-out, the service gone,
    // or a failure response naming the modem manager's error.
    xal_client_error_type failedCall(const char* what, const CallError& error, void* response)
            EXCLUDES(mLock);
    xal_client_error_type refuse(void* response, uint32_t error, const std::string& why)
            EXCLUDES(mLock);
    // The last table seen, when a List made it recently (Requests.cpp).
    bool recentTable(Table& table) EXCLUDES(mLock);
    // The settings a profile reads as: the modem's, with what the record
    // knows (a temporary, a name the modem does not keep).
    mm::Settings readSettings(int32_t index, const mm::ProfileDict& profile) REQUIRES(mLock);
    std::optional<std::string> modemPath() EXCLUDES(mLock);

    mutable kiv::Mutex mLock;
    kiv::Mutex mCallLock ACQUIRED_BEFORE(mLock);
    ManagerBus mCalls GUARDED_BY(mCallLock);

    Settings mSettings GUARDED_BY(mLock);
    kiv::Mutex mLogLock;
    LogSink mLogSink GUARDED_BY(mLogLock);
    wire::RequestHook mHook GUARDED_BY(mLock);
    wire::RequestObserver mObserver GUARDED_BY(mLock);
    std::map<uintptr_t, Client> mClients GUARDED_BY(mLock);
    uintptr_t mNextHandle GUARDED_BY(mLock) = 0x1000;
    uint32_t mInstance GUARDED_BY(mLock) = 0;

    // The service.
    bool mStarted GUARDED_BY(mLock) = false;
    std::optional<ModemObject> mModem GUARDED_BY(mLock);   // while up
    std::optional<ModemObject> mChosen GUARDED_BY(mLock);  // at the last look, up or not
    std::string mSim GUARDED_BY(mLock);                    // its SIM's identifier
    std::optional<std::string> mLastSim GUARDED_BY(mLock);
    bool mReturning GUARDED_BY(mLock) = false;  // lost since clients last registered
    bool mSubscriptionChanged GUARDED_BY(mLock) = false;
    Table mTable GUARDED_BY(mLock);  // the last table seen
    // When a request's List last gave it.
    std::optional<std::chrono::steady_clock::time_point> mListedAt GUARDED_BY(mLock);
    TemporaryRecord mRecord GUARDED_BY(mLock);

    // The event thread's work.
    kiv::EventFd mWake;
    bool mNeedRescan GUARDED_BY(mLock) = true;
    bool mNeedRefresh GUARDED_BY(mLock) = false;
    uint64_t mSyncAsked GUARDED_BY(mLock) = 0;
    uint64_t mSyncDone GUARDED_BY(mLock) = 0;
    uint64_t mListAsked GUARDED_BY(mLock) = 0;  // the last sync that lists again
    uint64_t mQueued GUARDED_BY(mLock) = 0;     // deliveries queued, ever
    uint64_t mDelivered GUARDED_BY(mLock) = 0;  // and delivered (or dropped)
    std::string mProblem GUARDED_BY(mLock) = "the modem manager not looked at yet";
    std::deque<Delivery> mDeliveries GUARDED_BY(mLock);
    uintptr_t mDelivering GUARDED_BY(mLock) = 0;
    std::thread::id mEventThread GUARDED_BY(mLock);
    std::condition_variable mChanged;
    ManagerBus mSignals;  // the event thread's own
};

}  // namespace xalmm
