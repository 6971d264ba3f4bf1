// The simulated modem itself: a wireless data service with a profile table,
// the clients registered with it, fault injection and observation, whatever
// way its clients reach it. The in-process simulator (SimModem) hands its
// events to callbacks on a dispatcher thread; the modem service (kivmodemd)
// sends them over sockets.
//
// Every member function is thread-safe. Events for clients leave through the
// event sink, called with the modem's lock held and in the order they arise.
#pragma once

#include <android-base/result.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace xalsim {

using Clock = std::chrono::steady_clock;

// The stored settings of one profile: the fields of the settings response
// (the response header unused).
using Settings = wds_get_profile_settings_resp_msg_v01;

// How the modem knows a client. In process it is the client's own handle;
// the modem service gives each connection one.
using ClientId = xal_client_type;

// A place in the table: (profile type, index).
using Slot = std::pair<int32_t, uint8_t>;
using Table = std::map<Slot, Settings>;

// Error codes the simulated service puts in a failure response.
enum SimError : uint32_t {
    kErrMalformedMessage = 0x01,
    kErrNoFreeProfile = 0x02,
    kErrInvalidProfile = 0x03,
    kErrInvalidProfileType = 0x04,
    // The change could not be stored; nothing changed. A create, modify or
    // delete response refused so carries the system's error number of the
    // failed save (errno) as its extended error code, when there is one.
    kErrStorage = 0x05,
    kErrInjected = 0xFF,
};

inline constexpr uint8_t kFirst3gppIndex = 1;
inline constexpr uint8_t kFirst3gpp2Index = 101;
inline constexpr int kMaxCapacity3gpp = 255;   // indexes 1..255
inline constexpr int kMaxCapacity3gpp2 = 155;  // indexes 101..255

struct Profile {
    wds_profile_type_enum_v01 type;
    uint8_t index;
    Settings settings;  // persistent_valid / persistent carry persistence
};

struct RecordedRequest {
    ClientId client;
    unsigned int msgId;
    unsigned int timeoutMs;
    std::vector<uint8_t> bytes;
};

struct Counters {
    uint64_t requests = 0;
    uint64_t failedRequests = 0;  // answered with a failure result
    uint64_t indicationsQueued = 0;
    uint64_t indicationsDelivered = 0;
    uint64_t notifyCallbacks = 0;
    uint64_t errorCallbacks = 0;
    uint64_t restarts = 0;
    uint64_t failedCommits = 0;  // changes that could not be stored
};

enum class ClientRole { kNotifier, kService };

struct ClientInfo {
    ClientId handle;
    bool notifier;  // made by xal_client_notifier_init
    bool released;
    bool serviceLost;                      // the service went down while it was open
    bool profileEvents;                    // registered for profile-changed indications
    std::optional<uint32_t> subscription;  // from the bind request
};

struct Config {
    int capacity3gpp = 24;   // at most kMaxCapacity3gpp
    int capacity3gpp2 = 24;  // at most kMaxCapacity3gpp2
    std::chrono::milliseconds indicationDelay{0};
};

// What the modem tells one client.
struct Event {
    enum Kind { kNotify, kError, kIndication };
    Kind kind;
    int code = 0;            // notify event or error code
    unsigned int msgId = 0;  // indication
    std::vector<uint8_t> payload;
};

// Helpers to fill settings in tests and tools.
template <size_t N>
void setText(uint8_t& valid, char (&field)[N], const std::string& text) {
    valid = 1;
    size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (size_t i = 0; i < N; ++i) field[i] = i < n ? text[i] : '\0';
}
Settings emptySettings();
// A 3GPP profile as carriers ship them.
Settings make3gppSettings(const std::string& profileName, const std::string& apn,
                          wds_pdp_type_enum_v01 pdpType, uint64_t apnTypeMask, bool persistent);
// A 3GPP2 profile.
Settings make3gpp2Settings(const std::string& apn, wds_profile_pdn_type_enum_v01 pdnType,
                           bool persistent);
// The table a new modem ships with: "internet", "ims" and "mms" (3GPP) and
// "cdma.internet" (3GPP2), all persistent.
Table factoryTable();
// What a modem keeps when it powers on: the profiles it stores persistently.
void keepPersistent(Table& table);
// "3gpp" or "3gpp2", the names used in files and on the command line.
const char* typeName(int32_t profileType);

class ModemCore {
  public:
    // Hands one event to a client, to be delivered at `due`. Called with the
    // modem's lock held: it must only queue.
    using EventSink = std::function<void(ClientId client, Event event, Clock::time_point due)>;
    // Stores the table after a change, or says why it cannot (with the
    // system's error number, when there is one). A change that is not stored
    // is undone. Called with the modem's lock held.
    using CommitHook = std::function<android::base::Result<void>(const Table& table)>;

