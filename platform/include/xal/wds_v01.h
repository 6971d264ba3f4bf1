/*
 * Wireless data service (WDS) message records and enumerations.
 *
 * Plain C records in natural alignment. Every optional field is a uint8_t
 * NAME_valid flag immediately followed by its value. Sizes and the offsets
 * that the library relies on are pinned by static assertions below.
 */
#ifndef WDS_V01_H
#define WDS_V01_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
/* In C++ the enumerations get a fixed 32-bit type, so that any value a peer
 * sends is a valid value of the type. */
#define WDS_ENUM_TYPE : int32_t
#else
#define WDS_ENUM_TYPE
#endif

/* Message ids. Requests and their responses share an id. */
#define XAL_WDS_INDICATION_REGISTER_REQ_V01 0x0003
#define XAL_WDS_CREATE_PROFILE_REQ_V01 0x0027
#define XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 0x0028
#define XAL_WDS_DELETE_PROFILE_REQ_V01 0x0029
#define XAL_WDS_GET_PROFILE_LIST_REQ_V01 0x002A
#define XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01 0x002B
#define XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01 0x00A7
#define XAL_WDS_PROFILE_CHANGED_IND_V01 0x00A8
#define XAL_WDS_BIND_SUBSCRIPTION_REQ_V01 0x00AF

/* Array bounds. */
#define WDS_PROFILE_NAME_MAX_V01 50
#define WDS_APN_NAME_MAX_V01 150
#define WDS_USER_NAME_MAX_V01 127
#define WDS_PASSWORD_MAX_V01 127
#define WDS_PROFILE_LIST_MAX_V01 255
#define WDS_PROFILE_EVENT_LIST_MAX_V01 255

typedef enum WDS_ENUM_TYPE {
    WDS_PROFILE_TYPE_3GPP_V01 = 0,
    WDS_PROFILE_TYPE_3GPP2_V01 = 1,
    WDS_PROFILE_TYPE_EPC_V01 = 2,
    WDS_PROFILE_TYPE_ALL_V01 = 0xFF,
    WDS_PROFILE_TYPE_ENUM_MAX_V01 = 0x7FFFFFFF
} wds_profile_type_enum_v01;

typedef enum WDS_ENUM_TYPE {
    WDS_PROFILE_PDN_TYPE_IPV4_V01 = 0,
    WDS_PROFILE_PDN_TYPE_IPV6_V01 = 1,
    WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01 = 2,
    WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01 = 3,
    WDS_PROFILE_PDN_TYPE_ENUM_MAX_V01 = 0x7FFFFFFF
} wds_profile_pdn_type_enum_v01;

typedef enum WDS_ENUM_TYPE {
    WDS_PDP_TYPE_PDP_IPV4_V01 = 0,
    WDS_PDP_TYPE_PDP_PPP_V01 = 1,
    WDS_PDP_TYPE_PDP_IPV6_V01 = 2,
    WDS_PDP_TYPE_PDP_IPV4V6_V01 = 3,
    WDS_PDP_TYPE_ENUM_MAX_V01 = 0x7FFFFFFF
} wds_pdp_type_enum_v01;

typedef enum WDS_ENUM_TYPE {
    WDS_COMMON_PDP_TYPE_PDP_IPV4_V01 = 0,
    WDS_COMMON_PDP_TYPE_PDP_IPV6_V01 = 1,
    WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01 = 2,
    WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01 = 0xFF,
    WDS_COMMON_PDP_TYPE_ENUM_MAX_V01 = 0x7FFFFFFF
} wds_common_pdp_type_enum_v01;

typedef enum WDS_ENUM_TYPE {
    WDS_PROFILE_AUTH_PROTOCOL_NONE_V01 = 0,
    WDS_PROFILE_AUTH_PROTOCOL_PAP_V01 = 1,
    WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01 = 2,
    WDS_PROFILE_AUTH_PROTOCOL_PAP_CHAP_V01 = 3,
    WDS_PROFILE_AUTH_PROTOCOL_ENUM_MAX_V01 = 0x7FFFFFFF
} wds_profile_auth_protocol_enum_v01;

