#include "ModemProfile.h"

#include <exception>

#include "Conversions.h"
#include "LogWrapper.h"
#include "xal/wds_v01_fields.h"

namespace kiv {

// The common members whose rules are the library's own: the APN name
// (lower case, cut to 150 in the profile, a substring match on request),
// the home IP type (the technology decides where it comes from) and the
// APN types (the modem's encoding inside, the client's outside).
struct ProfileFieldRules {
    static void apnFromParams(ModemProfile& p, const ProfileParams& params) {
        if (params.hasApnName()) p.mApnName = normalizeApnName(params.getApnName());
    }
    static bool apnDiff(const ModemProfile& p, const ProfileParams& requested,
                        ProfileParams& changes) {
        if (!requested.hasApnName() || p.mApnName == normalizeApnName(requested.getApnName())) {
            return false;
        }
        // The whole requested name goes into the changes, not its first 150.
        changes.setApnName(convertToLower(requested.getApnName()));
        return true;
    }
    static void apnApply(ModemProfile& p, const ModemProfile& update) {
        if (update.mApnName) p.mApnName = normalizeApnName(*update.mApnName);
    }
    static void apnToParams(const ModemProfile& p, ProfileParams& params) {
        if (p.mApnName) params.setApnName(*p.mApnName);
    }
    static bool apnMatches(const ModemProfile& p, const FilterProfileParams& f) {
        if (!f.hasApnName()) return true;
        if (!p.mApnName) return false;
        const std::string wanted = normalizeApnName(f.getApnName());
        if (f.getFilterMatchCriteria() & ApnNameSubset) {
            return p.mApnName->find(wanted) != std::string::npos;
        }
        return *p.mApnName == wanted;
    }
    static std::optional<std::string> apnText(const ModemProfile& p) { return p.mApnName; }

    static void ipApply(ModemProfile& p, const ModemProfile& update) {
        if (update.mCommonIPType) p.mCommonIPType = update.mCommonIPType;
    }
    static std::optional<std::string> ipText(const ModemProfile& p) {
        if (!p.mCommonIPType) return std::nullopt;
        return toString(*p.mCommonIPType);
    }

