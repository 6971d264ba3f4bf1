// The messaging client interface over a modem manager: the C interface and
// the process's settings, on the link (Link.h).

#include "mmclient/XalMm.h"

#include <cstring>

#include "mmclient/Link.h"
#include "wire/ClientContract.h"
#include "wire/IndicationCodec.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"
#include "xal/xal_host.h"

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

namespace {

std::optional<Modem> toModem(const std::optional<ModemInfo>& modem) {
    if (!modem) return std::nullopt;
    return Modem{modem->path, modem->equipmentId, modem->deviceId, modem->simIdentifier,
                 modem->state};
}

}  // namespace

std::optional<Modem> currentModem() {
    return toModem(Link::instance().modem());
}

std::optional<Modem> chosenModem() {
    return toModem(Link::instance().chosen());
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

namespace {

xal_idl_service_object_type serviceObject(int32_t idl_maj_version, int32_t /*idl_min_version*/,
                                          int32_t /*library_version*/) {
    return wire::serviceObjectFor(idl_maj_version);
}

xal_client_error_type notifierInit(xal_idl_service_object_type service_obj,
                                   xal_client_os_params* os_params, xal_client_type* user_handle) {
    if (auto refused = wire::checkNotifierInit(service_obj, os_params, user_handle)) return refused;
    *user_handle = Link::instance().newNotifier();
    return XAL_NO_ERR;
}

xal_client_error_type registerNotify(xal_client_type user_handle, xal_client_notify_cb notify_cb,
                                     void* notify_cb_data) {
    return Link::instance().registerNotify(user_handle, notify_cb, notify_cb_data);
}

xal_client_error_type getAnyService(xal_idl_service_object_type service_obj,
                                    xal_service_info* service_info) {
    if (auto refused = wire::checkGetAnyService(service_obj, service_info)) return refused;
    if (Link::instance().probe() != XAL_NO_ERR) return XAL_SERVICE_ERR;
    memset(service_info, 0, sizeof(*service_info));
    service_info->reserved[0] = 1;  // the one instance of the service
    return XAL_NO_ERR;
}

xal_client_error_type clientInit(xal_service_info* service_info,
                                 xal_idl_service_object_type service_obj, xal_client_ind_cb ind_cb,
                                 void* ind_cb_data, xal_client_os_params* os_params,
                                 xal_client_type* user_handle) {
    if (auto refused = wire::checkClientInit(service_info, service_obj, os_params, user_handle)) {
        return refused;
    }
    return Link::instance().newClient(ind_cb, ind_cb_data, user_handle);
}

xal_client_error_type registerError(xal_client_type user_handle, xal_client_error_cb err_cb,
                                    void* err_cb_data) {
    return Link::instance().registerError(user_handle, err_cb, err_cb_data);
}

xal_client_error_type sendSync(xal_client_type user_handle, unsigned int msg_id, void* req_c_struct,
                               unsigned int req_c_struct_len, void* resp_c_struct,
                               unsigned int resp_c_struct_len, unsigned int timeout_msecs) {
    Link& link = Link::instance();
    if (!link.isLive(user_handle)) return XAL_CLIENT_INVALID_CLNT;
    if (auto refused =
                wire::checkSend(req_c_struct, req_c_struct_len, resp_c_struct, resp_c_struct_len,
                                sizeof(wds_create_profile_req_msg_v01) + sizeof(uint64_t))) {
        return refused;
    }
    return link.send(user_handle, msg_id, req_c_struct, req_c_struct_len, resp_c_struct,
                     resp_c_struct_len, timeout_msecs);
}

xal_client_error_type decode(xal_client_type /*user_handle*/, xal_idl_type_of_msg_type req_resp_ind,
                             unsigned int message_id, const void* p_src, unsigned int src_len,
                             void* p_dst, unsigned int dst_len) {
    return wire::decodeMessage(req_resp_ind, message_id, p_src, src_len, p_dst, dst_len);
}

xal_client_error_type release(xal_client_type user_handle) {
    return Link::instance().release(user_handle);
}

int waitForRegistration(unsigned int timeout_msecs) {
    return Link::instance().waitForRegistered(1, std::chrono::milliseconds(timeout_msecs)) ? 1 : 0;
}

}  // namespace

const wire::ClientTable& xalmm::clientTable() {
    static const wire::ClientTable table{
            serviceObject, notifierInit, registerNotify, getAnyService, clientInit,
            registerError, sendSync,     decode,         release,       waitForRegistration};
    return table;
}
