// A control connection to the modem service: fault injection, indications
// on demand and a look at the modem's table, for tools and tests that drive
// the service (kivctl's "modem" commands).
//
// Commands and answers are JSON objects, {"op": NAME, ...} and
// {"ok": true|false, "error": "...", ...}:
//   status                         service up, capacity, latency, clients, counters,
//                                  faults still to come
//   profiles                       the table, one object per profile (SettingsJson.h)
//   restart | down | up | reset    the service; reset puts the factory table back
//                                  and forgets the faults still to come
//   clearFaults                    forgets the faults still to come
//   fail {msgId, count, skip}      failure results for the next requests of a kind
//   timeout {msgId, count}         no answer to the next requests of a kind
//   failService {count}            xal_client_get_any_service fails
//   failConnect {count}            xal_client_init fails
//   indicate {kind: "subscription-change" | "profile-ready"}
//   indicate {kind: "changed", type, index, event}   any profile-changed record
//   indicate {kind: "raw", msgId, bytes: [...]}      any bytes as an indication
//   externalDelete {type, index}   a profile deleted by another party
//   hold {on}                      nothing goes out to the modem's clients until
//                                  hold {on: false}; then all of it, in order
//   requestCount {msgId}           requests of a kind received
//   waitRequests {msgId, count, timeoutMs}   answers once that many arrived
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>

namespace xalremote {

class ServiceControl {
  public:
    // Connects as this process's clients connect (XalRemote.h).
    static android::base::Result<ServiceControl> connect();

    // The service's answer to one command; an error when it gave none (the
    // error's code is then the system's reason) or refused ("ok": false,
    // with its reason; code 0). A connection the service
    // closed (it stopped and started again) is made anew first; a command
    // is sent at most once.
    android::base::Result<nlohmann::json> call(
            const nlohmann::json& command,
            std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    explicit ServiceControl(android::base::unique_fd fd) : mFd(std::move(fd)) {}
    bool closedByService() const;
    android::base::Result<void> reconnect();

    android::base::unique_fd mFd;
    uint32_t mSeq = 0;
};

}  // namespace xalremote
