// A messaging client's entry points as a table. Each client library of this
// project exports the C interface (xal_client.h, xal_host.h) through its
// table, so that a program can also hold several clients and choose one at
// run time (kivctl: its own modem, the modem service, a modem manager).
#pragma once

#include <chrono>
#include <cstring>

#include "wire/ClientContract.h"
#include "wire/IndicationCodec.h"
#include "wire/RequestHooks.h"
#include "xal/xal_client.h"
#include "xal/xal_host.h"

namespace wire {

struct ClientTable {
    decltype(&wds_get_service_object_internal_v01) serviceObject;
    decltype(&xal_client_notifier_init) notifierInit;
    decltype(&xal_client_register_notify_cb) registerNotify;
    decltype(&xal_client_get_any_service) getAnyService;
    decltype(&xal_client_init) init;
    decltype(&xal_client_register_error_cb) registerError;
    decltype(&xal_client_send_msg_sync) sendSync;
    decltype(&xal_client_message_decode) decode;
    decltype(&xal_client_release) release;
    decltype(&xal_host_wait_for_registration) waitForRegistration;
};

// The table of a client whose process-wide transport (Transport::instance())
// does the work, after the arguments every client of this project refuses
// alike (ClientContract.h):
//
//   xal_client_type newNotifier();
//   xal_client_error_type registerNotify(handle, notify_cb, data);
//   xal_client_error_type probe();                        // the service is up
//   xal_client_error_type newClient(ind_cb, data, xal_client_type* handle);
//   xal_client_error_type registerError(handle, err_cb, data);
//   bool isLive(handle);
//   xal_client_error_type sendSync(handle, msgId, request, length, response, length, timeoutMs);
//   void observe(const RequestOutcome& outcome);          // told of requests never sent
//   xal_client_error_type release(handle);
//   bool waitForRegistered(size_t count, std::chrono::milliseconds timeout);
//   static constexpr size_t kMostRequest;                 // the largest request it carries
template <typename Transport>
const ClientTable& clientTableOf() {
    static const ClientTable table{
            [](int32_t major, int32_t, int32_t) { return serviceObjectFor(major); },
            [](xal_idl_service_object_type service, xal_client_os_params* os,
               xal_client_type* handle) {
                if (auto refused = checkNotifierInit(service, os, handle)) return refused;
                *handle = Transport::instance().newNotifier();
                return XAL_NO_ERR;
            },
            [](xal_client_type handle, xal_client_notify_cb callback, void* data) {
                return Transport::instance().registerNotify(handle, callback, data);
            },
            [](xal_idl_service_object_type service, xal_service_info* info) {
                if (auto refused = checkGetAnyService(service, info)) return refused;
                if (Transport::instance().probe() != XAL_NO_ERR) return XAL_SERVICE_ERR;
                memset(info, 0, sizeof(*info));
                info->reserved[0] = 1;  // the one instance of the service
                return XAL_NO_ERR;
            },
            [](xal_service_info* info, xal_idl_service_object_type service,
               xal_client_ind_cb callback, void* data, xal_client_os_params* os,
               xal_client_type* handle) {
                if (auto refused = checkClientInit(info, service, os, handle)) return refused;
                return Transport::instance().newClient(callback, data, handle);
            },
            [](xal_client_type handle, xal_client_error_cb callback, void* data) {
                return Transport::instance().registerError(handle, callback, data);
            },
            [](xal_client_type handle, unsigned int msgId, void* request,
               unsigned int requestLength, void* response, unsigned int responseLength,
               unsigned int timeoutMs) {
                auto& transport = Transport::instance();
                xal_client_error_type refused = XAL_CLIENT_INVALID_CLNT;
                if (transport.isLive(handle)) {
                    refused = checkSend(request, requestLength, response, responseLength,
                                        Transport::kMostRequest);
                }
                if (refused != XAL_NO_ERR) {
                    // Never sent; its caller learns so, and so does the observer.
                    transport.observe({handle, msgId, refused, false, nullptr, 0});
                    return refused;
                }
                return transport.sendSync(handle, msgId, request, requestLength, response,
                                          responseLength, timeoutMs);
            },
            [](xal_client_type, xal_idl_type_of_msg_type kind, unsigned int msgId,
               const void* source, unsigned int sourceLength, void* destination,
               unsigned int destinationLength) {
                return decodeMessage(kind, msgId, source, sourceLength, destination,
                                     destinationLength);
            },
            [](xal_client_type handle) { return Transport::instance().release(handle); },
            [](unsigned int timeoutMs) {
                return Transport::instance().waitForRegistered(1,
                                                               std::chrono::milliseconds(timeoutMs))
                               ? 1
                               : 0;
            },
    };
    return table;
}

}  // namespace wire

// Defines the C interface in one unit of a program or library, each call
// going to the table `table` (an expression giving a const ClientTable&).
#define WIRE_EXPORT_CLIENT_TABLE(table)                                                            \
    extern "C" {                                                                                   \
    xal_idl_service_object_type wds_get_service_object_internal_v01(int32_t major, int32_t minor,  \
                                                                    int32_t library) {             \
        return (table).serviceObject(major, minor, library);                                       \
    }                                                                                              \
    xal_client_error_type xal_client_notifier_init(xal_idl_service_object_type service,            \
                                                   xal_client_os_params* os,                       \
                                                   xal_client_type* handle) {                      \
        return (table).notifierInit(service, os, handle);                                          \
    }                                                                                              \
    xal_client_error_type xal_client_register_notify_cb(xal_client_type handle,                    \
                                                        xal_client_notify_cb callback,             \
                                                        void* data) {                              \
        return (table).registerNotify(handle, callback, data);                                     \
    }                                                                                              \
    xal_client_error_type xal_client_get_any_service(xal_idl_service_object_type service,          \
                                                     xal_service_info* info) {                     \
        return (table).getAnyService(service, info);                                               \
    }                                                                                              \
    xal_client_error_type xal_client_init(xal_service_info* info,                                  \
                                          xal_idl_service_object_type service,                     \
                                          xal_client_ind_cb callback, void* data,                  \
                                          xal_client_os_params* os, xal_client_type* handle) {     \
        return (table).init(info, service, callback, data, os, handle);                            \
    }                                                                                              \
    xal_client_error_type xal_client_register_error_cb(xal_client_type handle,                     \
                                                       xal_client_error_cb callback, void* data) { \
        return (table).registerError(handle, callback, data);                                      \
    }                                                                                              \
    xal_client_error_type xal_client_send_msg_sync(xal_client_type handle, unsigned int msgId,     \
                                                   void* request, unsigned int requestLength,      \
                                                   void* response, unsigned int responseLength,    \
                                                   unsigned int timeoutMs) {                       \
        return (table).sendSync(handle, msgId, request, requestLength, response, responseLength,   \
                                timeoutMs);                                                        \
    }                                                                                              \
    xal_client_error_type xal_client_message_decode(xal_client_type handle,                        \
                                                    xal_idl_type_of_msg_type kind,                 \
                                                    unsigned int msgId, const void* source,        \
                                                    unsigned int sourceLength, void* destination,  \
                                                    unsigned int destinationLength) {              \
        return (table).decode(handle, kind, msgId, source, sourceLength, destination,              \
                              destinationLength);                                                  \
    }                                                                                              \
    xal_client_error_type xal_client_release(xal_client_type handle) {                             \
        return (table).release(handle);                                                            \
    }                                                                                              \
    int xal_host_wait_for_registration(unsigned int timeoutMs) {                                   \
        return (table).waitForRegistration(timeoutMs);                                             \
    }                                                                                              \
    }
