// The messaging client interface over the modem service's socket: the C
// interface and the process's settings, on the transport (Transport.h).

#include "XalRemote.h"

#include "Transport.h"
#include "wire/ClientTable.h"
#include "wire/ServiceWire.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

using android::base::unique_fd;
using xalremote::Transport;

namespace xalremote {

void setSocketPath(const std::string& path) {
    Transport::instance().setPath(path);
}

std::string socketPath() {
    return Transport::instance().path();
}

void setConnector(Connector connect) {
    Transport::instance().setConnector(std::move(connect));
}

unique_fd connectToService() {
    return Transport::instance().connect();
}

size_t registeredClients() {
    return Transport::instance().registeredClients();
}

bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout) {
    return Transport::instance().waitForRegistered(count, timeout);
}

void setRequestHook(RequestHook hook) {
    Transport::instance().setRequestHook(std::move(hook));
}

void setRequestObserver(RequestObserver observer) {
    Transport::instance().setObserver(std::move(observer));
}

bool sync(std::chrono::milliseconds timeout) {
    return Transport::instance().sync(timeout);
}

}  // namespace xalremote

const wire::ClientTable& xalremote::clientTable() {
    return wire::clientTableOf<Transport>();
}
