#include "ModemTable.h"

#include <cstring>

namespace xalsim {

Settings emptySettings() {
    Settings s;
    memset(&s, 0, sizeof(s));
    return s;
}

Settings make3gppSettings(const std::string& profileName, const std::string& apn,
                          wds_pdp_type_enum_v01 pdpType, uint64_t apnTypeMask, bool persistent) {
    Settings s = emptySettings();
    setText(s.profile_name_valid, s.profile_name, profileName);
    setText(s.apn_name_valid, s.apn_name, apn);
    s.pdp_type_valid = 1;
    s.pdp_type = pdpType;
    s.apn_type_mask_valid = 1;
    s.apn_type_mask = apnTypeMask;
    s.persistent_valid = 1;
    s.persistent = persistent ? 1 : 0;
    return s;
}

Settings make3gpp2Settings(const std::string& apn, wds_profile_pdn_type_enum_v01 pdnType,
                           bool persistent) {
    Settings s = emptySettings();
    setText(s.apn_string_valid, s.apn_string, apn);
    s.pdn_type_valid = 1;
    s.pdn_type = pdnType;
    s.persistent_valid = 1;
    s.persistent = persistent ? 1 : 0;
    return s;
}

Table factoryTable() {
    auto classed = [](Settings s, uint8_t apnClass) {
        s.apn_class_valid = 1;
        s.apn_class = apnClass;
        return s;
    };
    Table table;
    // APN type masks in the modem's encoding: default and supl; ims; mms.
    table[{WDS_PROFILE_TYPE_3GPP_V01, 1}] = classed(
            make3gppSettings("internet", "internet", WDS_PDP_TYPE_PDP_IPV4V6_V01, 0x1 | 0x10, true),
            3);
    table[{WDS_PROFILE_TYPE_3GPP_V01, 2}] =
            classed(make3gppSettings("ims", "ims", WDS_PDP_TYPE_PDP_IPV4V6_V01, 0x2, true), 1);
    table[{WDS_PROFILE_TYPE_3GPP_V01, 3}] =
            classed(make3gppSettings("mms", "mms", WDS_PDP_TYPE_PDP_IPV4_V01, 0x4, true), 4);
    table[{WDS_PROFILE_TYPE_3GPP2_V01, kFirst3gpp2Index}] =
            make3gpp2Settings("cdma.internet", WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01, true);
    return table;
}

void keepPersistent(Table& table) {
    for (auto it = table.begin(); it != table.end();) {
        it = it->second.persistent_valid && it->second.persistent ? std::next(it) : table.erase(it);
    }
}

const char* typeName(int32_t profileType) {
    return profileType == WDS_PROFILE_TYPE_3GPP2_V01 ? "3gpp2" : "3gpp";
}

}  // namespace xalsim
