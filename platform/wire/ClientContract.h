// What every messaging client of this project (the in-process simulator,
// the modem service's client) does the same way at its C interface: the WDS
// service object it hands out, and the arguments it refuses before doing
// anything (XAL_CLIENT_PARAM_ERR).
#pragma once

#include <cstddef>

#include "xal/wds_v01.h"
#include "xal/xal_client.h"

struct xal_idl_service_object {
    int version;
};

namespace wire {

// The WDS service object of this client library; one per library.
inline xal_idl_service_object_type wdsServiceObject() {
    static xal_idl_service_object service{1};
    return &service;
}

// wds_get_service_object_internal_v01: major version 1 is served.
inline xal_idl_service_object_type serviceObjectFor(int32_t majorVersion) {
    return majorVersion == 1 ? wdsServiceObject() : nullptr;
}

// The argument checks of the calls that take them: XAL_NO_ERR when the
// arguments may be used, else XAL_CLIENT_PARAM_ERR.
inline xal_client_error_type checkNotifierInit(xal_idl_service_object_type service,
                                               const xal_client_os_params* os,
                                               const xal_client_type* handle) {
    return service == wdsServiceObject() && os != nullptr && handle != nullptr
                   ? XAL_NO_ERR
                   : XAL_CLIENT_PARAM_ERR;
}

inline xal_client_error_type checkGetAnyService(xal_idl_service_object_type service,
                                                const xal_service_info* info) {
    return service == wdsServiceObject() && info != nullptr ? XAL_NO_ERR : XAL_CLIENT_PARAM_ERR;
}

inline xal_client_error_type checkClientInit(const xal_service_info* info,
                                             xal_idl_service_object_type service,
                                             const xal_client_os_params* os,
                                             const xal_client_type* handle) {
    return info != nullptr && checkNotifierInit(service, os, handle) == XAL_NO_ERR
                   ? XAL_NO_ERR
                   : XAL_CLIENT_PARAM_ERR;
}

// A request of up to `mostRequest` bytes (the transport's limit), and room
// for at least the response's result.
inline xal_client_error_type checkSend(const void* request, unsigned int requestLength,
                                       const void* response, unsigned int responseLength,
                                       size_t mostRequest) {
    const bool good = (request != nullptr || requestLength == 0) && response != nullptr &&
                      responseLength >= sizeof(xal_response_type_v01) &&
                      requestLength <= mostRequest;
    return good ? XAL_NO_ERR : XAL_CLIENT_PARAM_ERR;
}

}  // namespace wire