typedef enum WDS_ENUM_TYPE {
    WDS_PROFILE_EVENT_CREATE_V01 = 1,
    WDS_PROFILE_EVENT_DELETE_V01 = 2,
    WDS_PROFILE_EVENT_MODIFY_V01 = 3,
    WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01 = 4,
    WDS_PROFILE_EVENT_PROFILE_READY_V01 = 5,
    WDS_PROFILE_CHANGED_EVENT_ENUM_MAX_V01 = 0x7FFFFFFF
} wds_profile_changed_event_enum_v01;

/* Standard response header: result 0 success, 1 failure; error the reason. */
typedef struct {
    uint32_t result;
    uint32_t error;
} xal_response_type_v01;

typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
} wds_profile_identifier_type_v01;

typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
    char profile_name[WDS_PROFILE_NAME_MAX_V01 + 1];
} wds_profile_info_type_v01;

typedef struct {
    wds_profile_type_enum_v01 profile_type;
    uint8_t profile_index;
    wds_profile_changed_event_enum_v01 profile_change_evt;
} wds_profile_changed_ind_type_v01;

/* The profile settings fields shared by the create request, the modify
 * request and the settings response. The persistence flag (field 7) sits
 * between the two halves and is absent from the modify request. */
#define WDS_PROFILE_SETTINGS_HEAD_V01                \
    uint8_t profile_name_valid;                      \
    char profile_name[WDS_PROFILE_NAME_MAX_V01 + 1]; \
    uint8_t pdp_type_valid;                          \
    wds_pdp_type_enum_v01 pdp_type;                  \
    uint8_t apn_name_valid;                          \
    char apn_name[WDS_APN_NAME_MAX_V01 + 1];         \
    uint8_t username_valid;                          \
    char username[WDS_USER_NAME_MAX_V01 + 1];        \
    uint8_t password_valid;                          \
    char password[WDS_PASSWORD_MAX_V01 + 1];         \
    uint8_t authentication_preference_valid;         \
    uint8_t authentication_preference;

#define WDS_PROFILE_SETTINGS_PERSISTENT_V01 \
    uint8_t persistent_valid;               \
    uint8_t persistent;

#define WDS_PROFILE_SETTINGS_TAIL_V01                           \
    uint8_t apn_disabled_flag_valid;                            \
    uint8_t apn_disabled_flag;                                  \
    uint8_t apn_class_valid;                                    \
    uint8_t apn_class;                                          \
    uint8_t support_emergency_calls_valid;                      \
    uint8_t support_emergency_calls;                            \
    uint8_t override_home_pdp_type_valid;                       \
    wds_common_pdp_type_enum_v01 override_home_pdp_type;        \
    uint8_t lte_roaming_pdp_type_valid;                         \
    wds_common_pdp_type_enum_v01 lte_roaming_pdp_type;          \
    uint8_t umts_roaming_pdp_type_valid;                        \
    wds_common_pdp_type_enum_v01 umts_roaming_pdp_type;         \
    uint8_t max_pdn_conn_per_block_valid;                       \
    uint16_t max_pdn_conn_per_block;                            \
    uint8_t max_pdn_conn_timer_valid;                           \
    uint16_t max_pdn_conn_timer;                                \
    uint8_t pdn_req_wait_interval_valid;                        \
    uint16_t pdn_req_wait_interval;                             \
    uint8_t apn_type_mask_valid;                                \
    uint64_t apn_type_mask;                                     \
    uint8_t clat_enabled_valid;                                 \
    uint8_t clat_enabled;                                       \
    uint8_t apn_string_valid;                                   \
    char apn_string[WDS_APN_NAME_MAX_V01 + 1];                  \
    uint8_t pdn_type_valid;                                     \
    wds_profile_pdn_type_enum_v01 pdn_type;                     \
    uint8_t auth_protocol_valid;                                \
    wds_profile_auth_protocol_enum_v01 auth_protocol;           \
    uint8_t user_id_valid;                                      \
    char user_id[WDS_USER_NAME_MAX_V01 + 1];                    \
    uint8_t auth_password_valid;                                \
    char auth_password[WDS_PASSWORD_MAX_V01 + 1];               \
    uint8_t apn_class_3gpp2_valid;                              \
    uint8_t apn_class_3gpp2;                                    \
    uint8_t pdn_level_auth_protocol_valid;                      \
    wds_profile_auth_protocol_enum_v01 pdn_level_auth_protocol; \
    uint8_t pdn_level_user_id_valid;                            \
    char pdn_level_user_id[WDS_USER_NAME_MAX_V01 + 1];          \
    uint8_t pdn_level_auth_password_valid;                      \
    char pdn_level_auth_password[WDS_PASSWORD_MAX_V01 + 1];

