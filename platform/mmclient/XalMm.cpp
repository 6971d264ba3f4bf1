// The messaging client interface over a modem manager: the C interface and
// the process's settings, on the link (Link.h).

#include "mmclient/XalMm.h"

#include "mmclient/Link.h"
#include "wire/ClientTable.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

using xalmm::Link;

namespace xalmm {

void setBusAddress(const std::string& address) {
    Link::instance().configure([&](Settings& s) { s.busAddress = address; });
}

std::string busAddress() {
    return Link::instance().settings().busAddress;
}

void setModem(const std::string& identifier) {
    Link::instance().configure([&](Settings& s) { s.modem = identifier; });
}

void setPollInterval(std::chrono::milliseconds interval) {
    Link::instance().configure([&](Settings& s) { s.pollInterval = interval; });
}

void setStateFolder(const std::string& folder) {
    Link::instance().configure([&](Settings& s) { s.stateFolder = folder; });
}

void setLogSink(LogSink sink) {
    Link::instance().setLogSink(std::move(sink));
}

std::optional<Modem> currentModem() {
    return Link::instance().modem();
}

std::optional<Modem> chosenModem() {
    return Link::instance().chosen();
}

size_t registeredClients() {
    return Link::instance().registeredClients();
}

bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout) {
    return Link::instance().waitForRegistered(count, timeout);
}

bool sync(std::chrono::milliseconds timeout) {
    return Link::instance().sync(timeout);
}

bool settle(std::chrono::milliseconds timeout) {
    return Link::instance().sync(timeout, /*listAgain=*/false);
}

void setInstance(uint32_t instance) {
    Link::instance().setInstance(instance);
}

std::string whyNoModem() {
    return Link::instance().whyNoModem();
}

android::base::Result<std::vector<std::pair<uint8_t, wds_get_profile_settings_resp_msg_v01>>>
profiles(std::chrono::milliseconds timeout) {
    return Link::instance().profiles(timeout);
}

void setRequestHook(RequestHook hook) {
    Link::instance().setRequestHook(std::move(hook));
}

void setRequestObserver(RequestObserver observer) {
    Link::instance().setRequestObserver(std::move(observer));
}

}  // namespace xalmm

const wire::ClientTable& xalmm::clientTable() {
    return wire::clientTableOf<Link>();
}
