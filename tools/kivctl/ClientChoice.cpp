#include "ClientChoice.h"

#include <atomic>

#include "mmclient/XalMm.h"
#include "remote/XalRemote.h"
#include "wire/ClientTable.h"

namespace kivctl::client {

namespace {

std::atomic<Kind> sKind{Kind::kService};

const wire::ClientTable& chosen() {
    return sKind.load() == Kind::kModemManager ? xalmm::clientTable() : xalremote::clientTable();
}

}  // namespace

void use(Kind kind) {
    sKind = kind;
}

Kind inUse() {
    return sKind.load();
}

size_t registeredClients() {
    return inUse() == Kind::kModemManager ? xalmm::registeredClients()
                                          : xalremote::registeredClients();
}

bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout) {
    return inUse() == Kind::kModemManager ? xalmm::waitForRegisteredClients(count, timeout)
                                          : xalremote::waitForRegisteredClients(count, timeout);
}

bool sync(std::chrono::milliseconds timeout) {
    return inUse() == Kind::kModemManager ? xalmm::settle(timeout) : xalremote::sync(timeout);
}

void setRequestHook(wire::RequestHook hook) {
    if (inUse() == Kind::kModemManager) {
        xalmm::setRequestHook(std::move(hook));
    } else {
        xalremote::setRequestHook(std::move(hook));
    }
}

void setRequestObserver(wire::RequestObserver observer) {
    if (inUse() == Kind::kModemManager) {
        xalmm::setRequestObserver(std::move(observer));
    } else {
        xalremote::setRequestObserver(std::move(observer));
    }
}

std::string where() {
    if (inUse() == Kind::kService) return "the modem service at " + xalremote::socketPath();
    const auto modem = xalmm::currentModem();
    if (!modem) return "the modem manager";
    return "modem " + (modem->equipmentId.empty() ? modem->deviceId : modem->equipmentId) +
           " on the modem manager (" + modem->path + ")";
}

}  // namespace kivctl::client

// The messaging client interface of the program, for the library it links.
WIRE_EXPORT_CLIENT_TABLE(kivctl::client::chosen())
