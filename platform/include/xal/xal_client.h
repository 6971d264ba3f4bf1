/*
 * Modem messaging client interface.
 *
 * Synchronous requests to a modem service, and service, error and indication
 * callbacks that run on threads of the implementation, never on the caller's
 * thread inside an API call. When xal_client_release returns, no callback for
 * that handle is running or will run again.
 */
#ifndef XAL_CLIENT_H
#define XAL_CLIENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct xal_client_struct* xal_client_type;
typedef struct xal_idl_service_object* xal_idl_service_object_type;

typedef int xal_client_error_type;
#define XAL_NO_ERR 0
#define XAL_INTERNAL_ERR (-1)
#define XAL_SERVICE_ERR (-2)         /* service absent or down */
#define XAL_TIMEOUT_ERR (-3)         /* no answer within the time-out */
#define XAL_CLIENT_INVALID_CLNT (-4) /* null or released handle */
#define XAL_CLIENT_PARAM_ERR (-5)    /* bad pointer or length */
#define XAL_DECODE_ERR (-6)          /* malformed encoded message */

typedef struct {
    unsigned char reserved[64]; /* callers zero it */
} xal_client_os_params;

typedef struct {
    unsigned char reserved[16];
} xal_service_info;

typedef enum {
    XAL_CLIENT_SERVICE_COUNT_INC = 0, /* the service came up */
    XAL_CLIENT_SERVICE_COUNT_DEC = 1
} xal_client_notify_event_type;

typedef enum {
    XAL_IDL_REQUEST = 0,
    XAL_IDL_RESPONSE = 1,
    XAL_IDL_INDICATION = 2
} xal_idl_type_of_msg_type;

typedef void (*xal_client_notify_cb)(xal_client_type user_handle,
                                     xal_idl_service_object_type service_obj,
                                     xal_client_notify_event_type service_event,
                                     void* notify_cb_data);
typedef void (*xal_client_error_cb)(xal_client_type user_handle, xal_client_error_type error,
                                    void* err_cb_data);
typedef void (*xal_client_ind_cb)(xal_client_type user_handle, unsigned int msg_id, void* ind_buf,
                                  unsigned int ind_buf_len, void* ind_cb_data);

xal_client_error_type xal_client_notifier_init(xal_idl_service_object_type service_obj,
                                               xal_client_os_params* os_params,
                                               xal_client_type* user_handle);

/* The notify callback is called with event 0 once the service is up (at
 * once, on the implementation's thread, if it already is), and again each
 * time it comes back up after going down. */
xal_client_error_type xal_client_register_notify_cb(xal_client_type user_handle,
                                                    xal_client_notify_cb notify_cb,
                                                    void* notify_cb_data);

/* Fails with XAL_SERVICE_ERR while the service is down. */
xal_client_error_type xal_client_get_any_service(xal_idl_service_object_type service_obj,
                                                 xal_service_info* service_info);

xal_client_error_type xal_client_init(xal_service_info* service_info,
                                      xal_idl_service_object_type service_obj,
                                      xal_client_ind_cb ind_cb, void* ind_cb_data,
                                      xal_client_os_params* os_params,
                                      xal_client_type* user_handle);

/* Called once when the service goes down; from then on every send on the
 * client fails with XAL_SERVICE_ERR until it is released. */
xal_client_error_type xal_client_register_error_cb(xal_client_type user_handle,
                                                   xal_client_error_cb err_cb, void* err_cb_data);

/* XAL_NO_ERR when the modem answered (the response's result field says
 * whether it accepted), XAL_TIMEOUT_ERR when it did not in time. */
xal_client_error_type xal_client_send_msg_sync(xal_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs);

/* Turns an encoded message into its record; XAL_DECODE_ERR when malformed. */
xal_client_error_type xal_client_message_decode(xal_client_type user_handle,
                                                xal_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* p_src,
                                                unsigned int src_len, void* p_dst,
                                                unsigned int dst_len);

xal_client_error_type xal_client_release(xal_client_type user_handle);

xal_idl_service_object_type wds_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version);

#ifdef __cplusplus
}
#endif

#endif /* XAL_CLIENT_H */
