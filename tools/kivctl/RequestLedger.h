// What became of the requests the library made for kivctl, so that a
// command is judged by what it asked for and by nothing else.
//
// The library's changes (create, modify, delete) are always kivctl's own:
// the library makes them only for the operations kivctl calls, a temporary's
// last release included. Its reads (the profile list, one profile's
// settings) are kivctl's own only while kivctl itself has the library read
// the table (`reading()`); otherwise they are the library's upkeep, following
// what other processes change, and never fail a command. A read of a profile
// that is no longer there is no failure either: the table changed, and the
// library's picture with it. A request that could not even be sent (the
// service was away) is a failure like any other.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "base/Mutex.h"
#include "xal/xal_client.h"

namespace kivctl {

// One request of the command that did not get done.
struct FailedRequest {
    unsigned int msgId;
    xal_client_error_type result;  // XAL_NO_ERR: the modem answered, and refused
    bool sent = true;              // else the service was away: not done for sure
    uint32_t error = 0;            // the modem's error code
    uint32_t systemError = 0;      // with a failed save: the system's error number, if known

    // Whether it is known not to have been done: refused, or never sent.
    bool certain() const { return result == XAL_NO_ERR || !sent; }
};

class RequestLedger {
  public:
    // Observes every request of this process until it is destroyed.
    RequestLedger();
    ~RequestLedger();
    RequestLedger(const RequestLedger&) = delete;
    RequestLedger& operator=(const RequestLedger&) = delete;

    // Requests of this client are kivctl's own, not the library's (watch).
    void ignore(xal_client_type client);

    // While the returned scope lives, the library's reads are the command's.
    class Reading {
      public:
        ~Reading();
        Reading(Reading&&) = delete;

      private:
        friend class RequestLedger;
        explicit Reading(RequestLedger& ledger);
        RequestLedger& mLedger;
    };
    Reading reading();

    // The command's failed requests since the last call.
    std::vector<FailedRequest> takeFailures();
    bool hasFailures();
    // Whether every failure so far is a request never sent (the service away).
    bool onlyUnsent();
    // Requests of a kind the modem accepted, so far.
    size_t accepted(unsigned int msgId);

  private:
    struct State;
    std::shared_ptr<State> mState;
};

}  // namespace kivctl
