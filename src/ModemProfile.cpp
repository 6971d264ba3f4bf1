#include "ModemProfile.h"

#include <exception>

#include "Conversions.h"
#include "LogWrapper.h"

namespace kiv {

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
    if (params.hasApnName()) mApnName = normalizeApnName(params.getApnName());
    if (params.hasUserName()) mUserName = params.getUserName();
    if (params.hasPassword()) mPassword = params.getPassword();
    if (params.hasAuthType()) mAuthType = params.getAuthType();
    if (params.hasApnClass()) mApnClass = params.getApnClass();
    if (params.hasApnTypesMask()) mApnTypesMask = convertToXalApnTypeMask(params.getApnTypesMask());
    if (params.hasIsClatEnabled()) mClatEnabled = params.getIsClatEnabled();
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
    const uint32_t criteria = f.getFilterMatchCriteria();
    if (f.hasFilterByTechType() && f.getFilterByTechType() != mTechType) return false;
    if (f.hasApnName()) {
        if (!mApnName) return false;
        const std::string wanted = normalizeApnName(f.getApnName());
        if (criteria & ApnNameSubset) {
            if (mApnName->find(wanted) == std::string::npos) return false;
        } else if (*mApnName != wanted) {
            return false;
        }
    }
    if (f.hasUserName() && (!mUserName || *mUserName != f.getUserName())) return false;
    if (f.hasPassword() && (!mPassword || *mPassword != f.getPassword())) return false;
    if (f.hasAuthType() && (!mAuthType || *mAuthType != f.getAuthType())) return false;
    if (f.hasApnTypesMask()) {
        if (!mApnTypesMask) return false;
        const bool matched = (criteria & ApnTypeBitmaskSubset)
                                     ? matchSubsetApnTypesMask(f.getApnTypesMask())
                                     : matchExactApnTypesMask(f.getApnTypesMask());
        if (!matched) return false;
    }
    if (f.hasApnClass() && (!mApnClass || *mApnClass != f.getApnClass())) return false;
    if (f.hasIsClatEnabled() && (!mClatEnabled || *mClatEnabled != f.getIsClatEnabled())) {
        return false;
    }
    return !f.hasFilterByProfileId() || f.getFilterByProfileId() == mProfileId;
}

void ModemProfile::updateDiffParameters(ModifyProfileParams requested, ProfileParams& changes,
                                        bool& changed) const {
    if (requested.hasApnName() && mApnName != normalizeApnName(requested.getApnName())) {
        // The whole requested name goes into the changes, not its first 150.
        changes.setApnName(convertToLower(requested.getApnName()));
        changed = true;
    }
    if (requested.hasUserName() && mUserName != requested.getUserName()) {
        changes.setUserName(requested.getUserName());
        changed = true;
    }
    if (requested.hasPassword() && mPassword != requested.getPassword()) {
        changes.setPassword(requested.getPassword());
        changed = true;
    }
    if (requested.hasAuthType() && mAuthType != requested.getAuthType()) {
        changes.setAuthType(requested.getAuthType());
        changed = true;
    }
    if (requested.hasApnTypesMask() &&
        (!mApnTypesMask ||
         convertToCommonApnTypeMask(*mApnTypesMask) != requested.getApnTypesMask())) {
        changes.setApnTypesMask(requested.getApnTypesMask());
        changed = true;
    }
    if (requested.hasApnClass() && mApnClass != requested.getApnClass()) {
        changes.setApnClass(requested.getApnClass());
        changed = true;
    }
    if (requested.hasIsClatEnabled() && mClatEnabled != requested.getIsClatEnabled()) {
        changes.setIsClatEnabled(requested.getIsClatEnabled());
        changed = true;
    }
}

void ModemProfile::apply(std::shared_ptr<ModemProfile> update) {
    if (!update) return;
    if (update->mApnName) mApnName = normalizeApnName(*update->mApnName);
    if (update->mUserName) mUserName = update->mUserName;
    if (update->mPassword) mPassword = update->mPassword;
    if (update->mAuthType) mAuthType = update->mAuthType;
    if (update->mCommonIPType) mCommonIPType = update->mCommonIPType;
    if (update->mApnTypesMask) mApnTypesMask = update->mApnTypesMask;
    if (update->mApnClass) mApnClass = update->mApnClass;
    if (update->mClatEnabled) mClatEnabled = update->mClatEnabled;
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
    if (mApnName) params.setApnName(*mApnName);
    if (mUserName) params.setUserName(*mUserName);
    if (mPassword) params.setPassword(*mPassword);
    if (mAuthType) params.setAuthType(*mAuthType);
    if (mApnTypesMask) params.setApnTypesMask(convertToCommonApnTypeMask(*mApnTypesMask));
    if (mApnClass) params.setApnClass(*mApnClass);
    if (mClatEnabled) params.setIsClatEnabled(*mClatEnabled);
}

void appendItem(std::string& out, const char* label, const std::string& value) {
    out.append(label).append(value).push_back(',');
}

std::string ModemProfile::dump() const {
    std::string out;
    out.reserve(160);
    appendItem(out, "TechType=", toString(mTechType));
    appendItem(out, "ProfileId=", std::to_string(mProfileId));
    if (mApnName) appendItem(out, "ApnName=", *mApnName);
    if (mUserName) appendItem(out, "UserName=", *mUserName);
    if (mPassword) appendItem(out, "Password=", *mPassword);
    if (mAuthType) appendItem(out, "AuthType=", toString(*mAuthType));
    if (mCommonIPType) appendItem(out, "CommonIPType=", toString(*mCommonIPType));
    if (mApnTypesMask) appendItem(out, "ApnTypesMask=", std::to_string(*mApnTypesMask));
    if (mApnClass) appendItem(out, "ApnClass=", toString(*mApnClass));
    if (mClatEnabled) appendItem(out, "IsClatEnabled=", *mClatEnabled ? "true" : "false");
    return out;
}

}  // namespace kiv
