// The messaging client interface (xal_client.h) served by the modem service
// (kivmodemd) over a Unix socket: link libxalremote instead of libxalsim
// and the same library runs against a modem shared by many processes.
//
// Each client or notifier made through the interface is one connection,
// one client of the service. Callbacks run on this library's own event
// thread, in the order the service sent them, and in order with the answers
// to requests: an indication that arrived before an answer has been
// delivered before xal_client_send_msg_sync returns that answer, and one
// that arrived after it is delivered only once that call has returned (for
// a request made from within a callback, the callbacks wait until it is
// done). A service that goes away is a modem that went down (error
// callbacks, notifiers told XAL_CLIENT_SERVICE_COUNT_DEC); notifiers keep
// trying to reconnect and are told XAL_CLIENT_SERVICE_COUNT_INC once it is
// back.
//
// What follows is for programs and tests that set up or watch this
// process's clients; the C interface needs none of it.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "xal/xal_client.h"

namespace xalremote {

// Where this process's clients reach the service. The default is the
// socket named by the environment variable KIVR_MODEM. Another service than
// before is a new one: no client of this process returns to it after a loss.
void setSocketPath(const std::string& path);
std::string socketPath();

// Makes every new connection with `connect` instead (for a service running
// in this process); an empty function restores the socket path.
using Connector = std::function<android::base::unique_fd()>;
void setConnector(Connector connect);

// A new connection to the service, made as this process's clients make
// theirs; not open (-1) when the service cannot be reached, errno saying why.
android::base::unique_fd connectToService();

// Service clients of this process that are open, have not lost the service
// and have finished registering for profile events (their event-list
// request was answered).
size_t registeredClients();
// Waits until at least `count` clients are registered (true) or the time-out.
bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout);

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
// calling thread, just before the call returns (and before any indication
// that arrived after its answer is delivered). Null: none.
using RequestObserver = std::function<void(const RequestOutcome& outcome)>;
void setRequestObserver(RequestObserver observer);

// An answer given in this process instead of by the service.
struct LocalAnswer {
    // Indications for the requesting client (message id, encoded record),
    // delivered after the answer, as the service's would be.
    std::vector<std::pair<unsigned int, std::vector<uint8_t>>> indications;
};
// Sees each request of this process that is about to be sent (on the
// calling thread, no lock of this library held). An answer (the response
// record filled in) answers the request here: it is not sent, the caller
// gets XAL_NO_ERR and the observer is told of it as answered. Nothing: the
// request goes to the service. Null: every request goes to the service.
using RequestHook = std::function<std::optional<LocalAnswer>(
        xal_client_type client, unsigned int msgId, const void* request, unsigned int requestLength,
        void* response, unsigned int responseLength)>;
void setRequestHook(RequestHook hook);

// Returns once every event the service sent to this process's open clients
// before the call has been delivered to their callbacks (true), or at the
// time-out. Not on the event thread (from a callback): false.
bool sync(std::chrono::milliseconds timeout);

}  // namespace xalremote