    explicit ModemCore(EventSink sink);
    ModemCore(const ModemCore&) = delete;
    ModemCore& operator=(const ModemCore&) = delete;

    // A fresh modem: empty table, service up, no injected failures, no
    // records. Clients already open stay open; the commit hook stays.
    void reset(const Config& config = Config());
    Config config() const;
    void setIndicationDelay(std::chrono::milliseconds delay);
    // Every later change of the table is stored through the hook first.
    void setCommitHook(CommitHook hook);

    // --- The profile table.
    // Replaces the whole table, as a modem that loaded it. Refused (with the
    // reason) when a profile does not fit the modem's capacity.
    android::base::Result<void> replaceTable(Table table);
    // Puts a whole table in place as one change of the modem (stored like
    // any other), refused as replaceTable() refuses or as the store refuses.
    android::base::Result<void> restoreTable(const Table& table);
    Table table() const;
    // The profiles of a table that this modem has room for, by index.
    Table fitting(const Table& table) const;
    // Stores a profile at the lowest free index of its type, without any
    // indication. Returns the index, or -1 when the type is full or unknown.
    int seedProfile(wds_profile_type_enum_v01 type, const Settings& settings);
    std::optional<Settings> getProfile(wds_profile_type_enum_v01 type, uint8_t index) const;
    std::vector<Profile> profiles() const;  // by type, then index
    void clearProfiles();

    // Changes made by another client: each sends its indications.
    int externalCreate(wds_profile_type_enum_v01 type, const Settings& settings);
    bool externalModify(wds_profile_type_enum_v01 type, uint8_t index, const Settings& changes);
    bool externalDelete(wds_profile_type_enum_v01 type, uint8_t index);

    // --- Indications to every client registered for profile events.
    void sendProfileChanged(int32_t profileType, uint8_t index, int32_t rawEvent);
    void sendSubscriptionChange();
    void sendProfileReady();
    void sendUnknownIndication(unsigned int msgId);
    void sendInvalidIndication();      // decodes with its valid flag 0
    void sendUndecodableIndication();  // fails to decode
    // Any bytes as an indication with any message id.
    void sendRawIndication(unsigned int msgId, std::vector<uint8_t> bytes);

    // --- The service.
    // Down (error callbacks, profiles not stored persistently dropped) and up
    // again (notify callbacks). A client that registers for profile events
    // after losing the service is told ProfileReady: the modem's table is
    // ready again and may have changed.
    void restart();
    void setServiceUp(bool up);
    bool isServiceUp() const;

    // --- Failure injection: the next N of a kind.
    // Failure results for count requests of msgId, after the next `skip` of them.
    void failNext(unsigned int msgId, int count, int skip = 0);
    // The next count requests of msgId get no answer (XAL_TIMEOUT_ERR). In
    // process the error comes at once: nobody waits out the request's
    // time-out, which is recorded with the request. The modem service does
    // wait it out.
    void timeoutNext(unsigned int msgId, int count);
    // The next count requests of msgId fail in transport (XAL_INTERNAL_ERR):
    // the modem never sees them.
    void transportErrorNext(unsigned int msgId, int count);
    void failGetAnyService(int count);
    void failClientInit(int count);
    void corruptNextList(int count);      // count above 255, names without NUL
    void corruptNextSettings(int count);  // strings without NUL
    // Forgets every failure still to come.
    void clearFaults();
    // The failures still to come, each as what it does ("fail", "timeout",
    // "transport", "service", "connect", "corrupt-list", "corrupt-settings",
    // "response"), the message id it waits for (0: none), how many and
    // after how many others of the kind.
    struct PendingFault {
        std::string kind;
        unsigned int msgId;
        int count;
        int skip;
    };
    std::vector<PendingFault> pendingFaults() const;
    // The next response to msgId is these bytes, cut or zero-padded to the
    // caller's response length, whatever the request asked.
    void injectNextResponse(unsigned int msgId, std::vector<uint8_t> bytes);

    // --- Clients, as the transports see them.
    // A new client. A service client fails while the service is down or an
    // injected failure is due. `returning`: its side lost the service since
    // it last registered, and is told ProfileReady when it registers again.
    xal_client_error_type openClient(ClientId client, ClientRole role, bool returning);
    // A notifier registered its callback: told at once if the service is up.
    void notifierRegistered(ClientId client);
    // No event for the client is raised after this returns. A released
    // client stays listed (its handle is never mistaken for a live one)
    // unless `forget`, for transports whose ids are never reused.
    void releaseClient(ClientId client, bool forget = false);
    // Whether the client lost the service (an error is owed to a late
    // error-callback registration).
    bool hasLostService(ClientId client) const;
    // xal_client_get_any_service: fails while the service is down.
    xal_client_error_type probeService();
    // Serves one request; returns the xal error and fills the response.
    xal_client_error_type serve(ClientId client, unsigned int msgId, const void* request,
                                unsigned int requestLength, void* response,
                                unsigned int responseLength, unsigned int timeoutMs);
    // Whether some service client lost the service since this was last
    // asked; the in-process interface passes it on as `returning`.
    bool takeServiceLoss();
    // A transport delivered an event (for the counters).
    void noteDelivered(Event::Kind kind);