    static void typesFromParams(ModemProfile& p, const ProfileParams& params) {
        if (params.hasApnTypesMask())
            p.mApnTypesMask = convertToXalApnTypeMask(params.getApnTypesMask());
    }
    static bool typesDiff(const ModemProfile& p, const ProfileParams& requested,
                          ProfileParams& changes) {
        if (!requested.hasApnTypesMask() ||
            (p.mApnTypesMask &&
             convertToCommonApnTypeMask(*p.mApnTypesMask) == requested.getApnTypesMask())) {
            return false;
        }
        changes.setApnTypesMask(requested.getApnTypesMask());
        return true;
    }
    static void typesApply(ModemProfile& p, const ModemProfile& update) {
        if (update.mApnTypesMask) p.mApnTypesMask = update.mApnTypesMask;
    }
    static void typesToParams(const ModemProfile& p, ProfileParams& params) {
        if (p.mApnTypesMask) params.setApnTypesMask(convertToCommonApnTypeMask(*p.mApnTypesMask));
    }
    static bool typesMatch(const ModemProfile& p, const FilterProfileParams& f) {
        if (!f.hasApnTypesMask()) return true;
        if (!p.mApnTypesMask) return false;
        return (f.getFilterMatchCriteria() & ApnTypeBitmaskSubset)
                       ? p.matchSubsetApnTypesMask(f.getApnTypesMask())
                       : p.matchExactApnTypesMask(f.getApnTypesMask());
    }
    static std::optional<std::string> typesText(const ModemProfile& p) {
        if (!p.mApnTypesMask) return std::nullopt;
        return std::to_string(*p.mApnTypesMask);
    }
};

// In the order dump() shows them.
const ProfileField<ModemProfile> ModemProfile::kFields[8] = {
        FieldRow<ModemProfile>("ApnName=")
                .readsParams(ProfileFieldRules::apnFromParams)
                .diffs(ProfileFieldRules::apnDiff)
                .applies(ProfileFieldRules::apnApply)
                .writesParams(ProfileFieldRules::apnToParams)
                .matches(ProfileFieldRules::apnMatches)
                .shows(ProfileFieldRules::apnText),
        PlainField<ModemProfile, &ModemProfile::mUserName, &ProfileParams::hasUserName,
                   &ProfileParams::getUserName, &ProfileParams::setUserName>::row("UserName="),
        PlainField<ModemProfile, &ModemProfile::mPassword, &ProfileParams::hasPassword,
                   &ProfileParams::getPassword,
                   &ProfileParams::setPassword>::secretRow("Password="),
        PlainField<ModemProfile, &ModemProfile::mAuthType, &ProfileParams::hasAuthType,
                   &ProfileParams::getAuthType, &ProfileParams::setAuthType>::row("AuthType="),
        // Where the home IP type comes from and goes to is the technology's.
        FieldRow<ModemProfile>("CommonIPType=")
                .applies(ProfileFieldRules::ipApply)
                .shows(ProfileFieldRules::ipText),
        FieldRow<ModemProfile>("ApnTypesMask=")
                .readsParams(ProfileFieldRules::typesFromParams)
                .diffs(ProfileFieldRules::typesDiff)
                .applies(ProfileFieldRules::typesApply)
                .writesParams(ProfileFieldRules::typesToParams)
                .matches(ProfileFieldRules::typesMatch)
                .shows(ProfileFieldRules::typesText),
        PlainField<ModemProfile, &ModemProfile::mApnClass, &ProfileParams::hasApnClass,
                   &ProfileParams::getApnClass, &ProfileParams::setApnClass>::row("ApnClass="),
        PlainField<ModemProfile, &ModemProfile::mClatEnabled, &ProfileParams::hasIsClatEnabled,
                   &ProfileParams::getIsClatEnabled,
                   &ProfileParams::setIsClatEnabled>::row("IsClatEnabled="),
};

std::string normalizeApnName(const std::string& apnName) {
    return convertToLower(apnName.substr(0, kMaxApnNameLength));
}

bool matchIPType(IPType wanted, IPType actual, uint32_t criteria, uint32_t subsetCriterion,
                 uint32_t supersetCriterion) {
    const auto w = static_cast<uint32_t>(wanted);
    const auto a = static_cast<uint32_t>(actual);
    if (a == w) return true;
    if ((criteria & subsetCriterion) && (w & a) == w) return true;
    return (criteria & supersetCriterion) && (a & w) == a;
}

ModemProfile::ModemProfile(TechType techType, const ProfileParams& params) : mTechType(techType) {
    fieldsFromParams(kFields, *this, params);
}

ModemProfile::ModemProfile(TechType techType, int profileId,
                           const wds_get_profile_settings_resp_msg_v01& r)
    : mTechType(techType), mProfileId(profileId) {
    if (r.persistent_valid) mPersistent = r.persistent != 0;
    if (r.apn_type_mask_valid) mApnTypesMask = r.apn_type_mask;
    if (r.clat_enabled_valid) mClatEnabled = r.clat_enabled != 0;
}

ModemProfile::~ModemProfile() {
    KLOGD("~ModemProfile()");
    for (const auto& [callback, weakKey] : mListeners) {
        // The lock keeps the handle alive while its listener runs.
        auto key = weakKey.lock();
        if (!key) continue;
        KLOGD("invoke callback");
        if (!callback) {
            KLOGE("ModemProfile: empty expiration listener skipped");
            continue;
        }
        // A client's listener must not take the worker thread down.
        try {
            callback();
        } catch (const std::exception& e) {
            KLOGE("ModemProfile: expiration listener failed: %s", e.what());
        } catch (...) {
            KLOGE("ModemProfile: expiration listener failed");
        }
    }
}

void ModemProfile::registerExpirationListener(std::function<void()> callback,
                                              std::weak_ptr<IProfileKey> key) {
    mListeners.emplace_back(std::move(callback), std::move(key));
}

void ModemProfile::clearExpiredListeners() {
    mListeners.remove_if([](const ExpirationListener& listener) { return expired(listener); });
}

bool ModemProfile::matchSubsetApnTypesMask(uint32_t apnTypes) const {
    const uint64_t wanted = convertToXalApnTypeMask(apnTypes);
    return (getApnTypesMask() & wanted) == wanted;
}

bool ModemProfile::matchExactApnTypesMask(uint32_t apnTypes) const {
    return convertToXalApnTypeMask(apnTypes) == getApnTypesMask();
}

bool ModemProfile::match(const FilterProfileParams& f) const {
    if (f.hasFilterByTechType() && f.getFilterByTechType() != mTechType) return false;
    if (!fieldsMatch(kFields, *this, f)) return false;
    return !f.hasFilterByProfileId() || f.getFilterByProfileId() == mProfileId;
}

void ModemProfile::updateDiffParameters(ModifyProfileParams requested, ProfileParams& changes,
                                        bool& changed) const {
    if (fieldsDiff(kFields, *this, requested, changes)) changed = true;
}

void ModemProfile::apply(std::shared_ptr<ModemProfile> update) {
    if (update) fieldsApply(kFields, *this, *update);
}

wds_profile_identifier_type_v01 ModemProfile::constructProfileIdentifier() const {
    return convertToProfileIdentifier(mTechType, mProfileId);
}

void ModemProfile::updateAddParameters(wds_create_profile_req_msg_v01& request) const {
    memset(&request, 0, sizeof(request));
    if (mApnTypesMask) putField(request.apn_type_mask_valid, request.apn_type_mask, *mApnTypesMask);
    putField(request.persistent_valid, request.persistent, mPersistent);
    if (mClatEnabled) putField(request.clat_enabled_valid, request.clat_enabled, *mClatEnabled);
}

void ModemProfile::updateModifyParameters(wds_modify_profile_settings_req_msg_v01& request) const {
    memset(&request, 0, sizeof(request));
    request.profile = constructProfileIdentifier();
    // Persistence is fixed at creation: a modify request has no such field.
    if (mApnTypesMask) putField(request.apn_type_mask_valid, request.apn_type_mask, *mApnTypesMask);
    if (mClatEnabled) putField(request.clat_enabled_valid, request.clat_enabled, *mClatEnabled);
}

void ModemProfile::updateGetParameters(FilterProfileParams& params) const {
    fieldsToParams(kFields, *this, params);
}

wds_create_profile_req_msg_v01 ModemProfile::constructAddRequest() const {
    wds_create_profile_req_msg_v01 request;
    updateAddParameters(request);
    request.profile_type = constructProfileIdentifier().profile_type;
    wds_get_profile_settings_resp_msg_v01 settings = {};
    writeSettings(settings);
    wds::copyValidFields(request, settings);
    return request;
}

wds_modify_profile_settings_req_msg_v01 ModemProfile::constructModifyRequest() const {
    wds_modify_profile_settings_req_msg_v01 request;
    updateModifyParameters(request);
    wds_get_profile_settings_resp_msg_v01 settings = {};
    writeSettings(settings);
    wds::copyValidFields(request, settings);
    return request;
}

void appendItem(std::string& out, const char* label, const std::string& value) {
    out.append(label).append(value).push_back(',');
}

std::string ModemProfile::dump() const {
    std::string out;
    out.reserve(160);
    appendItem(out, "TechType=", toString(mTechType));
    appendItem(out, "ProfileId=", std::to_string(mProfileId));
    fieldsDump(kFields, *this, out);
    return out;
}

}  // namespace kiv