typedef struct {
    wds_profile_type_enum_v01 profile_type;
    WDS_PROFILE_SETTINGS_HEAD_V01
    WDS_PROFILE_SETTINGS_PERSISTENT_V01
    WDS_PROFILE_SETTINGS_TAIL_V01
    uint8_t reserved[2018];
} wds_create_profile_req_msg_v01;

typedef struct {
    xal_response_type_v01 resp;
    wds_profile_identifier_type_v01 profile;
    uint8_t extended_error_code_valid;
    uint32_t extended_error_code;
} wds_create_profile_resp_msg_v01;

typedef struct {
    wds_profile_identifier_type_v01 profile;
    WDS_PROFILE_SETTINGS_HEAD_V01
    WDS_PROFILE_SETTINGS_TAIL_V01
    uint8_t reserved[2026];
} wds_modify_profile_settings_req_msg_v01;

typedef struct {
    xal_response_type_v01 resp;
    uint8_t extended_error_code_valid;
    uint32_t extended_error_code;
} wds_modify_profile_settings_resp_msg_v01;

typedef struct {
    wds_profile_identifier_type_v01 profile;
} wds_delete_profile_req_msg_v01;

typedef struct {
    xal_response_type_v01 resp;
    uint8_t extended_error_code_valid;
    uint32_t extended_error_code;
} wds_delete_profile_resp_msg_v01;

typedef struct {
    uint8_t profile_type_valid;
    wds_profile_type_enum_v01 profile_type;
    uint8_t reserved[176];
} wds_get_profile_list_req_msg_v01;

typedef struct {
    xal_response_type_v01 resp;
    uint32_t profile_list_len;
    wds_profile_info_type_v01 profile_list[WDS_PROFILE_LIST_MAX_V01];
    uint8_t extended_error_code_valid;
    uint32_t extended_error_code;
} wds_get_profile_list_resp_msg_v01;

typedef struct {
    wds_profile_identifier_type_v01 profile;
} wds_get_profile_settings_req_msg_v01;

typedef struct {
    xal_response_type_v01 resp;
    WDS_PROFILE_SETTINGS_HEAD_V01
    WDS_PROFILE_SETTINGS_PERSISTENT_V01
    WDS_PROFILE_SETTINGS_TAIL_V01
    uint8_t reserved[2034];
} wds_get_profile_settings_resp_msg_v01;

typedef struct {
    uint32_t subscription;
} wds_bind_subscription_req_msg_v01;

typedef struct {
    uint8_t reserved_head[16];
    uint8_t report_profile_changed_events_valid;
    uint8_t report_profile_changed_events;
    uint8_t reserved_tail[380];
} wds_indication_register_req_msg_v01;

typedef struct {
    uint8_t profile_event_register_valid;
    uint32_t profile_event_register_len;
    wds_profile_identifier_type_v01 profile_event_register[WDS_PROFILE_EVENT_LIST_MAX_V01];
    uint8_t report_all_profiles_valid;
    uint8_t report_all_profiles;
} wds_configure_profile_event_list_req_msg_v01;

/* Answer to the indication register, event list and bind requests. */
typedef struct {
    xal_response_type_v01 resp;
} wds_generic_resp_msg_v01;

/* Decoded profile-changed indication (0xA8). */
typedef struct {
    uint8_t profile_changed_ind_valid;
    wds_profile_changed_ind_type_v01 profile_changed_ind;
} wds_profile_changed_ind_msg_v01;

