// A simulated modem with a wireless data service, behind the messaging
// client interface (xal_client.h). Tests, the command-line front end and the
// benchmarks run the library against it.
//
// The C interface is served from the process-wide instance. Requests are
// answered synchronously on the caller's thread; notify, error and
// indication callbacks run on the simulator's dispatcher thread, in the
// order they were raised.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace xalsim {

struct Api;

// The stored settings of one profile: the fields of the settings response
// (the response header unused).
using Settings = wds_get_profile_settings_resp_msg_v01;

// Error codes the simulated service puts in a failure response.
enum SimError : uint32_t {
    kErrMalformedMessage = 0x01,
    kErrNoFreeProfile = 0x02,
    kErrInvalidProfile = 0x03,
    kErrInvalidProfileType = 0x04,
    kErrInjected = 0xFF,
};

// The simulator's own profile type names: "3gpp" and "3gpp2".
inline constexpr uint8_t kFirst3gppIndex = 1;
inline constexpr uint8_t kFirst3gpp2Index = 101;

struct Profile {
    wds_profile_type_enum_v01 type;
    uint8_t index;
    Settings settings;  // persistent_valid / persistent carry persistence
};

struct RecordedRequest {
    xal_client_type client;
    unsigned int msgId;
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
};

struct ClientInfo {
    xal_client_type handle;
    bool notifier;  // made by xal_client_notifier_init
    bool released;
    bool serviceLost;                      // the service went down while it was open
    bool profileEvents;                    // registered for profile-changed indications
    std::optional<uint32_t> subscription;  // from the bind request
};

struct Config {
    int capacity3gpp = 24;   // at most 255 (indexes 1..255)
    int capacity3gpp2 = 24;  // at most 155 (indexes 101..255)
    std::chrono::milliseconds indicationDelay{0};
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

class SimModem {
  public:
    // The modem behind the C interface; never destroyed.
    static SimModem& instance();

    // A fresh modem: empty table, service up, no injected failures, no
    // records. Clients already open stay open.
    void reset(const Config& config = Config());
    void setIndicationDelay(std::chrono::milliseconds delay);

    // --- The profile table.
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
    // Waits until every queued callback has run (true), or the time-out.
    bool waitForCallbacks(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // --- The service.
    // Down (error callbacks, non-persistent profiles dropped) and up again
    // (notify callbacks).
    void restart();
    void setServiceUp(bool up);
    bool isServiceUp() const;

    // --- Failure injection: the next N of a kind.
    // Failure results for count requests of msgId, after the next `skip` of them.
    void failNext(unsigned int msgId, int count, int skip = 0);
    void timeoutNext(unsigned int msgId, int count);  // XAL_TIMEOUT_ERR
    void failGetAnyService(int count);
    void failClientInit(int count);
    void corruptNextList(int count);      // count above 255, names without NUL
    void corruptNextSettings(int count);  // strings without NUL
    // The next response to msgId is these bytes, cut or zero-padded to the
    // caller's response length, whatever the request asked.
    void injectNextResponse(unsigned int msgId, std::vector<uint8_t> bytes);

    // --- Observation.
    std::vector<RecordedRequest> requests() const;
    // Forgets the recorded requests (the counters stay), for long runs.
    void clearRecordedRequests();
    std::vector<RecordedRequest> requests(xal_client_type client) const;
    size_t requestCount(unsigned int msgId) const;
    std::vector<ClientInfo> clients() const;
    Counters counters() const;
    // Waits until the predicate holds, re-checking after every change of the
    // simulator's state. The predicate may call the observation methods.
    bool waitUntil(const std::function<bool()>& predicate,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // --- Persistence of the table in a human-readable text format.
    bool save(const std::string& path, std::string* error = nullptr) const;
    bool load(const std::string& path, std::string* error = nullptr);

    struct Impl;

  private:
    friend struct Api;
    SimModem();
    Impl* mImpl;
};

}  // namespace xalsim
