// The messaging client interface, served by the in-process simulated modem.

#include <cstring>

#include "SimModemImpl.h"
#include "wire/ClientContract.h"
#include "wire/IndicationCodec.h"
#include "xal/xal_host.h"

namespace xalsim {

// Entry points of the C interface, with access to the dispatcher.
struct Api {
    static SimModem& modem() { return SimModem::instance(); }
    static SimModem::Impl& impl() { return *SimModem::instance().mImpl; }
};

}  // namespace xalsim

using xalsim::Api;
using xalsim::ClientRole;

namespace {

xal_client_type newHandle(bool notifier) {
    auto& impl = Api::impl();
    kiv::MutexLock guard(impl.lock);
    auto client = std::make_unique<xal_client_struct>();
    client->notifier = notifier;
    xal_client_type handle = client.get();
    impl.handles.emplace(handle, std::move(client));
    return handle;
}

// The handle while it is open (not released), else null.
xal_client_struct* openHandle(xal_client_type handle) {
    auto& impl = Api::impl();
    kiv::MutexLock guard(impl.lock);
    xal_client_struct* client = impl.find(handle);
    return client == nullptr || client->released ? nullptr : client;
}

}  // namespace

extern "C" {

xal_idl_service_object_type wds_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t /*idl_min_version*/,
                                                                int32_t /*library_version*/) {
    return wire::serviceObjectFor(idl_maj_version);
}

xal_client_error_type xal_client_notifier_init(xal_idl_service_object_type service_obj,
                                               xal_client_os_params* os_params,
                                               xal_client_type* user_handle) {
    if (auto refused = wire::checkNotifierInit(service_obj, os_params, user_handle)) return refused;
    xal_client_type handle = newHandle(true);
    Api::modem().openClient(handle, ClientRole::kNotifier, false);
    *user_handle = handle;
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_register_notify_cb(xal_client_type user_handle,
                                                    xal_client_notify_cb notify_cb,
                                                    void* notify_cb_data) {
    {
        auto& impl = Api::impl();
        kiv::MutexLock guard(impl.lock);
        xal_client_struct* client = impl.find(user_handle);
        if (client == nullptr || client->released || !client->notifier) {
            return XAL_CLIENT_INVALID_CLNT;
        }
        client->notifyCb = notify_cb;
        client->notifyData = notify_cb_data;
    }
    if (notify_cb != nullptr) Api::modem().notifierRegistered(user_handle);
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_get_any_service(xal_idl_service_object_type service_obj,
                                                 xal_service_info* service_info) {
    if (auto refused = wire::checkGetAnyService(service_obj, service_info)) return refused;
    const xal_client_error_type result = Api::modem().probeService();
    if (result != XAL_NO_ERR) return result;
    memset(service_info, 0, sizeof(*service_info));
    service_info->reserved[0] = 1;  // the one instance of the service
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_init(xal_service_info* service_info,
                                      xal_idl_service_object_type service_obj,
                                      xal_client_ind_cb ind_cb, void* ind_cb_data,
                                      xal_client_os_params* os_params,
                                      xal_client_type* user_handle) {
    if (auto refused = wire::checkClientInit(service_info, service_obj, os_params, user_handle)) {
        return refused;
    }
    xal_client_type handle = newHandle(false);
    {
        auto& impl = Api::impl();
        kiv::MutexLock guard(impl.lock);
        handle->indCb = ind_cb;
        handle->indData = ind_cb_data;
    }
    auto& modem = Api::modem();
    const xal_client_error_type result =
            modem.openClient(handle, ClientRole::kService, modem.takeServiceLoss());
    if (result != XAL_NO_ERR) {
        auto& impl = Api::impl();
        kiv::MutexLock guard(impl.lock);
        handle->released = true;
        return result;
    }
    *user_handle = handle;
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_register_error_cb(xal_client_type user_handle,
                                                   xal_client_error_cb err_cb, void* err_cb_data) {
    {
        auto& impl = Api::impl();
        kiv::MutexLock guard(impl.lock);
        xal_client_struct* client = impl.find(user_handle);
        if (client == nullptr || client->released || client->notifier) {
            return XAL_CLIENT_INVALID_CLNT;
        }
        client->errorCb = err_cb;
        client->errorData = err_cb_data;
    }
    // A service already lost is reported at once, as it would have been.
    if (err_cb != nullptr && Api::modem().hasLostService(user_handle)) {
        Api::impl().queue({user_handle,
                           {xalsim::Event::kError, XAL_SERVICE_ERR, 0, {}},
                           xalsim::Clock::now()});
    }
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_send_msg_sync(xal_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs) {
    xal_client_struct* client = openHandle(user_handle);
    if (client == nullptr || client->notifier) return XAL_CLIENT_INVALID_CLNT;
    if (auto refused = wire::checkSend(req_c_struct, req_c_struct_len, resp_c_struct,
                                       resp_c_struct_len, UINT32_MAX)) {
        return refused;
    }
    {
        auto& impl = Api::impl();
        kiv::MutexLock guard(impl.lock);
        if (impl.holdMsgId == msg_id) {
            impl.holdMsgId.reset();
            impl.holding = true;
            impl.changed.notify_all();
            guard.wait(impl.changed, [&]() REQUIRES(impl.lock) { return !impl.holding; });
        }
    }
    return Api::modem().serve(user_handle, msg_id, req_c_struct, req_c_struct_len, resp_c_struct,
                              resp_c_struct_len, timeout_msecs);
}

xal_client_error_type xal_client_message_decode(xal_client_type /*user_handle*/,
                                                xal_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* p_src,
                                                unsigned int src_len, void* p_dst,
                                                unsigned int dst_len) {
    return wire::decodeMessage(req_resp_ind, message_id, p_src, src_len, p_dst, dst_len);
}

int xal_host_wait_for_registration(unsigned int timeout_msecs) {
    auto& modem = Api::modem();
    const bool registered = modem.waitUntil(
            [&] {
                for (const auto& client : modem.clients()) {
                    if (!client.notifier && !client.released && !client.serviceLost &&
                        client.profileEvents) {
                        return true;
                    }
                }
                return false;
            },
            std::chrono::milliseconds(timeout_msecs));
    return registered ? 1 : 0;
}

xal_client_error_type xal_client_release(xal_client_type user_handle) {
    auto& impl = Api::impl();
    {
        kiv::MutexLock guard(impl.lock);
        xal_client_struct* client = impl.find(user_handle);
        if (client == nullptr || client->released) return XAL_CLIENT_INVALID_CLNT;
        client->released = true;
    }
    // The modem raises no event for it from here on.
    Api::modem().releaseClient(user_handle);
    kiv::MutexLock guard(impl.lock);
    for (auto it = impl.tasks.begin(); it != impl.tasks.end();) {
        it = it->client == user_handle ? impl.tasks.erase(it) : std::next(it);
    }
    impl.changed.notify_all();
    // A callback of this client running on the dispatcher finishes first,
    // unless it is the caller itself.
    if (std::this_thread::get_id() != impl.dispatcher.get_id()) {
        guard.wait(impl.changed, [&]() REQUIRES(impl.lock) {
            return !(impl.dispatching && impl.dispatchingClient == user_handle);
        });
    }
    return XAL_NO_ERR;
}

}  // extern "C"
