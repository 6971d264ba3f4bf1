#include "Util.h"

#include <unordered_set>
#include <vector>

#include "Conversions.h"
#include "LogWrapper.h"

namespace kiv {

namespace {

std::string keyText(const std::shared_ptr<IProfileKey>& key) {
    return key ? key->dump() : std::string();
}

std::shared_ptr<IProfileKey> first(const std::list<std::shared_ptr<IProfileKey>>& keys) {
    return keys.empty() ? nullptr : keys.front();
}

// A record with the APN types mask as its only field.
ModifyProfileParams maskOnly(uint32_t mask) {
    ModifyProfileParams params;
    params.setApnTypesMask(mask);
    return params;
}

// The LTE attach search looks at 3GPP profiles only.
FilterProfileParams attachFilter() {
    FilterProfileParams filter;
    filter.setFilterByTechType(TechType::TECH_3GPP);
    return filter;
}

void copyIPTypes(const ProfileParams& from, ProfileParams& to) {
    if (from.hasHomeIPType()) to.setHomeIPType(from.getHomeIPType());
    if (from.hasRoamIPType()) to.setRoamIPType(from.getRoamIPType());
}

bool isKivNonIA(const ProfileParams& params) {
    return params.getIsKivProfile() && !params.getIsIAProfile();
}

constexpr uint32_t kHomeIPSubsetOrSuperset = HomeIPSubset | HomeIPSuperset;  // 17
constexpr uint32_t kRoamIPSubsetOrSuperset = RoamIPSubset | RoamIPSuperset;  // 34

}  // namespace

Util::Util() : mManager(&Manager::getInstance()) {
    KLOGD("kiv::Util: constructor");
}

void Util::setProfileUpdateAllowed(bool allowed) {
    KLOGI("kiv::Util: profileUpdateAllowed %s", allowed ? "true" : "false");
    mProfileUpdateAllowed = allowed;
}

// --- APN classes -------------------------------------------------------------

void Util::updateModemProfileByApnClass(const std::list<ProfileParams>& list3gpp,
                                        const std::list<ProfileParams>& list3gpp2) {
    KLOGI("kiv updateModemProfileByApnClass > ");
    KLOGI("  3gpp:");
    for (const auto& params : list3gpp) KLOGI("    %s", params.dump().c_str());
    KLOGI("  3gpp2:");
    for (const auto& params : list3gpp2) KLOGI("    %s", params.dump().c_str());
    for (const auto& params : list3gpp) {
        KLOGD("kiv update 3gpp modem profile by APN class for %s", params.dump().c_str());
        updateModemProfileByApnClassAndTechType(params, TechType::TECH_3GPP);
    }
    for (const auto& params : list3gpp2) {
        KLOGD("kiv update 3gpp2 modem profile by APN class for %s", params.dump().c_str());
        updateModemProfileByApnClassAndTechType(params, TechType::TECH_3GPP2);
    }
    KLOGI("kiv updateModemProfileByApnClass < OK");
}

void Util::updateModemProfileByApnClassAndTechType(const ProfileParams& params, TechType techType) {
    if (!params.hasApnClass()) {
        KLOGD("kiv either tech type or apn class is missing");
        return;
    }
    FilterProfileParams filter;
    filter.setFilterByTechType(techType);
    filter.setApnClass(params.getApnClass());
    const auto keys = mManager->filter(filter);
    if (!keys.empty()) {
        KLOGD("Found a match for APN class and tech type, modify the profile");
        const ModifyProfileParams update(params);
        for (const auto& key : keys) {
            if (!mManager->modifyProfile(update, key)) {
                KLOGE("Error while modifying profile by APN class");
            }
        }
        return;
    }
    KLOGD("Did not find a match for APN class and tech type, create a persistent profile");
    // The key goes at once; the profile stays because it is persistent.
    if (!mManager->addProfile(AddProfileParams(params, true, techType, false))) {
        KLOGE("Could not add profile by APN class");
    }
}

// --- APN types ---------------------------------------------------------------

void Util::updateAPNTypeBitmaskOnModemProfile(const std::list<ProfileParams>& list) {
    KLOGI("kiv updateAPNTypeBitmaskOnModemProfile > ");
    for (const auto& params : list) KLOGI("    %s", params.dump().c_str());

    std::vector<ProfileParams> records(list.begin(), list.end());
    // Distinct names, in the order they first appear.
    std::vector<std::string> names;
    std::unordered_set<std::string> seen;
    for (auto& record : records) {
        KLOGI("kiv update APN type bitmask on modem profile for %s", record.dump().c_str());
        if (record.hasApnName()) {
            record.setApnName(convertToLower(record.getApnName()));
            if (seen.insert(record.getApnName()).second) names.push_back(record.getApnName());
        }
        if (!record.hasApnTypesMask()) {
            record.setApnTypesMask(0);
            KLOGE("kiv APN type mask not present, setting to 0");
        }
        if (!record.hasHomeIPType()) {
            record.setHomeIPType(IPType::V4V6);
            KLOGE("kiv Home IP type not present, setting to v4v6");
        }
    }

    for (const auto& name : names) {
        uint32_t v4 = 0, v6 = 0, v4v6 = 0;
        for (const auto& record : records) {
            if (!record.hasApnName() || record.getApnName() != name) continue;
            switch (record.getHomeIPType()) {
                case IPType::V4:
                    v4 |= record.getApnTypesMask();
                    break;
                case IPType::V6:
                    v6 |= record.getApnTypesMask();
                    break;
                default:
                    v4v6 |= record.getApnTypesMask();
                    break;
            }
        }
        KLOGD("kiv processing APN name %s, V4 mask:0x%x, v6 mask0x%x:, v4v6 mask:0x%x",
              name.c_str(), v4, v6, v4v6);
        if (mProfileUpdateAllowed) {
            handleCombinedProfileUpdate(v4 | v6 | v4v6, name);
        } else {
            handleProfileUpdateByTechType(TechType::TECH_3GPP, v4, v6, v4v6, name);
            handleProfileUpdateByTechType(TechType::TECH_3GPP2, v4, v6, v4v6, name);
        }
    }
    KLOGI("kiv updateAPNTypeBitmaskOnModemProfile < OK");
}

void Util::handleCombinedProfileUpdate(uint32_t mask, const std::string& apnName) {
    FilterProfileParams filter;
    filter.setApnName(apnName);
    for (const auto& key : mManager->filter(filter)) {
        KLOGD("kiv updating profile id:%d, tech type:%d, with combined mask0x%x:",
              key->getProfileId(), static_cast<int>(key->getTechType()), mask);
        mManager->modifyProfile(maskOnly(mask), key);
    }
}

bool Util::updateByIpType(TechType techType, IPType ipType, uint32_t mask,
                          const std::string& apnName) {
    FilterProfileParams filter;
    filter.setFilterByTechType(techType);
    filter.setApnName(apnName);
    filter.setHomeIPType(ipType);
    const auto keys = mManager->filter(filter);
    if (keys.empty()) {
        KLOGD("kiv no match found for apn name:%s, ip type:%d, tech type:%d", apnName.c_str(),
              static_cast<int>(ipType), static_cast<int>(techType));
        return false;
    }
    for (const auto& key : keys) {
        KLOGD("kiv updating profile id:%d, tech type:%d, with mask0x%x:", key->getProfileId(),
              static_cast<int>(key->getTechType()), mask);
        mManager->modifyProfile(maskOnly(mask), key);
    }
    return true;
}

// Types meant for one IP family fall back onto dual-stack profiles, and
// dual-stack types onto single-stack ones, when no profile of the wanted IP
// type exists.
void Util::handleProfileUpdateByTechType(TechType techType, uint32_t v4Mask, uint32_t v6Mask,
                                         uint32_t v4v6Mask, const std::string& apnName) {
    uint32_t combined = v4v6Mask;
    if (v4Mask != 0 && !updateByIpType(techType, IPType::V4, v4Mask, apnName)) {
        combined |= v4Mask;
    }
    uint32_t v6Fallback = combined;
    if (v6Mask != 0) {
        const bool updated = updateByIpType(techType, IPType::V6, v6Mask, apnName);
        v6Fallback = combined | v6Mask;
        if (!updated) combined |= v6Mask;
    }
    if (combined == 0) return;
    if (updateByIpType(techType, IPType::V4V6, combined, apnName)) return;
    updateByIpType(techType, IPType::V4, combined | v4Mask, apnName);
    updateByIpType(techType, IPType::V6, v6Fallback, apnName);
}

// --- LTE attach --------------------------------------------------------------

std::shared_ptr<IProfileKey> Util::findOrCreateProfileForLteAttach(const ProfileParams& params) {
    KLOGI("kiv findOrCreateProfileForLteAttach > %s", params.dump().c_str());
    ModifyProfileParams update;
    if (params.hasUserName()) update.setUserName(params.getUserName());
    if (params.hasPassword()) update.setPassword(params.getPassword());
    if (params.hasAuthType()) update.setAuthType(params.getAuthType());
    if (params.hasApnTypesMask()) update.setApnTypesMask(params.getApnTypesMask());
    if (params.hasMaxPdnsConnPerBlock())
        update.setMaxPdnsConnPerBlock(params.getMaxPdnsConnPerBlock());
    if (params.hasMaxPdnConnTimer()) update.setMaxPdnConnTimer(params.getMaxPdnConnTimer());
    if (params.hasPdnReqWaitInterval())
        update.setPdnReqWaitInterval(params.getPdnReqWaitInterval());

    std::shared_ptr<IProfileKey> result;
    bool found = false;

    // Stage 1: an exact match that is not a library data profile.
    FilterProfileParams exact = attachFilter();
    if (params.hasApnName()) {
        exact.setApnName(params.getApnName());
    } else {
        KLOGI("kiv NULL apn scenario");
    }
    copyIPTypes(params, exact);
    result = first(mManager->filter(exact));
    if (result) {
        const auto seen = mManager->getProfile(result);
        if (seen && !isKivNonIA(*seen)) {
            KLOGI("kiv Found an exact match modem or KIV IA profile for attach");
            found = true;
        } else {
            result.reset();
        }
    }

    if (!found) {
        // Stage 2: a loose match.
        FilterProfileParams loose = attachFilter();
        if (params.hasApnName()) loose.setApnName(params.getApnName());
        if (mProfileUpdateAllowed) {
            copyIPTypes(params, update);
        } else {
            loose.setFilterByIsKivProfile(false);
            if (params.hasHomeIPType()) {
                loose.setHomeIPType(params.getHomeIPType());
                loose.addFilterMatchCriteria(kHomeIPSubsetOrSuperset);
            }
            if (params.hasRoamIPType()) {
                loose.setRoamIPType(params.getRoamIPType());
                loose.addFilterMatchCriteria(kRoamIPSubsetOrSuperset);
            }
        }
        auto loosely = first(mManager->filter(loose));
        if (loosely) {
            result = loosely;
            KLOGI("kiv Found a loose match profile for attach");
            const auto seen = mManager->getProfile(result);
            if (seen && isKivNonIA(*seen)) {
                KLOGI("It is not a KIV_IA profile. so skipping it.");
                result.reset();
            } else if (seen) {
                KLOGI("It is KIV_IA profile or modem profile.");
                found = true;
            }
            // Unreadable: kept, and the later stages may replace it.
        }
    }

    if (!found) {
        copyIPTypes(params, update);
        // Stage 3: the library's attach profile with this APN name.
        FilterProfileParams ia = attachFilter();
        ia.setFilterByIsKivProfile(true);
        ia.setFilterByIsIAProfile(true);
        FilterProfileParams anyIA = ia;
        if (params.hasApnName()) ia.setApnName(params.getApnName());
        if (auto key = first(mManager->filter(ia))) {
            result = key;
            KLOGI("kiv Found a KIV IA profile that matches APN name for attach");
        } else if (auto other = first(mManager->filter(anyIA))) {
            // Stage 4: any attach profile of the library, renamed.
            result = other;
            if (params.hasApnName()) update.setApnName(params.getApnName());
            KLOGI("kiv Found any KIV IA profile for attach");
        }
    }

    if (result) {
        // Whichever stage found it, it takes the caller's credentials,
        // APN types and timers.
        mManager->modifyProfile(update, result);
        KLOGI("kiv Modifying profile identified for IA");
    } else {
        result = mManager->addProfile(AddProfileParams(params, true, TechType::TECH_3GPP, true));
        KLOGI("kiv KIV IA profile created for attach");
    }
    KLOGI("kiv findOrCreateProfileForLteAttach < %s", keyText(result).c_str());
    return result;
}

bool Util::matchLteAttachProfileId(int profileId, const ProfileParams& params) {
    KLOGI("kiv matchLteAttachProfileId > %s",
          ("Profile id = " + std::to_string(profileId) + " Input Params = " + params.dump())
                  .c_str());
    FilterProfileParams byId;
    byId.setFilterByProfileId(profileId);
    byId.setFilterByTechType(TechType::TECH_3GPP);
    if (auto key = first(mManager->filter(byId))) {
        if (const auto seen = mManager->getProfile(key)) {
            if (isKivNonIA(*seen)) {
                KLOGE("Profile id %d is a KIV profile which is not an IA profile, cannot be used "
                      "for attach",
                      profileId);
                return false;
            }
            FilterProfileParams wanted;
            if (params.hasApnName()) wanted.setApnName(params.getApnName());
            copyIPTypes(params, wanted);
            if (params.hasUserName()) wanted.setUserName(params.getUserName());
            if (params.hasPassword()) wanted.setPassword(params.getPassword());
            if (params.hasAuthType()) wanted.setAuthType(params.getAuthType());
            if (!mProfileUpdateAllowed && !seen->getIsKivProfile()) {
                wanted.addFilterMatchCriteria(kHomeIPSubsetOrSuperset | kRoamIPSubsetOrSuperset);
            }
            if (mManager->match(wanted, key)) {
                KLOGI("kiv matchLteAttachList < %d", profileId);
                return true;
            }
        }
    }
    KLOGI("kiv matchLteAttachProfileId < did not match input params");
    return false;
}

// --- Data calls --------------------------------------------------------------

std::shared_ptr<IProfileKey> Util::findOrCreateProfileForSetupDataCall(
        TechType techType, const ProfileParams& params) {
    KLOGI("kiv findOrCreateProfileForSetupDataCall > %s", params.dump().c_str());
    FilterProfileParams filter;
    if (params.hasApnName()) filter.setApnName(params.getApnName());
    filter.setFilterByTechType(techType);
    if (techType == TechType::TECH_3GPP2 && params.hasUserName()) {
        filter.setUserName(params.getUserName());
    }
    if (!mProfileUpdateAllowed && params.hasHomeIPType()) {
        filter.setHomeIPType(params.getHomeIPType());
    }
    auto keys = mManager->filter(filter);
    if (keys.empty() && !mProfileUpdateAllowed) {
        filter.addFilterMatchCriteria(kHomeIPSubsetOrSuperset);
        keys = mManager->filter(filter);
    }

    std::shared_ptr<IProfileKey> result = first(keys);
    if (result) {
        KLOGI("found existing setupDataCall profile");
        if (mProfileUpdateAllowed) {
            KLOGI("Modifying profile with input parameters");
            mManager->modifyProfile(ModifyProfileParams(params), result);
        }
    } else {
        result = mManager->addProfile(AddProfileParams(params, false, techType, false));
        KLOGI("setupDataCall profile added");
    }
    KLOGI("kiv findOrCreateProfileForSetupDataCall < %s", keyText(result).c_str());
    return result;
}

std::shared_ptr<IProfileKey> Util::findOrCreateProfileForEmergencyDataCall(
        const ProfileParams& params) {
    KLOGI("kiv findOrCreateProfileForEmergencyDataCall > %s", params.dump().c_str());
    FilterProfileParams emergency;
    emergency.setFilterByTechType(TechType::TECH_3GPP);
    emergency.setIsEmergencySupported(true);

    std::shared_ptr<IProfileKey> result;
    if (params.hasApnName()) {
        FilterProfileParams byName = emergency;
        byName.setApnName(params.getApnName());
        result = first(mManager->filter(byName));
        if (result) KLOGI("found an emergency profile by name");
    }
    if (!result) {
        result = first(mManager->filter(emergency));
        if (result) KLOGI("found a profile that supports emergency calls");
    }
    if (!result) {
        AddProfileParams add(params, true, TechType::TECH_3GPP, false);
        add.setIsEmergencySupported(true);
        add.setApnTypesMask(APN_TYPE_EMERGENCY);
        result = mManager->addProfile(add);
        KLOGI("emergency profile created");
    }
    KLOGI("kiv findOrCreateProfileForEmergencyDataCall < %s", keyText(result).c_str());
    return result;
}

std::vector<ReclaimedProfile> Util::reclaimTemporaryProfiles(bool dryRun) {
    KLOGI("kiv reclaimTemporaryProfiles > dryRun=%s", dryRun ? "true" : "false");
    auto reclaimed = mManager->reclaim(dryRun);
    KLOGI("kiv reclaimTemporaryProfiles < %zu %s", reclaimed.size(),
          dryRun ? "would be deleted" : "deleted");
    return reclaimed;
}

}  // namespace kiv