    // --- Observation.
    std::vector<RecordedRequest> requests() const;
    // Forgets the recorded requests (the counters stay), for long runs.
    void clearRecordedRequests();
    std::vector<RecordedRequest> requests(ClientId client) const;
    size_t requestCount(unsigned int msgId) const;
    std::vector<ClientInfo> clients() const;
    Counters counters() const;
    // The reason the last change could not be stored; empty when none failed.
    std::string lastCommitError() const;
    // Waits until the predicate holds, re-checking after every change of the
    // modem's state. The predicate may call the observation methods.
    bool waitUntil(const std::function<bool()>& predicate,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

  private:
    // A change of state that observers may wait for.
    void touchLocked() REQUIRES(mLock);
    mutable kiv::Mutex mLock;

    struct Client {
        ClientRole role;
        bool released = false;
        bool serviceLost = false;
        bool profileEvents = false;
        bool returning = false;
        std::optional<uint32_t> subscription;
    };
    struct Failures {
        int skip = 0;
        int count = 0;
    };

    // Applies a change to the table and stores it. When it cannot be stored
    // the change is undone (unless `keepOnFailure`) and false returned.
    bool commitLocked(const std::function<void()>& change, bool keepOnFailure = false)
            REQUIRES(mLock);
    // Fills a failure response for a change that could not be stored.
    template <typename Response>
    xal_client_error_type storageFailureLocked(void* response) REQUIRES(mLock);
    android::base::Result<void> fitsLocked(const Table& table) const REQUIRES(mLock);
    void clearFaultsLocked() REQUIRES(mLock);
    int lowestFreeIndexLocked(int32_t type) const REQUIRES(mLock);
    int createProfileLocked(int32_t type, const Settings& settings) REQUIRES(mLock);
    void postLocked(ClientId client, Event event, Clock::time_point due) REQUIRES(mLock);
    void broadcastLocked(unsigned int msgId, const std::vector<uint8_t>& payload) REQUIRES(mLock);
    void broadcastProfileChangedLocked(int32_t type, uint8_t index, int32_t event) REQUIRES(mLock);
    void serviceDownLocked() REQUIRES(mLock);
    void serviceUpLocked() REQUIRES(mLock);
    Client* findLocked(ClientId client) REQUIRES(mLock);
    const Client* findLocked(ClientId client) const REQUIRES(mLock);
    static bool consume(std::map<unsigned int, int>& pending, unsigned int msgId);
    static bool consume(std::map<unsigned int, Failures>& pending, unsigned int msgId);
    static bool consume(int& pending);

    const EventSink mSink;
    // Signalled on every change: waiters re-check their conditions.
    mutable std::condition_variable mChanged;
    uint64_t mGeneration GUARDED_BY(mLock) = 0;

    Config mConfig GUARDED_BY(mLock);
    CommitHook mCommit GUARDED_BY(mLock);
    std::string mLastCommitError GUARDED_BY(mLock);
    int mLastCommitErrno GUARDED_BY(mLock) = 0;
    bool mServiceUp GUARDED_BY(mLock) = true;
    bool mServiceLoss GUARDED_BY(mLock) = false;
    Table mTable GUARDED_BY(mLock);
    std::map<ClientId, Client> mClients GUARDED_BY(mLock);
    std::vector<RecordedRequest> mRequests GUARDED_BY(mLock);
    Counters mCounters GUARDED_BY(mLock);
    std::map<unsigned int, Failures> mFailures GUARDED_BY(mLock);
    std::map<unsigned int, int> mTimeouts GUARDED_BY(mLock);
    std::map<unsigned int, int> mTransportErrors GUARDED_BY(mLock);
    int mGetAnyServiceFailures GUARDED_BY(mLock) = 0;
    int mClientInitFailures GUARDED_BY(mLock) = 0;
    int mCorruptLists GUARDED_BY(mLock) = 0;
    int mCorruptSettings GUARDED_BY(mLock) = 0;
    std::map<unsigned int, std::vector<uint8_t>> mInjectedResponses GUARDED_BY(mLock);
};

}  // namespace xalsim
