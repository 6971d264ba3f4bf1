// The messaging client interface over the modem service's socket: the C
// interface and the process's settings, on the transport (Transport.h).

#include "XalRemote.h"

#include <cstring>

#include "Transport.h"
#include "wire/ClientContract.h"
#include "wire/IndicationCodec.h"
#include "wire/ServiceWire.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"
#include "xal/xal_host.h"

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

namespace {

xal_idl_service_object_type serviceObject(int32_t idl_maj_version, int32_t /*idl_min_version*/,
                                          int32_t /*library_version*/) {
    return wire::serviceObjectFor(idl_maj_version);
}

xal_client_error_type notifierInit(xal_idl_service_object_type service_obj,
                                   xal_client_os_params* os_params, xal_client_type* user_handle) {
    if (auto refused = wire::checkNotifierInit(service_obj, os_params, user_handle)) return refused;
    *user_handle = Transport::instance().newNotifier();
    return XAL_NO_ERR;
}

xal_client_error_type registerNotify(xal_client_type user_handle, xal_client_notify_cb notify_cb,
                                     void* notify_cb_data) {
    return Transport::instance().registerNotify(user_handle, notify_cb, notify_cb_data);
}

xal_client_error_type getAnyService(xal_idl_service_object_type service_obj,
                                    xal_service_info* service_info) {
    if (auto refused = wire::checkGetAnyService(service_obj, service_info)) return refused;
    const xal_client_error_type result = Transport::instance().probe();
    if (result != XAL_NO_ERR) return XAL_SERVICE_ERR;
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
    return Transport::instance().newClient(ind_cb, ind_cb_data, user_handle);
}

xal_client_error_type registerError(xal_client_type user_handle, xal_client_error_cb err_cb,
                                    void* err_cb_data) {
    return Transport::instance().registerError(user_handle, err_cb, err_cb_data);
}

xal_client_error_type sendSync(xal_client_type user_handle, unsigned int msg_id, void* req_c_struct,
                               unsigned int req_c_struct_len, void* resp_c_struct,
                               unsigned int resp_c_struct_len, unsigned int timeout_msecs) {
    Transport& transport = Transport::instance();
    xal_client_error_type refused = XAL_NO_ERR;
    if (!transport.isLive(user_handle)) {
        refused = XAL_CLIENT_INVALID_CLNT;
    } else {
        // The request travels in one message, after the header and three words.
        refused = wire::checkSend(req_c_struct, req_c_struct_len, resp_c_struct, resp_c_struct_len,
                                  wire::kMaxMessage - wire::kHeaderSize - 12);
    }
    if (refused != XAL_NO_ERR) {
        // Never sent; its caller learns so, and so does the observer.
        transport.observe({user_handle, msg_id, refused, false, nullptr, 0});
        return refused;
    }
    return transport.sendSync(user_handle, msg_id, req_c_struct, req_c_struct_len, resp_c_struct,
                              resp_c_struct_len, timeout_msecs);
}

xal_client_error_type decode(xal_client_type /*user_handle*/, xal_idl_type_of_msg_type req_resp_ind,
                             unsigned int message_id, const void* p_src, unsigned int src_len,
                             void* p_dst, unsigned int dst_len) {
    return wire::decodeMessage(req_resp_ind, message_id, p_src, src_len, p_dst, dst_len);
}

xal_client_error_type release(xal_client_type user_handle) {
    return Transport::instance().release(user_handle);
}

int waitForRegistration(unsigned int timeout_msecs) {
    return Transport::instance().waitForRegistered(1, std::chrono::milliseconds(timeout_msecs)) ? 1
                                                                                                : 0;
}

}  // namespace

const wire::ClientTable& xalremote::clientTable() {
    static const wire::ClientTable table{
            serviceObject, notifierInit, registerNotify, getAnyService, clientInit,
            registerError, sendSync,     decode,         release,       waitForRegistration};
    return table;
}
