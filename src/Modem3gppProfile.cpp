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

// The IP-type members come from getNewIPTypes() and go to clients and
// filters through get() and match(); the profile name is set by the cache.
struct Profile3gppFieldRules {
    template <std::optional<IPType> Modem3gppProfile::*Member>
    static void ipApply(Modem3gppProfile& p, const Modem3gppProfile& update) {
        if (update.*Member) p.*Member = update.*Member;
    }
    template <std::optional<IPType> Modem3gppProfile::*Member>
    static std::optional<std::string> ipText(const Modem3gppProfile& p) {
        if (!(p.*Member)) return std::nullopt;
        return toString(*(p.*Member));
    }
    static std::optional<std::string> nameText(const Modem3gppProfile& p) { return p.mProfileName; }
};

// In the order dump() shows them, after the common members.
const ProfileField<Modem3gppProfile> Modem3gppProfile::kFields[9] = {
        FieldRow<Modem3gppProfile>("OverrideHomeIPType=")
                .applies(Profile3gppFieldRules::ipApply<&Modem3gppProfile::mOverrideHomeIPType>)
                .shows(Profile3gppFieldRules::ipText<&Modem3gppProfile::mOverrideHomeIPType>),
        FieldRow<Modem3gppProfile>("LteRoamIP=")
                .applies(Profile3gppFieldRules::ipApply<&Modem3gppProfile::mLteRoamIPType>)
                .shows(Profile3gppFieldRules::ipText<&Modem3gppProfile::mLteRoamIPType>),
        FieldRow<Modem3gppProfile>("UmtsRoamIP=")
                .applies(Profile3gppFieldRules::ipApply<&Modem3gppProfile::mUmtsRoamIPType>)
                .shows(Profile3gppFieldRules::ipText<&Modem3gppProfile::mUmtsRoamIPType>),
        PlainField<Modem3gppProfile, &Modem3gppProfile::mMaxPdnsConnPerBlock,
                   &ProfileParams::hasMaxPdnsConnPerBlock, &ProfileParams::getMaxPdnsConnPerBlock,
                   &ProfileParams::setMaxPdnsConnPerBlock>::row("MaxPdnsConnPerBlock="),
        PlainField<Modem3gppProfile, &Modem3gppProfile::mMaxPdnConnTimer,
                   &ProfileParams::hasMaxPdnConnTimer, &ProfileParams::getMaxPdnConnTimer,
                   &ProfileParams::setMaxPdnConnTimer>::row("MaxPdnConnTimer="),
        PlainField<Modem3gppProfile, &Modem3gppProfile::mPdnReqWaitInterval,
                   &ProfileParams::hasPdnReqWaitInterval, &ProfileParams::getPdnReqWaitInterval,
                   &ProfileParams::setPdnReqWaitInterval>::row("PdnReqWaitInterval="),
        PlainField<Modem3gppProfile, &Modem3gppProfile::mApnDisabled,
                   &ProfileParams::hasIsApnDisabled, &ProfileParams::getIsApnDisabled,
                   &ProfileParams::setIsApnDisabled>::row("IsApnDisabled="),
        PlainField<Modem3gppProfile, &Modem3gppProfile::mEmergencySupported,
                   &ProfileParams::hasIsEmergencySupported, &ProfileParams::getIsEmergencySupported,
                   &ProfileParams::setIsEmergencySupported>::row("IsEmergencySupported="),
        FieldRow<Modem3gppProfile>("ProfileName=").shows(Profile3gppFieldRules::nameText),
};

Modem3gppProfile::Modem3gppProfile(const ProfileParams& p) : ModemProfile(TechType::TECH_3GPP, p) {
    fieldsFromParams(kFields, *this, p);

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

void Modem3gppProfile::writeSettings(wds_get_profile_settings_resp_msg_v01& r) const {
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

    return fieldsMatch(kFields, *this, f);
}

std::shared_ptr<ModemProfile> Modem3gppProfile::diff(const ModifyProfileParams& requested) const {
    ProfileParams changes;
    bool changed = false;
    updateDiffParameters(requested, changes, changed);
    if (fieldsDiff(kFields, *this, requested, changes)) changed = true;

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
    if (auto other = std::dynamic_pointer_cast<Modem3gppProfile>(update)) {
        fieldsApply(kFields, *this, *other);
    }
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
    fieldsToParams(kFields, *this, params);
    return params;
}

std::string Modem3gppProfile::dump() const {
    std::string out = ModemProfile::dump();
    fieldsDump(kFields, *this, out);
    return out;
}

}  // namespace kiv
