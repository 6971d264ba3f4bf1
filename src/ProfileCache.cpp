#include "ProfileCache.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>

#include "LogWrapper.h"
#include "Modem3gpp2Profile.h"
#include "Modem3gppProfile.h"

namespace kiv {

namespace {

// Process-wide: tokens continue across init, while the old pipeline's
// worker may still take one as the new one starts.
std::atomic<unsigned long> sNextToken{0};

constexpr const char* kUnknownToken = "ProfileCache: token is not present or expired";

}  // namespace

unsigned long ProfileCache::generateToken() {
    unsigned long token = sNextToken.load();
    do {
        if (token == std::numeric_limits<unsigned long>::max()) {
            KLOG(Fatal, "ProfileCache: token counter exhausted");
            abort();
        }
    } while (!sNextToken.compare_exchange_weak(token, token + 1));
    return token;
}

ProfileCache::ProfileCache(EventManager& eventManager, int subscription,
                           RequestFunction requestFunction)
    : mRequestFunction(std::move(requestFunction)), mProxy(eventManager, subscription) {
    mProfiles.max_load_factor(1.0f);
    mProxy.registerProfileChangedInd([this](ProfileChangedInd ind) { onIndication(ind); });
}

ProfileCache::~ProfileCache() {
    clear();
}

void ProfileCache::clear() {
    ++mGeneration;
    mPending.clear();
    mProfiles.clear();
    mLiveKeys.clear();
    mCreatedAfter.clear();
}

std::shared_ptr<IProfileKey> ProfileCache::makeKey(TechType techType, int profileId,
                                                   unsigned long token) {
    ++mLiveKeys[token];
    return std::make_shared<ProfileKey>(techType, profileId, token, mRequestFunction);
}

ProfileCache::ProfileMap::iterator ProfileCache::find(unsigned long token, LogLevel missingLevel) {
    auto it = mProfiles.find(token);
    if (it == mProfiles.end()) {
        LogWrapper::getInstance().log(missingLevel, kLogTag, "%s", kUnknownToken);
    }
    return it;
}

ProfileCache::ProfileMap::iterator ProfileCache::find(const ProfileKey& key,
                                                      LogLevel missingLevel) {
    return find(key.getToken(), missingLevel);
}

void ProfileCache::expect(TechType techType, int profileId, ProfileChangedEvent event,
                          uint64_t after) {
    ++mGeneration;
    mPending.push_back({{techType, profileId, event}, after});
}

bool ProfileCache::predates(unsigned long token) const {
    auto created = mCreatedAfter.find(token);
    return created != mCreatedAfter.end() && mProxy.currentArrival() <= created->second;
}

bool ProfileCache::refresh() {
    ++mGeneration;
    mProfiles.clear();
    mLiveKeys.clear();
    mCreatedAfter.clear();
    for (auto& profile : mProxy.getAllProfiles()) {
        mProfiles.emplace(generateToken(), std::move(profile));
    }
    KLOGI("Refreshed Profiles:");
    for (const auto& [token, profile] : mProfiles) {
        KLOGI("%s", profile ? profile->dump().c_str() : "null");
    }
    return true;
}

std::shared_ptr<IProfileKey> ProfileCache::add(const AddProfileParams& params) {
    // Taken first: a failed add consumes a token too.
    const unsigned long token = generateToken();
    std::shared_ptr<ModemProfile> profile;
    switch (params.getTechType()) {
        case TechType::TECH_3GPP2:
            profile = std::make_shared<Modem3gpp2Profile>(params);
            break;
        case TechType::TECH_3GPP: {
            auto threeGpp = std::make_shared<Modem3gppProfile>(params);
            threeGpp->setProfileName(params.getIsIAProfile() ? kKivIAProfileName : kKivProfileName);
            profile = std::move(threeGpp);
            break;
        }
        default:
            KLOGE("ProfileCache: failed to create profile");
            return nullptr;
    }
    profile->setIsPersistent(params.getIsPersistent());
    profile->setIsKivCreated(true);
    if (!mProxy.add(*profile)) return nullptr;

    profile->incRefCount();
    mProfiles.emplace(token, profile);
    const uint64_t createdAfter = mProxy.predatesLastAdd();
    mCreatedAfter[token] = createdAfter;
    // The modem echoes a creation with Create and then Modify.
    expect(params.getTechType(), profile->getProfileId(), ProfileChangedEvent::Create,
           createdAfter);
    expect(params.getTechType(), profile->getProfileId(), ProfileChangedEvent::Modify,
           createdAfter);
    KLOGI("Added: %s", profile->dump().c_str());
    return makeKey(params.getTechType(), profile->getProfileId(), token);
}

bool ProfileCache::modify(const ModifyProfileParams& params, std::shared_ptr<ProfileKey> key) {
    if (!key) return false;
    auto it = find(*key, LogLevel::Info);
    if (it == mProfiles.end()) return false;
    const auto& profile = it->second;
    if (!profile) return true;

    auto changes = profile->diff(params);
    if (!changes) {
        KLOGI("ProfileCache: profile is unchanged");
        return true;
    }
    if (mProxy.modify(*changes, profile->getTechType(), profile->getProfileId())) {
        ++mGeneration;
        profile->apply(changes);
        KLOGI("Diff: %s", changes->dump().c_str());
        expect(profile->getTechType(), profile->getProfileId(), ProfileChangedEvent::Modify,
               mProxy.arrivedBeforeLastRequest());
    } else {
        KLOGE("ProfileCache: failed to modify modem profile");
    }
    // The result says whether the key was valid, not whether the modem agreed.
    return true;
}

bool ProfileCache::remove(std::shared_ptr<ProfileKey> key) {
    if (!key) return false;
    auto it = find(*key, LogLevel::Error);
    if (it == mProfiles.end()) return false;
    // An explicit delete deletes on the modem whoever else holds the profile.
    if (!mProxy.remove(key->getTechType(), key->getProfileId())) {
        KLOGE("ProfileCache: Failed to remove profile");
        return false;
    }
    if (it->second) {
        expect(it->second->getTechType(), it->second->getProfileId(), ProfileChangedEvent::Delete,
               mProxy.arrivedBeforeLastRequest());
    }
    ++mGeneration;
    mLiveKeys.erase(it->first);
    mCreatedAfter.erase(it->first);
    mProfiles.erase(it);
    return true;
}

std::optional<ProfileParams> ProfileCache::get(std::shared_ptr<ProfileKey> key) {
    if (!key) return std::nullopt;
    auto it = find(*key, LogLevel::Error);
    if (it == mProfiles.end() || !it->second) return std::nullopt;
    return it->second->get();
}

bool ProfileCache::match(const FilterProfileParams& filter, std::shared_ptr<ProfileKey> key) {
    if (!key) return false;
    auto it = find(*key, LogLevel::Error);
    if (it == mProfiles.end() || !it->second) return false;
    return it->second->match(filter);
}

std::list<std::shared_ptr<IProfileKey>> ProfileCache::filter(const FilterProfileParams& filter) {
    std::list<std::shared_ptr<IProfileKey>> keys;
    for (const auto& [token, profile] : mProfiles) {
        if (!profile) {
            KLOGE("ProfileCache: null profile");
            continue;
        }
        if (profile->match(filter)) {
            profile->incRefCount();
            keys.push_back(makeKey(profile->getTechType(), profile->getProfileId(), token));
        }
    }
    return keys;
}

std::vector<std::string> ProfileCache::dump() const {
    std::vector<std::string> lines;
    lines.reserve(mProfiles.size() + mPending.size() + 2);
    lines.emplace_back("Cache:");
    for (const auto& [token, profile] : mProfiles) {
        lines.push_back("  " + std::to_string(token) + ": " +
                        (profile ? profile->dump() : std::string("null")));
    }
    lines.emplace_back("Pending:");
    for (const auto& pending : mPending) lines.push_back("  " + pending.ind.dump());
    return lines;
}

void ProfileCache::onIndication(ProfileChangedInd ind) {
    ++mGeneration;
    KLOGI("ProfileCache: onIndication < %s", ind.dump().c_str());
    const uint64_t arrival = mProxy.currentArrival();
    for (auto it = mPending.begin(); it != mPending.end(); ++it) {
        if (it->ind == ind && arrival > it->after) {
            KLOGI("ProfileCache: pending transaction confirmed");
            mPending.erase(it);
            return;
        }
    }
    KLOGI("ProfileCache: updating cache due to indication!");
    auto matches = [&ind](const std::shared_ptr<ModemProfile>& profile) {
        return profile && profile->getTechType() == ind.techType &&
               profile->getProfileId() == ind.profileId;
    };
    // Another client's change that predates a profile created here took
    // place before that profile existed: it says nothing about it.
    auto spared = [&](unsigned long token, const std::shared_ptr<ModemProfile>& profile) {
        if (!predates(token)) return false;
        KLOGI("ProfileCache: %s predates profile %s created here, which it leaves as it is",
              ind.dump().c_str(), profile->dump().c_str());
        return true;
    };
    switch (ind.event) {
        case ProfileChangedEvent::Create: {
            for (const auto& [token, profile] : mProfiles) {
                // Its profile is gone again: the index was free for this one.
                if (matches(profile) && spared(token, profile)) return;
            }
            const unsigned long token = generateToken();
            mProfiles.emplace(token, mProxy.get(ind.techType, ind.profileId));
            break;
        }
        case ProfileChangedEvent::Delete:
            for (auto it = mProfiles.begin(); it != mProfiles.end();) {
                if (!matches(it->second) || spared(it->first, it->second)) {
                    ++it;
                    continue;
                }
                mLiveKeys.erase(it->first);
                mCreatedAfter.erase(it->first);
                it = mProfiles.erase(it);
            }
            break;
        case ProfileChangedEvent::Modify:
            for (auto& [token, profile] : mProfiles) {
                // A fresh read replaces the object: count, flags and
                // listeners are not carried over.
                if (matches(profile) && !spared(token, profile)) {
                    profile = mProxy.get(ind.techType, ind.profileId);
                }
            }
            break;
        case ProfileChangedEvent::SubscriptionChange:
        case ProfileChangedEvent::ProfileReady:
            refresh();
            break;
        default:
            KLOGE("Invalid ProfileChangedEvent");
            break;
    }
}

bool ProfileCache::registerExpirationListener(std::function<void()> listener,
                                              std::weak_ptr<IProfileKey> key, unsigned long token) {
    auto it = mProfiles.find(token);
    KLOGV("ProfileCache: registerExpirationListener %d", static_cast<int>(token));
    if (it == mProfiles.end()) {
        KLOGE("%s", kUnknownToken);
        return false;
    }
    if (it->second) it->second->registerExpirationListener(std::move(listener), std::move(key));
    // Intentional: false after a registration that took, too; the callback
    // request therefore reports it as not successful, as it always has.
    return false;
}

bool ProfileCache::releaseProfile(unsigned long token) {
    KLOGI("ProfileCache: releaseProfile token=%d", static_cast<int>(token));
    auto it = find(token, LogLevel::Error);
    if (it == mProfiles.end()) return false;
    if (auto live = mLiveKeys.find(token); live != mLiveKeys.end() && --live->second <= 0) {
        mLiveKeys.erase(live);
    }
    const auto profile = it->second;
    if (!profile) return false;

    profile->clearExpiredListeners();
    if (profile->getRefCount() >= 2) {
        profile->decRefCount();
        return true;
    }
    if (profile->getIsPersistent() || !profile->getIsKivCreated()) {
        // Kept with its count: persistent and foreign profiles stay.
        // Intentional: the text says "non-persistent" though it is persistent
        // profiles that are kept; the line stays as it stands.
        KLOGI("ProfileCache: ignoring non-persistent or non-kiv created");
        return true;
    }
    if (!mProxy.remove(profile->getTechType(), profile->getProfileId())) {
        KLOGE("ProfileCache: failed to release profile");
        return false;
    }
    profile->decRefCount();
    KLOGI("Released profile %d", profile->getProfileId());
    expect(profile->getTechType(), profile->getProfileId(), ProfileChangedEvent::Delete,
           mProxy.arrivedBeforeLastRequest());
    mCreatedAfter.erase(it->first);
    mProfiles.erase(it);
    return true;
}

std::vector<ReclaimedProfile> ProfileCache::reclaim(bool dryRun) {
    std::vector<ReclaimedProfile> reclaimed;
    for (auto it = mProfiles.begin(); it != mProfiles.end();) {
        const auto profile = it->second;
        if (!profile || profile->getIsPersistent() || mLiveKeys.count(it->first) != 0) {
            ++it;
            continue;
        }
        ProfileParams params = profile->get();
        if (!params.getIsKivProfile() && !profile->getIsKivCreated()) {
            ++it;
            continue;
        }
        const TechType techType = profile->getTechType();
        const int profileId = profile->getProfileId();
        if (!dryRun) {
            if (!mProxy.remove(techType, profileId)) {
                KLOGE("ProfileCache: failed to reclaim profile %s", profile->dump().c_str());
                ++it;
                continue;
            }
            KLOGI("ProfileCache: reclaimed profile %s", profile->dump().c_str());
            expect(techType, profileId, ProfileChangedEvent::Delete,
                   mProxy.arrivedBeforeLastRequest());
            ++mGeneration;
            mCreatedAfter.erase(it->first);
            it = mProfiles.erase(it);
        } else {
            ++it;
        }
        reclaimed.push_back({techType, profileId, std::move(params)});
    }
    std::sort(reclaimed.begin(), reclaimed.end(), [](const auto& a, const auto& b) {
        return std::make_pair(a.techType, a.profileId) < std::make_pair(b.techType, b.profileId);
    });
    return reclaimed;
}

}  // namespace kiv
