// A messaging client's entry points as a table. Each client library of this
// project exports the C interface (xal_client.h, xal_host.h) through its
// table, so that a program can also hold several clients and choose one at
// run time (kivctl: its own modem, the modem service, a modem manager).
#pragma once

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
