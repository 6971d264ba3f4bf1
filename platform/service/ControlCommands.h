// The modem service's control commands, one JSON object each from a control
// client (kivctl modem ..., tests): the modem's status and table, restarts,
// the service down and up, faults to come, indications to send, changes
// made by another party, holding back what the clients are sent, and
// counting or waiting for the requests that arrived. Runs on the service
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "sim/ModemCore.h"

namespace xalservice {

class ControlCommands {
  public:
    // What the commands see of the service: its modem, its latency, whether
    // it holds back what clients are sent, the requests that arrived.
    ControlCommands(xalsim::ModemCore& modem, std::chrono::milliseconds latency, bool& holding,
                    const std::map<unsigned int, uint64_t>& arrivals)
        : mModem(modem), mLatency(latency), mHolding(holding), mArrivals(arrivals) {}

    // A wait for `count` requests of a message id, answered when they came
    // or at the time-out.
    struct Wait {
        unsigned int msgId;
        uint64_t count;
        std::chrono::milliseconds timeout;
    };
    // The answer ({"ok": true, ...} or {"ok": false, "error": why}), unless
    // the command is a wait, which the service answers later.
    struct Outcome {
        nlohmann::ordered_json answer;
        std::optional<Wait> wait;
    };
    Outcome run(const std::string& text);

  private:
    xalsim::ModemCore& mModem;
    const std::chrono::milliseconds mLatency;
    bool& mHolding;
    const std::map<unsigned int, uint64_t>& mArrivals;
};

}  // namespace xalservice
