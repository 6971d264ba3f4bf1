// The simulated modem's state, shared by its control class, its C interface
// and its persistence. Everything here is guarded by Impl::lock.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "SimModem.h"

// The settings fields that a create or modify request can carry, by kind:
// STR for character arrays, NUM for integers and enumerations. The
// persistence flag is handled on its own (a modify request has none).
#define XALSIM_SETTINGS_FIELDS(X)     \
    X(STR, profile_name)              \
    X(NUM, pdp_type)                  \
    X(STR, apn_name)                  \
    X(STR, username)                  \
    X(STR, password)                  \
    X(NUM, authentication_preference) \
    X(NUM, apn_disabled_flag)         \
    X(NUM, apn_class)                 \
    X(NUM, support_emergency_calls)   \
    X(NUM, override_home_pdp_type)    \
    X(NUM, lte_roaming_pdp_type)      \
    X(NUM, umts_roaming_pdp_type)     \
    X(NUM, max_pdn_conn_per_block)    \
    X(NUM, max_pdn_conn_timer)        \
    X(NUM, pdn_req_wait_interval)     \
    X(NUM, apn_type_mask)             \
    X(NUM, clat_enabled)              \
    X(STR, apn_string)                \
    X(NUM, pdn_type)                  \
    X(NUM, auth_protocol)             \
    X(STR, user_id)                   \
    X(STR, auth_password)             \
    X(NUM, apn_class_3gpp2)           \
    X(NUM, pdn_level_auth_protocol)   \
    X(STR, pdn_level_user_id)         \
    X(STR, pdn_level_auth_password)

struct xal_client_struct {
    bool notifier = false;
    bool released = false;
    bool serviceLost = false;
    bool profileEvents = false;
    std::optional<uint32_t> subscription;
    xal_client_notify_cb notifyCb = nullptr;
    void* notifyData = nullptr;
    xal_client_error_cb errorCb = nullptr;
    void* errorData = nullptr;
    xal_client_ind_cb indCb = nullptr;
    void* indData = nullptr;
};

struct xal_idl_service_object {
    int version;
};

namespace xalsim {

using Clock = std::chrono::steady_clock;

struct Task {
    enum Kind { kNotify, kError, kIndication };
    Task(Kind kind, xal_client_type client, Clock::time_point due, int event = 0)
        : kind(kind), client(client), due(due), event(event) {}

    Kind kind;
    xal_client_type client;
    Clock::time_point due;
    int event = 0;           // notify event or error code
    unsigned int msgId = 0;  // indication
    std::vector<uint8_t> payload;
};

using ProfileKey = std::pair<int32_t, uint8_t>;  // (type, index)

struct SimModem::Impl {
    mutable std::mutex lock;
    // Signalled on every change: waiters re-check their conditions.
    mutable std::condition_variable changed;
    std::condition_variable tasksReady;
    uint64_t generation = 0;

    Config config;
    bool serviceUp = true;
    std::map<ProfileKey, Settings> table;
    // Handles are never freed, so a released handle is never reused.
    std::map<xal_client_type, std::unique_ptr<xal_client_struct>> clients;
    std::vector<RecordedRequest> requests;
    Counters counters;

    struct Failures {
        int skip = 0;
        int count = 0;
    };
    std::map<unsigned int, Failures> failures;
    std::map<unsigned int, int> timeouts;
    int getAnyServiceFailures = 0;
    int clientInitFailures = 0;
    int corruptLists = 0;
    int corruptSettings = 0;
    std::map<unsigned int, std::vector<uint8_t>> injectedResponses;

    std::deque<Task> tasks;
    bool dispatching = false;
    xal_client_type dispatchingClient = nullptr;
    std::thread dispatcher;

    Impl();
    void touch();  // a change happened
    void runDispatcher();
    void queue(Task task);

    xal_client_struct* findClient(xal_client_type handle);
    int lowestFreeIndex(int32_t type) const;
    int createProfile(int32_t type, const Settings& settings);
    void broadcastProfileChanged(int32_t type, uint8_t index, int32_t event);
    void broadcast(unsigned int msgId, std::vector<uint8_t> payload);
    void serviceDown();
    void serviceUpAgain();

    // Serves one request; returns the xal error and fills the response.
    xal_client_error_type serve(xal_client_struct* client, unsigned int msgId, const void* request,
                                unsigned int requestLength, void* response,
                                unsigned int responseLength);
};

// Copies every field whose valid flag is set in from.
template <typename To, typename From>
void copyValidFields(To& to, const From& from) {
#define XALSIM_COPY(kind, name)                                     \
    if (from.name##_valid) {                                        \
        to.name##_valid = 1;                                        \
        static_assert(sizeof(to.name) == sizeof(from.name), #name); \
        memcpy(&to.name, &from.name, sizeof(to.name));              \
    }
    XALSIM_SETTINGS_FIELDS(XALSIM_COPY)
#undef XALSIM_COPY
}

// The one WDS service object of the simulator.
xal_idl_service_object_type wdsServiceObject();

// Indication wire format: "KV", version 1, TLV count, then TLVs of a type
// byte, a 16-bit little-endian length and the value. TLV 0x10 is the
// profile-changed record: 32-bit profile type, 8-bit index, 32-bit event.
std::vector<uint8_t> encodeProfileChanged(const wds_profile_changed_ind_type_v01* record);
xal_client_error_type decodeProfileChanged(const void* source, unsigned int length,
                                           wds_profile_changed_ind_msg_v01* out);

}  // namespace xalsim
