#include "Modem3gppProfile.h"

#include "Conversions.h"
#include "LogWrapper.h"

namespace kiv {

namespace {

// A roaming PDP type from the modem: 255 means none.
std::optional<IPType> roamingType(uint8_t valid, wds_common_pdp_type_enum_v01 type) {
    if (!valid || type == WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01) return std::nullopt;
    return convertPdpType(type);
}

// The PDN throttling values travel as 16 bits.
uint16_t toModem16(int value) {
    return static_cast<uint16_t>(static_cast<unsigned>(value) & 0xFFFFu);
}

}  // namespace

Modem3gppProfile::Modem3gppProfile(const ProfileParams& p) : ModemProfile(TechType::TECH_3GPP, p) {
    if (p.hasMaxPdnsConnPerBlock()) mMaxPdnsConnPerBlock = p.getMaxPdnsConnPerBlock();
    if (p.hasMaxPdnConnTimer()) mMaxPdnConnTimer = p.getMaxPdnConnTimer();
    if (p.hasPdnReqWaitInterval()) mPdnReqWaitInterval = p.getPdnReqWaitInterval();
    if (p.hasIsApnDisabled()) mApnDisabled = p.getIsApnDisabled();
    if (p.hasIsEmergencySupported()) mEmergencySupported = p.getIsEmergencySupported();

    std::optional<IPType> home, roam, override;
    getNewIPTypes(p, home, roam, override);
    if (home) setCommonIPType(*home);
    mLteRoamIPType = roam;
    mUmtsRoamIPType = roam;
    mOverrideHomeIPType = override;
}

Modem3gppProfile::Modem3gppProfile(int profileId, const wds_get_profile_settings_resp_msg_v01& r)
    : ModemProfile(TechType::TECH_3GPP, profileId, r) {
    if (r.profile_name_valid) mProfileName = readField(r.profile_name);
    if (r.pdp_type_valid) setCommonIPType(convertPdpType(r.pdp_type));
    if (r.override_home_pdp_type_valid)
        mOverrideHomeIPType = convertPdpType(r.override_home_pdp_type);
    mLteRoamIPType = roamingType(r.lte_roaming_pdp_type_valid, r.lte_roaming_pdp_type);
    mUmtsRoamIPType = roamingType(r.umts_roaming_pdp_type_valid, r.umts_roaming_pdp_type);
    if (r.apn_name_valid) setApnName(convertToLower(readField(r.apn_name)));
    if (r.apn_class_valid) setApnClass(static_cast<ApnClass>(r.apn_class));
    if (r.support_emergency_calls_valid) mEmergencySupported = r.support_emergency_calls != 0;
    if (r.authentication_preference_valid) {
        setAuthType(convertToAuthType(r.authentication_preference));
    }
    if (r.max_pdn_conn_per_block_valid) mMaxPdnsConnPerBlock = r.max_pdn_conn_per_block;
    if (r.max_pdn_conn_timer_valid) mMaxPdnConnTimer = r.max_pdn_conn_timer;
    if (r.pdn_req_wait_interval_valid) mPdnReqWaitInterval = r.pdn_req_wait_interval;
    if (r.apn_disabled_flag_valid) mApnDisabled = r.apn_disabled_flag != 0;
    if (r.username_valid) setUserName(readField(r.username));
    if (r.password_valid) setPassword(readField(r.password));
}

bool Modem3gppProfile::isIAProfile() const {
    return mProfileName == kKivIAProfileName;
}

bool Modem3gppProfile::isKivProfile() const {
    return isIAProfile() || mProfileName == kKivProfileName;
}

void Modem3gppProfile::getNewIPTypes(const ProfileParams& p, std::optional<IPType>& home,
                                     std::optional<IPType>& roam,
                                     std::optional<IPType>& override) const {
    if (p.hasHomeIPType()) {
        home = p.getHomeIPType();
    } else if (mOverrideHomeIPType && *mOverrideHomeIPType != IPType::UNKNOWN) {
        home = mOverrideHomeIPType;
    } else if (hasCommonIPType()) {
        home = getCommonIPType();
    }

    if (p.hasRoamIPType()) {
        roam = p.getRoamIPType();
    } else if (mLteRoamIPType && mUmtsRoamIPType && *mLteRoamIPType == *mUmtsRoamIPType) {
        roam = mLteRoamIPType;
    }

    if (!home || !roam) return;
    if (*home != *roam) {
        override = home;
        home = IPType::V4V6;
    } else if (mOverrideHomeIPType) {
        // Clears the override on the modem.
        override = IPType::UNKNOWN;
    }
}

template <typename Request>
void Modem3gppProfile::fillSettings(Request& r) const {
    if (mProfileName) putText(r.profile_name_valid, r.profile_name, *mProfileName);
    if (hasApnName()) putText(r.apn_name_valid, r.apn_name, getApnName());
    if (hasCommonIPType())
        putField(r.pdp_type_valid, r.pdp_type, convertToXalPdpType(getCommonIPType()));
    if (mOverrideHomeIPType) {
        putField(r.override_home_pdp_type_valid, r.override_home_pdp_type,
                 convertToXalCommonPdpType(*mOverrideHomeIPType));
    }
    if (mLteRoamIPType) {
        putField(r.lte_roaming_pdp_type_valid, r.lte_roaming_pdp_type,
                 convertToXalCommonPdpType(*mLteRoamIPType));
    }
    if (mUmtsRoamIPType) {
        putField(r.umts_roaming_pdp_type_valid, r.umts_roaming_pdp_type,
                 convertToXalCommonPdpType(*mUmtsRoamIPType));
    }
    if (mEmergencySupported) {
        putField(r.support_emergency_calls_valid, r.support_emergency_calls, *mEmergencySupported);
    }
    if (mApnDisabled) putField(r.apn_disabled_flag_valid, r.apn_disabled_flag, *mApnDisabled);
    if (hasApnClass()) putField(r.apn_class_valid, r.apn_class, getApnClass());
    if (mMaxPdnsConnPerBlock) {
        putField(r.max_pdn_conn_per_block_valid, r.max_pdn_conn_per_block,
                 toModem16(*mMaxPdnsConnPerBlock));
    }
    if (mMaxPdnConnTimer) {
        putField(r.max_pdn_conn_timer_valid, r.max_pdn_conn_timer, toModem16(*mMaxPdnConnTimer));
    }
    if (mPdnReqWaitInterval) {
        putField(r.pdn_req_wait_interval_valid, r.pdn_req_wait_interval,
                 toModem16(*mPdnReqWaitInterval));
    }
    if (hasAuthType()) {
        putField(r.authentication_preference_valid, r.authentication_preference,
                 convertToXalAuthPref(getAuthType()));
    }
    if (hasUserName()) putText(r.username_valid, r.username, getUserName());
    if (hasPassword()) putText(r.password_valid, r.password, getPassword());
}

wds_create_profile_req_msg_v01 Modem3gppProfile::constructAddRequest() const {
    wds_create_profile_req_msg_v01 request;
    updateAddParameters(request);
    request.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    fillSettings(request);
    return request;
}

wds_modify_profile_settings_req_msg_v01 Modem3gppProfile::constructModifyRequest() const {
    wds_modify_profile_settings_req_msg_v01 request;
    updateModifyParameters(request);
    fillSettings(request);
    return request;
}

bool Modem3gppProfile::match(const FilterProfileParams& f) const {
    if (!ModemProfile::match(f)) return false;
    const uint32_t criteria = f.getFilterMatchCriteria();

    if (f.hasFilterByIsIAProfile()) {
        if (f.getIsIAProfile() != isIAProfile()) return false;
    } else if (f.hasFilterByIsKivProfile()) {
        if (f.getIsKivProfile() != isKivProfile()) return false;
    }

    if (f.hasHomeIPType()) {
        std::optional<IPType> effective;
        if (mOverrideHomeIPType && *mOverrideHomeIPType != IPType::UNKNOWN) {
            effective = mOverrideHomeIPType;
        } else if (hasCommonIPType()) {
            effective = getCommonIPType();
        }
        if (!effective ||
            !matchIPType(f.getHomeIPType(), *effective, criteria, HomeIPSubset, HomeIPSuperset)) {
            return false;
        }
    }

    if (f.hasRoamIPType()) {
        std::optional<IPType> effective;
        if (mLteRoamIPType) {
            if (mUmtsRoamIPType != mLteRoamIPType) return false;
            effective = mLteRoamIPType;
        } else if (mUmtsRoamIPType) {
            return false;
        } else if (hasCommonIPType()) {
            effective = getCommonIPType();
        }
        if (!effective ||
            !matchIPType(f.getRoamIPType(), *effective, criteria, RoamIPSubset, RoamIPSuperset)) {
            return false;
        }
    }

    if (f.hasMaxPdnsConnPerBlock() && mMaxPdnsConnPerBlock != f.getMaxPdnsConnPerBlock()) {
        return false;
    }
    if (f.hasMaxPdnConnTimer() && mMaxPdnConnTimer != f.getMaxPdnConnTimer()) return false;
    if (f.hasPdnReqWaitInterval() && mPdnReqWaitInterval != f.getPdnReqWaitInterval()) {
        return false;
    }
    if (f.hasIsApnDisabled() && mApnDisabled != f.getIsApnDisabled()) return false;
    if (f.hasIsEmergencySupported() && mEmergencySupported != f.getIsEmergencySupported()) {
        return false;
    }
    return true;
}

std::shared_ptr<ModemProfile> Modem3gppProfile::diff(const ModifyProfileParams& requested) const {
    ProfileParams changes;
    bool changed = false;
    updateDiffParameters(requested, changes, changed);

    if (requested.hasMaxPdnsConnPerBlock() &&
        mMaxPdnsConnPerBlock != requested.getMaxPdnsConnPerBlock()) {
        changes.setMaxPdnsConnPerBlock(requested.getMaxPdnsConnPerBlock());
        changed = true;
    }
    if (requested.hasMaxPdnConnTimer() && mMaxPdnConnTimer != requested.getMaxPdnConnTimer()) {
        changes.setMaxPdnConnTimer(requested.getMaxPdnConnTimer());
        changed = true;
    }
    if (requested.hasPdnReqWaitInterval() &&
        mPdnReqWaitInterval != requested.getPdnReqWaitInterval()) {
        changes.setPdnReqWaitInterval(requested.getPdnReqWaitInterval());
        changed = true;
    }
    if (requested.hasIsApnDisabled() && mApnDisabled != requested.getIsApnDisabled()) {
        changes.setIsApnDisabled(requested.getIsApnDisabled());
        changed = true;
    }
    if (requested.hasIsEmergencySupported() &&
        mEmergencySupported != requested.getIsEmergencySupported()) {
        changes.setIsEmergencySupported(requested.getIsEmergencySupported());
        changed = true;
    }

    auto update = std::make_shared<Modem3gppProfile>(changes);
    std::optional<IPType> home, roam, override;
    getNewIPTypes(requested, home, roam, override);
    if (home && (!hasCommonIPType() || getCommonIPType() != *home)) {
        update->setCommonIPType(*home);
        changed = true;
    }
    if (roam) {
        if (mLteRoamIPType != roam) {
            update->mLteRoamIPType = roam;
            changed = true;
        }
        if (mUmtsRoamIPType != roam) {
            update->mUmtsRoamIPType = roam;
            changed = true;
        }
    }
    if (override && mOverrideHomeIPType != override) {
        update->mOverrideHomeIPType = override;
        changed = true;
    }
    return changed ? update : nullptr;
}

void Modem3gppProfile::apply(std::shared_ptr<ModemProfile> update) {
    ModemProfile::apply(update);
    auto other = std::dynamic_pointer_cast<Modem3gppProfile>(update);
    if (!other) return;
    if (other->mOverrideHomeIPType) mOverrideHomeIPType = other->mOverrideHomeIPType;
    if (other->mLteRoamIPType) mLteRoamIPType = other->mLteRoamIPType;
    if (other->mUmtsRoamIPType) mUmtsRoamIPType = other->mUmtsRoamIPType;
    if (other->mMaxPdnsConnPerBlock) mMaxPdnsConnPerBlock = other->mMaxPdnsConnPerBlock;
    if (other->mMaxPdnConnTimer) mMaxPdnConnTimer = other->mMaxPdnConnTimer;
    if (other->mPdnReqWaitInterval) mPdnReqWaitInterval = other->mPdnReqWaitInterval;
    if (other->mApnDisabled) mApnDisabled = other->mApnDisabled;
    if (other->mEmergencySupported) mEmergencySupported = other->mEmergencySupported;
}

ProfileParams Modem3gppProfile::get() const {
    FilterProfileParams params;
    updateGetParameters(params);
    if (mProfileName) {
        params.setFilterByIsIAProfile(isIAProfile());
        params.setFilterByIsKivProfile(isKivProfile());
    } else {
        params.setFilterByIsIAProfile(false);
        params.setFilterByIsKivProfile(false);
    }
    if (mOverrideHomeIPType && *mOverrideHomeIPType != IPType::UNKNOWN) {
        params.setHomeIPType(*mOverrideHomeIPType);
    } else if (hasCommonIPType()) {
        params.setHomeIPType(getCommonIPType());
    }
    if (mLteRoamIPType && mLteRoamIPType == mUmtsRoamIPType) params.setRoamIPType(*mLteRoamIPType);
    if (mMaxPdnsConnPerBlock) params.setMaxPdnsConnPerBlock(*mMaxPdnsConnPerBlock);
    if (mMaxPdnConnTimer) params.setMaxPdnConnTimer(*mMaxPdnConnTimer);
    if (mPdnReqWaitInterval) params.setPdnReqWaitInterval(*mPdnReqWaitInterval);
    if (mApnDisabled) params.setIsApnDisabled(*mApnDisabled);
    if (mEmergencySupported) params.setIsEmergencySupported(*mEmergencySupported);
    return params;
}

std::string Modem3gppProfile::dump() const {
    std::string out = ModemProfile::dump();
    auto number = [&out](const char* label, const std::optional<int>& value) {
        if (value) appendItem(out, label, std::to_string(*value));
    };
    auto flag = [&out](const char* label, const std::optional<bool>& value) {
        if (value) appendItem(out, label, *value ? "true" : "false");
    };
    if (mOverrideHomeIPType) appendItem(out, "OverrideHomeIPType=", toString(*mOverrideHomeIPType));
    if (mLteRoamIPType) appendItem(out, "LteRoamIP=", toString(*mLteRoamIPType));
    if (mUmtsRoamIPType) appendItem(out, "UmtsRoamIP=", toString(*mUmtsRoamIPType));
    number("MaxPdnsConnPerBlock=", mMaxPdnsConnPerBlock);
    number("MaxPdnConnTimer=", mMaxPdnConnTimer);
    number("PdnReqWaitInterval=", mPdnReqWaitInterval);
    flag("IsApnDisabled=", mApnDisabled);
    flag("IsEmergencySupported=", mEmergencySupported);
    if (mProfileName) appendItem(out, "ProfileName=", *mProfileName);
    return out;
}

}  // namespace kiv
