#include "mm/ProfileDict.h"

#include <cstring>

#include "mm/MmNames.h"
#include "xal/wds_v01_fields.h"

using android::base::Error;
using android::base::Result;

namespace mm {

namespace {

struct KeyInfo {
    const char* key;
    char type;
};
constexpr KeyInfo kKeys[] = {
        {"profile-id", 'i'},
        {"profile-name", 's'},
        {"apn", 's'},
        {"ip-type", 'u'},
        {"allowed-auth", 'u'},
        {"user", 's'},
        {"password", 's'},
        {"apn-type", 'u'},
        {"profile-enabled", 'b'},
        {"access-type-preference", 'u'},
        {"roaming-allowance", 'u'},
        {"profile-source", 'u'},
};

// The modem's APN type bits and the interface's; 0: the interface has none.
struct ApnTypeBit {
    uint64_t modem;
    uint32_t manager;
    const char* name;
};
constexpr ApnTypeBit kApnTypes[] = {
        {0x1, kApnDefault, "default"},       {0x2, kApnIms, "ims"},     {0x4, kApnMms, "mms"},
        {0x8, kApnTethering, "dun"},         {0x10, 0, "supl"},         {0x20, 0, "hipri"},
        {0x40, kApnManagement, "fota"},      {0x80, 0, "cbs"},          {0x100, kApnInitial, "ia"},
        {0x200, kApnEmergency, "emergency"}, {0x400, kApnXcap, "xcap"}, {0x800, 0, "mcx"},
};
constexpr uint32_t managerApnBits() {
    uint32_t bits = 0;
    for (const auto& t : kApnTypes) bits |= t.manager;
    return bits;
}
constexpr uint32_t kMappedApnBits = managerApnBits();
constexpr uint32_t kMappedAuthBits = kAuthNone | kAuthPap | kAuthChap;

// The interface's keys the modem's records have no field for.
constexpr const char* kManagerOnlyKeys[] = {"access-type-preference", "roaming-allowance",
                                            "profile-source"};

template <typename T>
std::optional<T> get(const ProfileDict& dict, const char* key) {
    auto it = dict.find(key);
    if (it == dict.end()) return std::nullopt;
    if (const T* value = std::get_if<T>(&it->second)) return *value;
    return std::nullopt;
}

template <size_t N>
std::string text(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

template <size_t N>
void putText(uint8_t& valid, char (&field)[N], const std::string& value) {
    valid = 1;
    const size_t n = value.size() < N - 1 ? value.size() : N - 1;
    memcpy(field, value.data(), n);
    memset(field + n, 0, N - n);
}

// ip-type of a PDP type; nothing for one the interface cannot name (PPP).
std::optional<uint32_t> ipTypeOfPdp(uint32_t pdp) {
    switch (pdp) {
        case WDS_PDP_TYPE_PDP_IPV4_V01:
            return kIpV4;
        case WDS_PDP_TYPE_PDP_IPV6_V01:
            return kIpV6;
        case WDS_PDP_TYPE_PDP_IPV4V6_V01:
            return kIpV4V6;
        default:
            return std::nullopt;
    }
}
std::optional<uint32_t> ipTypeOfCommon(uint32_t common) {
    switch (common) {
        case WDS_COMMON_PDP_TYPE_PDP_IPV4_V01:
            return kIpV4;
        case WDS_COMMON_PDP_TYPE_PDP_IPV6_V01:
            return kIpV6;
        case WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01:
            return kIpV4V6;
        default:
            return std::nullopt;
    }
}
std::optional<wds_pdp_type_enum_v01> pdpOfIpType(uint32_t ipType) {
    switch (ipType) {
        case kIpV4:
            return WDS_PDP_TYPE_PDP_IPV4_V01;
        case kIpV6:
            return WDS_PDP_TYPE_PDP_IPV6_V01;
        case kIpV4V6:
            return WDS_PDP_TYPE_PDP_IPV4V6_V01;
        default:
            return std::nullopt;
    }
}
wds_common_pdp_type_enum_v01 commonOfIpType(uint32_t ipType) {
    switch (ipType) {
        case kIpV4:
            return WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
        case kIpV6:
            return WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
        case kIpV4V6:
            return WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01;
        default:
            return WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
    }
}

std::string ipTypeName(std::optional<uint32_t> ipType) {
    switch (ipType.value_or(0)) {
        case kIpV4:
            return "IPv4";
        case kIpV6:
            return "IPv6";
        case kIpV4V6:
            return "IPv4v6";
        default:
            return "none";
    }
}

uint32_t authOfPreference(uint8_t preference) {
    uint32_t auth = 0;
    if (preference & 0x1) auth |= kAuthPap;
    if (preference & 0x2) auth |= kAuthChap;
    return auth == 0 ? kAuthNone : auth;
}
uint8_t preferenceOfAuth(uint32_t auth) {
    return static_cast<uint8_t>(((auth & kAuthPap) ? 0x1 : 0) | ((auth & kAuthChap) ? 0x2 : 0));
}

uint64_t modemApnTypes(uint32_t manager) {
    uint64_t modem = 0;
    for (const auto& t : kApnTypes) {
        if (t.manager != 0 && (manager & t.manager)) modem |= t.modem;
    }
    return modem;
}

// The interface's bits of the modem's APN types, or the name of one it has
// no bit for.
Result<uint32_t> managerApnTypes(uint64_t modem) {
    uint32_t manager = 0;
    for (const auto& t : kApnTypes) {
        if (!(modem & t.modem)) continue;
        if (t.manager == 0) return Error() << "apn_type_mask (" << t.name << ")";
        manager |= t.manager;
        modem &= ~t.modem;
    }
    if (modem != 0) return Error() << "apn_type_mask (bits 0x" << std::hex << modem << ")";
    return manager;
}

bool hasText(uint8_t valid, const char* field, size_t size) {
    return valid && strnlen(field, size) != 0;
}

}  // namespace

char keyType(const std::string& key) {
    for (const auto& k : kKeys) {
        if (key == k.key) return k.type;
    }
    return 0;
}

Result<void> checkDict(const ProfileDict& dict) {
    for (const auto& [key, value] : dict) {
        const char type = keyType(key);
        if (type == 0) return Error() << "unknown key '" << key << "'";
        const bool fits = (type == 'i' && std::holds_alternative<int32_t>(value)) ||
                          (type == 'u' && std::holds_alternative<uint32_t>(value)) ||
                          (type == 'b' && std::holds_alternative<bool>(value)) ||
                          (type == 's' && std::holds_alternative<std::string>(value));
        if (!fits) return Error() << "key '" << key << "' is not of type '" << type << "'";
    }
    return {};
}

std::optional<int32_t> profileIndex(const ProfileDict& dict) {
    return get<int32_t>(dict, kProfileIdKey);
}

bool isClearedSlot(const ProfileDict& dict) {
    // A profile may have an empty APN (the network gives one at attach);
    // a cleared slot has nothing else either: no name, IP type or types.
    const auto apn = get<std::string>(dict, "apn");
    const auto name = get<std::string>(dict, "profile-name");
    return (!apn || apn->empty()) && (!name || name->empty()) && dict.count("ip-type") == 0 &&
           get<uint32_t>(dict, "apn-type").value_or(0) == 0;
}

Settings settingsFromDict(const ProfileDict& dict) {
    Settings s = {};
    if (auto name = get<std::string>(dict, "profile-name")) {
        putText(s.profile_name_valid, s.profile_name, *name);
    }
    if (auto apn = get<std::string>(dict, "apn")) putText(s.apn_name_valid, s.apn_name, *apn);
    if (auto ipType = get<uint32_t>(dict, "ip-type")) {
        if (auto pdp = pdpOfIpType(*ipType)) {
            s.pdp_type_valid = 1;
            s.pdp_type = *pdp;
            s.lte_roaming_pdp_type_valid = s.umts_roaming_pdp_type_valid = 1;
            s.lte_roaming_pdp_type = s.umts_roaming_pdp_type = commonOfIpType(*ipType);
        }
    }
    if (auto auth = get<uint32_t>(dict, "allowed-auth")) {
        s.authentication_preference_valid = 1;
        s.authentication_preference = preferenceOfAuth(*auth);
    }
    if (auto user = get<std::string>(dict, "user")) putText(s.username_valid, s.username, *user);
    if (auto password = get<std::string>(dict, "password")) {
        putText(s.password_valid, s.password, *password);
    }
    if (auto types = get<uint32_t>(dict, "apn-type")) {
        s.apn_type_mask_valid = 1;
        s.apn_type_mask = modemApnTypes(*types);
        s.support_emergency_calls_valid = 1;
        s.support_emergency_calls = (*types & kApnEmergency) ? 1 : 0;
    }
    if (auto enabled = get<bool>(dict, "profile-enabled")) {
        s.apn_disabled_flag_valid = 1;
        s.apn_disabled_flag = *enabled ? 0 : 1;
    }
    s.persistent_valid = 1;
    s.persistent = 1;
    return s;
}

Result<ProfileDict> mergeRequest(const Settings& r, const ProfileDict& stored) {
    ProfileDict dict = stored;
    if (r.profile_name_valid) dict["profile-name"] = text(r.profile_name);
    if (r.apn_name_valid) dict["apn"] = text(r.apn_name);
    if (r.username_valid) dict["user"] = text(r.username);
    if (r.password_valid) dict["password"] = text(r.password);
    if (r.authentication_preference_valid) {
        if (r.authentication_preference > 0x3) return Error() << "authentication_preference";
        dict["allowed-auth"] = authOfPreference(r.authentication_preference);
    }
    if (r.apn_disabled_flag_valid) dict["profile-enabled"] = r.apn_disabled_flag == 0;

    // The home IP type: an override stands for it (the record then says
    // IPv4v6 and the roaming types differ); the interface has one IP type,
    // so a roaming type unlike it cannot be held.
    std::optional<uint32_t> home = get<uint32_t>(stored, "ip-type");
    if (r.pdp_type_valid) {
        home = ipTypeOfPdp(r.pdp_type);
        if (!home) return Error() << "pdp_type (" << r.pdp_type << ")";
    }
    if (r.override_home_pdp_type_valid &&
        r.override_home_pdp_type != WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01) {
        home = ipTypeOfCommon(r.override_home_pdp_type);
        if (!home) return Error() << "override_home_pdp_type (" << r.override_home_pdp_type << ")";
    }
    const auto checkRoaming = [&](uint8_t valid, uint32_t type, const char* field) -> Result<void> {
        if (!valid || type == WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01) return {};
        if (home && ipTypeOfCommon(type) == home) return {};
        return Error() << field << " (" << ipTypeName(ipTypeOfCommon(type))
                       << ", unlike the home IP type " << ipTypeName(home) << ")";
    };
    if (auto ok = checkRoaming(r.lte_roaming_pdp_type_valid, r.lte_roaming_pdp_type,
                               "lte_roaming_pdp_type");
        !ok.ok()) {
        return ok.error();
    }
    if (auto ok = checkRoaming(r.umts_roaming_pdp_type_valid, r.umts_roaming_pdp_type,
                               "umts_roaming_pdp_type");
        !ok.ok()) {
        return ok.error();
    }
    if (home) dict["ip-type"] = *home;

    uint32_t types = get<uint32_t>(stored, "apn-type").value_or(0);
    const bool typesWritten = r.apn_type_mask_valid || r.support_emergency_calls_valid;
    if (r.apn_type_mask_valid) {
        auto mapped = managerApnTypes(r.apn_type_mask);
        if (!mapped.ok()) return mapped.error();
        // Types only the interface knows (voice, private, ...) stay.
        types = (types & ~kMappedApnBits) | *mapped;
    }
    if (r.support_emergency_calls_valid) {
        types = r.support_emergency_calls ? (types | kApnEmergency) : (types & ~kApnEmergency);
    }
    if (typesWritten) dict["apn-type"] = types;

    // Fields with no key: only the value that means "nothing" passes.
    const struct {
        bool set;
        const char* field;
    } unheld[] = {
            {r.apn_class_valid && r.apn_class != 0, "apn_class"},
            {r.max_pdn_conn_per_block_valid && r.max_pdn_conn_per_block != 0,
             "max_pdn_conn_per_block"},
            {r.max_pdn_conn_timer_valid && r.max_pdn_conn_timer != 0, "max_pdn_conn_timer"},
            {r.pdn_req_wait_interval_valid && r.pdn_req_wait_interval != 0,
             "pdn_req_wait_interval"},
            {r.clat_enabled_valid && r.clat_enabled != 0, "clat_enabled"},
            {hasText(r.apn_string_valid, r.apn_string, sizeof(r.apn_string)), "apn_string"},
            {r.pdn_type_valid != 0, "pdn_type"},
            {r.auth_protocol_valid && r.auth_protocol != WDS_PROFILE_AUTH_PROTOCOL_NONE_V01,
             "auth_protocol"},
            {hasText(r.user_id_valid, r.user_id, sizeof(r.user_id)), "user_id"},
            {hasText(r.auth_password_valid, r.auth_password, sizeof(r.auth_password)),
             "auth_password"},
            {r.apn_class_3gpp2_valid && r.apn_class_3gpp2 != 0, "apn_class_3gpp2"},
            {r.pdn_level_auth_protocol_valid &&
                     r.pdn_level_auth_protocol != WDS_PROFILE_AUTH_PROTOCOL_NONE_V01,
             "pdn_level_auth_protocol"},
            {hasText(r.pdn_level_user_id_valid, r.pdn_level_user_id, sizeof(r.pdn_level_user_id)),
             "pdn_level_user_id"},
            {hasText(r.pdn_level_auth_password_valid, r.pdn_level_auth_password,
                     sizeof(r.pdn_level_auth_password)),
             "pdn_level_auth_password"},
    };
    for (const auto& field : unheld) {
        if (field.set) return Error() << field.field;
    }
    return dict;
}

std::optional<std::string> firstNotHeld(const ProfileDict& written, const ProfileDict& stored) {
    for (const auto& [key, value] : written) {
        if (key == kProfileIdKey || key == "profile-name") continue;
        auto it = stored.find(key);
        if (it == stored.end() || it->second != value) return key;
    }
    return std::nullopt;
}

ProfileDict dictFromSettings(const Settings& s, int32_t index, const ProfileDict& extra) {
    ProfileDict dict = extra;
    dict.erase("apn-type");
    dict.erase("allowed-auth");
    dict[kProfileIdKey] = index;
    if (s.profile_name_valid) dict["profile-name"] = text(s.profile_name);
    if (s.apn_name_valid) dict["apn"] = text(s.apn_name);
    if (s.pdp_type_valid) {
        if (auto ipType = ipTypeOfPdp(s.pdp_type)) dict["ip-type"] = *ipType;
    }
    if (s.authentication_preference_valid || extra.count("allowed-auth")) {
        uint32_t auth = get<uint32_t>(extra, "allowed-auth").value_or(0);
        if (s.authentication_preference_valid && (s.authentication_preference != 0 || auth == 0)) {
            auth |= authOfPreference(s.authentication_preference);
        }
        dict["allowed-auth"] = auth;
    }
    if (s.username_valid) dict["user"] = text(s.username);
    if (s.password_valid) dict["password"] = text(s.password);
    if (s.apn_type_mask_valid || s.support_emergency_calls_valid || extra.count("apn-type")) {
        uint32_t types = get<uint32_t>(extra, "apn-type").value_or(0);
        if (s.apn_type_mask_valid) {
            for (const auto& t : kApnTypes) {
                if (s.apn_type_mask & t.modem) types |= t.manager;
            }
        }
        if (s.support_emergency_calls_valid && s.support_emergency_calls) types |= kApnEmergency;
        dict["apn-type"] = types;
    }
    if (s.apn_disabled_flag_valid) dict["profile-enabled"] = s.apn_disabled_flag == 0;
    return dict;
}

Settings applyDict(const Settings& stored, const ProfileDict& dict, ProfileDict& extra) {
    Settings s = stored;
    // Every field the interface has a key for is replaced: cleared first.
    s.profile_name_valid = s.apn_name_valid = s.pdp_type_valid = 0;
    s.authentication_preference_valid = s.username_valid = s.password_valid = 0;
    s.apn_type_mask_valid = s.support_emergency_calls_valid = s.apn_disabled_flag_valid = 0;
    s.lte_roaming_pdp_type_valid = s.umts_roaming_pdp_type_valid = 0;
    s.override_home_pdp_type_valid = 0;
    memset(s.profile_name, 0, sizeof(s.profile_name));
    memset(s.apn_name, 0, sizeof(s.apn_name));
    memset(s.username, 0, sizeof(s.username));
    memset(s.password, 0, sizeof(s.password));
    const Settings read = settingsFromDict(dict);
    wds::copyValidFields(s, read);
    s.lte_roaming_pdp_type_valid = s.umts_roaming_pdp_type_valid = 0;

    extra.clear();
    for (const char* key : kManagerOnlyKeys) {
        if (auto it = dict.find(key); it != dict.end()) extra[key] = it->second;
    }
    if (auto types = get<uint32_t>(dict, "apn-type"); types && (*types & ~kMappedApnBits)) {
        extra["apn-type"] = *types & ~kMappedApnBits;
    }
    if (auto auth = get<uint32_t>(dict, "allowed-auth"); auth && (*auth & ~kMappedAuthBits)) {
        extra["allowed-auth"] = *auth & ~kMappedAuthBits;
    }
    return s;
}

}  // namespace mm
