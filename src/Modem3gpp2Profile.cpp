#include "Modem3gpp2Profile.h"

#include "Conversions.h"

namespace kiv {

Modem3gpp2Profile::Modem3gpp2Profile(const ProfileParams& p)
    : ModemProfile(TechType::TECH_3GPP2, p) {
    if (p.hasHomeIPType()) setCommonIPType(p.getHomeIPType());
}

Modem3gpp2Profile::Modem3gpp2Profile(int profileId, const wds_get_profile_settings_resp_msg_v01& r)
    : ModemProfile(TechType::TECH_3GPP2, profileId, r) {
    if (r.pdn_type_valid) setCommonIPType(convertPdnType(r.pdn_type));
    if (r.apn_string_valid) setApnName(convertToLower(readField(r.apn_string)));
    if (r.apn_class_3gpp2_valid) setApnClass(static_cast<ApnClass>(r.apn_class_3gpp2));
    if (r.auth_protocol_valid) setAuthType(convertToAuthType(r.auth_protocol));
    if (r.user_id_valid) setUserName(readField(r.user_id));
}

// Authentication and credentials go out twice: for the profile and at PDN level.
void Modem3gpp2Profile::writeSettings(wds_get_profile_settings_resp_msg_v01& r) const {
    if (hasApnName()) putText(r.apn_string_valid, r.apn_string, getApnName());
    if (hasCommonIPType()) {
        putField(r.pdn_type_valid, r.pdn_type, convertToXalProfilePdnType(getCommonIPType()));
    }
    if (hasAuthType()) {
        putField(r.auth_protocol_valid, r.auth_protocol, convertToXalAuthProtocol(getAuthType()));
        putField(r.pdn_level_auth_protocol_valid, r.pdn_level_auth_protocol,
                 convertToXalPdnLevelAuthProtocol(getAuthType()));
    }
    if (hasApnClass()) putField(r.apn_class_3gpp2_valid, r.apn_class_3gpp2, getApnClass());
    if (hasUserName()) {
        putText(r.user_id_valid, r.user_id, getUserName());
        putText(r.pdn_level_user_id_valid, r.pdn_level_user_id, getUserName());
    }
    if (hasPassword()) {
        putText(r.auth_password_valid, r.auth_password, getPassword());
        putText(r.pdn_level_auth_password_valid, r.pdn_level_auth_password, getPassword());
    }
}

bool Modem3gpp2Profile::match(const FilterProfileParams& f) const {
    if (!ModemProfile::match(f)) return false;
    // An absent IP type reads as UNKNOWN here, which has no bits.
    if (f.hasHomeIPType() &&
        !matchIPType(f.getHomeIPType(), getCommonIPType(), f.getFilterMatchCriteria(), HomeIPSubset,
                     HomeIPSuperset)) {
        return false;
    }
    const bool asks3gppOnly = f.hasFilterByIsIAProfile() || f.hasFilterByIsKivProfile() ||
                              f.hasRoamIPType() || f.hasMaxPdnsConnPerBlock() ||
                              f.hasMaxPdnConnTimer() || f.hasPdnReqWaitInterval() ||
                              f.hasIsApnDisabled() || f.hasIsEmergencySupported();
    return !asks3gppOnly;
}

std::shared_ptr<ModemProfile> Modem3gpp2Profile::diff(const ModifyProfileParams& requested) const {
    ProfileParams changes;
    bool changed = false;
    updateDiffParameters(requested, changes, changed);
    if (requested.hasHomeIPType() &&
        (!hasCommonIPType() || getCommonIPType() != requested.getHomeIPType())) {
        changes.setHomeIPType(requested.getHomeIPType());
        changed = true;
    }
    return changed ? std::make_shared<Modem3gpp2Profile>(changes) : nullptr;
}

ProfileParams Modem3gpp2Profile::get() const {
    FilterProfileParams params;
    updateGetParameters(params);
    if (hasCommonIPType()) params.setHomeIPType(getCommonIPType());
    return ProfileParams(params);
}

}  // namespace kiv
