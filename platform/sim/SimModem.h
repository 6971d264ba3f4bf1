// The simulated modem in process, behind the messaging client interface
// (xal_client.h). Tests and benchmarks run the library against it; the
// modem service (kivmodemd) serves the same modem to other processes.
//
// The C interface is served from the process-wide instance. Requests are
// answered synchronously on the caller's thread; notify, error and
// indication callbacks run on the simulator's dispatcher thread, in the
// order they were raised.
#pragma once

#include <chrono>

#include "ModemCore.h"

namespace xalsim {

struct Api;

class SimModem : public ModemCore {
  public:
    // The modem behind the C interface; never destroyed.
    static SimModem& instance();

    // Waits until every queued callback has run (true), or the time-out.
    bool waitForCallbacks(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    // The next request of msgId stops on its way into the modem, its caller
    // blocked, until releaseRequests(): a test can see what happens while a
    // request is in flight.
    void holdNextRequest(unsigned int msgId);
    // Waits until a request is held (true), or the time-out.
    bool waitUntilHeld(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void releaseRequests();

    struct Impl;

  private:
    friend struct Api;
    SimModem();
    Impl* mImpl;
};

}  // namespace xalsim
