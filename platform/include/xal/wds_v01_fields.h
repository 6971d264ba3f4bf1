// The settings fields of the modem's profile records, in record order, by
// kind: STR for character arrays, NUM for integers and enumerations. The
// create and modify requests and the settings response all carry them (the
// persistence flag, which a modify request lacks, is handled on its own).
#pragma once

#include <cstring>

#define WDS_V01_SETTINGS_FIELDS(X)    \
    X(STR, profile_name)              \
    X(NUM, pdp_type)                  \
    X(STR, apn_name)                  \
    X(STR, username)                  \
    X(STR, password)                  \
    X(NUM, authentication_preference) \
    X(NUM, apn_disabled_flag)         \
    X(NUM, apn_class)                 \
    X(NUM, support_emergency_calls)   \
    X(NUM, override_home_pdp_type)    \
    X(NUM, lte_roaming_pdp_type)      \
    X(NUM, umts_roaming_pdp_type)     \
    X(NUM, max_pdn_conn_per_block)    \
    X(NUM, max_pdn_conn_timer)        \
    X(NUM, pdn_req_wait_interval)     \
    X(NUM, apn_type_mask)             \
    X(NUM, clat_enabled)              \
    X(STR, apn_string)                \
    X(NUM, pdn_type)                  \
    X(NUM, auth_protocol)             \
    X(STR, user_id)                   \
    X(STR, auth_password)             \
    X(NUM, apn_class_3gpp2)           \
    X(NUM, pdn_level_auth_protocol)   \
    X(STR, pdn_level_user_id)         \
    X(STR, pdn_level_auth_password)

namespace wds {

// Copies every settings field whose valid flag is set in from.
template <typename To, typename From>
void copyValidFields(To& to, const From& from) {
#define WDS_V01_COPY(kind, name)                                    \
    if (from.name##_valid) {                                        \
        to.name##_valid = 1;                                        \
        static_assert(sizeof(to.name) == sizeof(from.name), #name); \
        memcpy(&to.name, &from.name, sizeof(to.name));              \
    }
    WDS_V01_SETTINGS_FIELDS(WDS_V01_COPY)
#undef WDS_V01_COPY
}

}  // namespace wds