#ifdef __cplusplus
#define WDS_STATIC_ASSERT static_assert
#else
#define WDS_STATIC_ASSERT _Static_assert
#endif

WDS_STATIC_ASSERT(sizeof(wds_profile_type_enum_v01) == 4, "32-bit enumeration");
WDS_STATIC_ASSERT(sizeof(wds_profile_changed_event_enum_v01) == 4, "32-bit enumeration");
WDS_STATIC_ASSERT(sizeof(xal_response_type_v01) == 8, "response header");
WDS_STATIC_ASSERT(sizeof(wds_profile_identifier_type_v01) == 8, "profile identifier");
WDS_STATIC_ASSERT(sizeof(wds_profile_info_type_v01) == 56, "profile info");
WDS_STATIC_ASSERT(sizeof(wds_profile_changed_ind_type_v01) == 12, "changed ind type");
WDS_STATIC_ASSERT(sizeof(wds_create_profile_req_msg_v01) == 3248, "create request");
WDS_STATIC_ASSERT(sizeof(wds_create_profile_resp_msg_v01) == 24, "create response");
WDS_STATIC_ASSERT(offsetof(wds_create_profile_resp_msg_v01, profile.profile_type) == 8,
                  "created profile type");
WDS_STATIC_ASSERT(offsetof(wds_create_profile_resp_msg_v01, profile.profile_index) == 12,
                  "created profile index");
WDS_STATIC_ASSERT(sizeof(wds_modify_profile_settings_req_msg_v01) == 3256, "modify request");
WDS_STATIC_ASSERT(sizeof(wds_modify_profile_settings_resp_msg_v01) == 16, "modify response");
WDS_STATIC_ASSERT(sizeof(wds_delete_profile_req_msg_v01) == 8, "delete request");
WDS_STATIC_ASSERT(sizeof(wds_delete_profile_resp_msg_v01) == 16, "delete response");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_list_req_msg_v01) == 184, "list request");
WDS_STATIC_ASSERT(offsetof(wds_get_profile_list_req_msg_v01, profile_type) == 4, "list type");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_list_resp_msg_v01) == 14300, "list response");
WDS_STATIC_ASSERT(offsetof(wds_get_profile_list_resp_msg_v01, profile_list_len) == 8, "list count");
WDS_STATIC_ASSERT(offsetof(wds_get_profile_list_resp_msg_v01, profile_list) == 12, "list entries");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_settings_req_msg_v01) == 8, "settings request");
WDS_STATIC_ASSERT(sizeof(wds_get_profile_settings_resp_msg_v01) == 3264, "settings response");
WDS_STATIC_ASSERT(sizeof(wds_bind_subscription_req_msg_v01) == 4, "bind request");
WDS_STATIC_ASSERT(sizeof(wds_indication_register_req_msg_v01) == 398, "indication register");
WDS_STATIC_ASSERT(offsetof(wds_indication_register_req_msg_v01,
                           report_profile_changed_events_valid) == 16,
                  "indication register valid flag");
WDS_STATIC_ASSERT(offsetof(wds_indication_register_req_msg_v01, report_profile_changed_events) ==
                          17,
                  "indication register value");
WDS_STATIC_ASSERT(sizeof(wds_configure_profile_event_list_req_msg_v01) == 2052, "event list");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01,
                           profile_event_register_len) == 4,
                  "event list length");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01, profile_event_register) ==
                          8,
                  "event list entries");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01,
                           report_all_profiles_valid) == 2048,
                  "event list report-all flag");
WDS_STATIC_ASSERT(offsetof(wds_configure_profile_event_list_req_msg_v01, report_all_profiles) ==
                          2049,
                  "event list report-all value");
WDS_STATIC_ASSERT(sizeof(wds_generic_resp_msg_v01) == 8, "generic response");
WDS_STATIC_ASSERT(sizeof(wds_profile_changed_ind_msg_v01) == 16, "changed indication");

#undef WDS_STATIC_ASSERT
#undef WDS_ENUM_TYPE

#ifdef __cplusplus
}
#endif

#endif /* WDS_V01_H */
