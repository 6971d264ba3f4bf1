// What a program may see and answer of its process's requests, in every
// messaging client of this project that talks to another process (the
// modem service's, the modem manager's): an observer told of every
// request's outcome, and a hook that may answer a request in the process
// instead of the modem.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "xal/xal_client.h"

namespace wire {

// What became of one request of this process: its client (as given, maybe
// null or released), its message id, the result of xal_client_send_msg_sync
// (XAL_NO_ERR: the modem answered; a request refused by the client itself,
// on a bad handle or a service that is away, was never sent), and the
// modem's response record when it answered.
struct RequestOutcome {
    xal_client_type client;
    unsigned int msgId;
    xal_client_error_type result;
    // It left this process: a request sent and not answered may have been
    // carried out.
    bool sent;
    const void* response;  // null unless result is XAL_NO_ERR
    unsigned int responseLength;
};
// Called once for every xal_client_send_msg_sync of this process, on the
// calling thread, just before the call returns. Null: none.
using RequestObserver = std::function<void(const RequestOutcome& outcome)>;

// An answer given in this process instead of by the modem.
struct LocalAnswer {
    // Indications for the requesting client (message id, encoded record),
    // delivered after the answer, as the modem's would be.
    std::vector<std::pair<unsigned int, std::vector<uint8_t>>> indications;
};
// Sees each request of this process that is about to be sent (on the
// calling thread, no lock of the client held). An answer (the response
// record filled in) answers the request here: it is not sent, the caller
// gets XAL_NO_ERR and the observer is told of it as answered. Nothing: the
// request goes to the modem. Null: every request goes to the modem.
using RequestHook = std::function<std::optional<LocalAnswer>(
        xal_client_type client, unsigned int msgId, const void* request, unsigned int requestLength,
        void* response, unsigned int responseLength)>;

}  // namespace wire
