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

#include "wire/ClientTable.h"
#include "wire/RequestHooks.h"
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

// What this process may see and answer of its requests (wire/RequestHooks.h).
using RequestOutcome = wire::RequestOutcome;
using RequestObserver = wire::RequestObserver;
void setRequestObserver(RequestObserver observer);
using LocalAnswer = wire::LocalAnswer;
using RequestHook = wire::RequestHook;
void setRequestHook(RequestHook hook);

// The C interface of this client as a table (wire/ClientTable.h), for a
// program that chooses its messaging client at run time.
const wire::ClientTable& clientTable();

// Returns once every event the service sent to this process's open clients
// before the call has been delivered to their callbacks (true), or at the
// time-out. Not on the event thread (from a callback): false.
bool sync(std::chrono::milliseconds timeout);

}  // namespace xalremote
