// The messaging client of this run, chosen at run time: the modem service's
// (kivmodemd, or kivctl's own modem served in process) or a modem
// manager's. kivctl holds both and exports the messaging client interface
// itself, each call going to the one chosen; the library it links sees one
// client, as on a device.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "wire/RequestHooks.h"

namespace kivctl::client {

enum class Kind { kService, kModemManager };
// Before the library's first call; the modem service's by default.
void use(Kind kind);
Kind inUse();

// The chosen client's own: its clients registered for profile events, its
// events delivered, what it lets a program see and answer of its requests.
size_t registeredClients();
bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout);
bool sync(std::chrono::milliseconds timeout);
void setRequestHook(wire::RequestHook hook);
void setRequestObserver(wire::RequestObserver observer);
// Where the modem is, for messages: "the modem service at PATH", "modem ID
// on the modem manager".
std::string where();

}  // namespace kivctl::client
