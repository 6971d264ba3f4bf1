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

#include "FaultPlan.h"
#include "ModemTable.h"
#include "base/Mutex.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace xalsim {

using Clock = std::chrono::steady_clock;

// How the modem knows a client. In process it is the client's own handle;
// the modem service gives each connection one.
using ClientId = xal_client_type;

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
    // The failures still to come (FaultPlan.h).
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
    // How the modem serves one message: the sizes of its request and
    // response records, and the member that serves it (the response
    // already zeroed, the request of the right size).
    using Handler = xal_client_error_type (ModemCore::*)(Client& client, ClientId id,
                                                         const void* request, void* response);
    struct MessageService {
        unsigned int msgId;
        size_t requestSize;
        size_t responseSize;
        Handler serve;
    };
    static const MessageService* serviceOf(unsigned int msgId);

    xal_client_error_type serveBindLocked(Client& client, ClientId id, const void* request,
                                          void* response) REQUIRES(mLock);
    xal_client_error_type serveIndicationRegisterLocked(Client& client, ClientId id,
                                                        const void* request, void* response)
            REQUIRES(mLock);
    xal_client_error_type serveEventListLocked(Client& client, ClientId id, const void* request,
                                               void* response) REQUIRES(mLock);
    xal_client_error_type serveCreateLocked(Client& client, ClientId id, const void* request,
                                            void* response) REQUIRES(mLock);
    xal_client_error_type serveModifyLocked(Client& client, ClientId id, const void* request,
                                            void* response) REQUIRES(mLock);
    xal_client_error_type serveDeleteLocked(Client& client, ClientId id, const void* request,
                                            void* response) REQUIRES(mLock);
    xal_client_error_type serveListLocked(Client& client, ClientId id, const void* request,
                                          void* response) REQUIRES(mLock);
    xal_client_error_type serveSettingsLocked(Client& client, ClientId id, const void* request,
                                              void* response) REQUIRES(mLock);
    // A failure response with this error.
    xal_client_error_type refuseLocked(void* response, uint32_t error) REQUIRES(mLock);

    // Applies a change to the table and stores it. When it cannot be stored
    // the change is undone (unless `keepOnFailure`) and false returned.
    bool commitLocked(const std::function<void()>& change, bool keepOnFailure = false)
            REQUIRES(mLock);
    // Fills a failure response for a change that could not be stored.
    template <typename Response>
    xal_client_error_type storageFailureLocked(void* response) REQUIRES(mLock);
    android::base::Result<void> fitsLocked(const Table& table) const REQUIRES(mLock);
    int lowestFreeIndexLocked(int32_t type) const REQUIRES(mLock);
    int createProfileLocked(int32_t type, const Settings& settings) REQUIRES(mLock);
    void postLocked(ClientId client, Event event, Clock::time_point due) REQUIRES(mLock);
    void broadcastLocked(unsigned int msgId, const std::vector<uint8_t>& payload) REQUIRES(mLock);
    void broadcastProfileChangedLocked(int32_t type, uint8_t index, int32_t event) REQUIRES(mLock);
    void serviceDownLocked() REQUIRES(mLock);
    void serviceUpLocked() REQUIRES(mLock);
    Client* findLocked(ClientId client) REQUIRES(mLock);
    const Client* findLocked(ClientId client) const REQUIRES(mLock);

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
    FaultPlan mFaults GUARDED_BY(mLock);
};

}  // namespace xalsim
