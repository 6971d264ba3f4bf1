#include "mmsim/ProfileService.h"

#include <cstring>
#include <sstream>

#include "mm/MmNames.h"

using android::base::Result;

namespace mmsim {

namespace {

// Builds a refusal's message.
class Text {
  public:
    template <typename T>
    Text& operator<<(const T& value) {
        mStream << value;
        return *this;
    }
    operator std::string() const { return mStream.str(); }

  private:
    std::ostringstream mStream;
};

// A refusal of this kind: the code is the kind, no system error in it.
android::base::ResultError refusal(int kind, const std::string& message) {
    return android::base::ResultError(message, kind);
}

constexpr size_t kMaxApn = sizeof(mm::Settings::apn_name) - 1;

// What an AT-command modem keeps of a profile: its APN and IP type.
mm::Settings keptByAtModem(const mm::Settings& s) {
    mm::Settings kept = {};
    kept.apn_name_valid = s.apn_name_valid;
    memcpy(kept.apn_name, s.apn_name, sizeof(kept.apn_name));
    kept.pdp_type_valid = s.pdp_type_valid;
    kept.pdp_type = s.pdp_type;
    kept.persistent_valid = s.persistent_valid;
    kept.persistent = s.persistent;
    return kept;
}

// A written dictionary the records can hold: an APN that fits, an IP type
// they have.
Result<void> checkWritable(const mm::ProfileDict& dict) {
    if (auto ok = mm::checkDict(dict); !ok.ok()) {
        return refusal(kInvalidArgs, Text() << "Invalid profile: " << ok.error().message());
    }
    for (const char* key : {"apn", "profile-name", "user", "password"}) {
        auto it = dict.find(key);
        if (it != dict.end() && std::get<std::string>(it->second).size() > kMaxApn) {
            return refusal(kInvalidArgs, Text() << "Invalid profile: '" << key << "' is too long");
        }
    }
    if (auto it = dict.find("ip-type"); it != dict.end()) {
        const uint32_t type = std::get<uint32_t>(it->second);
        if (type != mm::kIpV4 && type != mm::kIpV6 && type != mm::kIpV4V6) {
            return refusal(kUnsupported, Text() << "IP type " << type << " is not supported");
        }
    }
    return {};
}

}  // namespace

const char* errorName(int kind) {
    switch (kind) {
        case kInvalidArgs:
            return mm::kErrorInvalidArgs;
        case kNotFound:
            return mm::kErrorNotFound;
        case kConnected:
            return mm::kErrorConnected;
        case kWrongState:
            return mm::kErrorWrongState;
        case kUnsupported:
            return mm::kErrorUnsupported;
        case kThrottled:
            return mm::kErrorThrottled;
        case kUnauthorized:
            return mm::kErrorUnauthorized;
        default:
            return mm::kErrorFailed;
    }
}

mm::ProfileDict ProfileService::listed(uint8_t index, const mm::Settings& settings) const {
    auto extra = mExtra.find(index);
    mm::ProfileDict dict = mm::dictFromSettings(
            settings, index, extra == mExtra.end() ? mm::ProfileDict() : extra->second);
    if (mBehaviour == Behaviour::kAtModem) {
        for (auto it = dict.begin(); it != dict.end();) {
            const bool kept =
                    it->first == mm::kProfileIdKey || it->first == "apn" || it->first == "ip-type";
            it = kept ? std::next(it) : dict.erase(it);
        }
    }
    return dict;
}

std::vector<mm::ProfileDict> ProfileService::list() const {
    std::vector<mm::ProfileDict> profiles;
    for (const auto& profile : mModem.profiles()) {
        if (profile.type == WDS_PROFILE_TYPE_3GPP_V01) {
            profiles.push_back(listed(profile.index, profile.settings));
        }
    }
    return profiles;
}

Result<void> ProfileService::replace(uint8_t index, const mm::Settings& settings) {
    xalsim::Table table = mModem.table();
    table[{WDS_PROFILE_TYPE_3GPP_V01, index}] = settings;
    if (auto stored = mModem.restoreTable(table); !stored.ok()) {
        return refusal(kFailed, Text() << "Profile not stored: " << stored.error().message());
    }
    return {};
}

std::optional<uint8_t> ProfileService::clearedSlotBefore(int freeIndex) const {
    for (const auto& profile : mModem.profiles()) {
        if (profile.type != WDS_PROFILE_TYPE_3GPP_V01) continue;
        if (freeIndex > 0 && profile.index >= freeIndex) break;
        if (mm::isClearedSlot(mm::dictFromSettings(profile.settings, profile.index, {}))) {
            return profile.index;
        }
    }
    return std::nullopt;
}

Result<ProfileService::Stored> ProfileService::set(const mm::ProfileDict& requested) {
    if (auto ok = checkWritable(requested); !ok.ok()) return ok.error();
    const auto index = mm::profileIndex(requested);
    mm::ProfileDict extra;
    if (index && *index != -1) {
        const auto current =
                *index >= 1 && *index <= 255
                        ? mModem.getProfile(WDS_PROFILE_TYPE_3GPP_V01, static_cast<uint8_t>(*index))
                        : std::nullopt;
        if (!current) return refusal(kNotFound, Text() << "Profile '" << *index << "' not found");
        const auto slot = static_cast<uint8_t>(*index);
        mm::Settings updated = mm::applyDict(*current, requested, extra);
        if (mBehaviour == Behaviour::kAtModem) updated = keptByAtModem(updated);
        const mm::ProfileDict before = listed(slot, *current);
        std::swap(mExtra[slot], extra);
        const mm::ProfileDict after = listed(slot, updated);
        if (after == before) {
            // An identical profile is not written again.
            std::swap(mExtra[slot], extra);
            return Stored{before, false};
        }
        if (auto ok = replace(slot, updated); !ok.ok()) {
            std::swap(mExtra[slot], extra);
            return ok.error();
        }
        return Stored{after, true};
    }

    mm::Settings created = mm::applyDict(mm::Settings{}, requested, extra);
    if (mBehaviour == Behaviour::kAtModem) created = keptByAtModem(created);
    created.persistent_valid = 1;
    created.persistent = 1;
    // A slot a delete only cleared is taken before a free one above it.
    const int capacity = mModem.config().capacity3gpp;
    int freeIndex = -1;
    for (int i = xalsim::kFirst3gppIndex; i < xalsim::kFirst3gppIndex + capacity; ++i) {
        if (!mModem.getProfile(WDS_PROFILE_TYPE_3GPP_V01, static_cast<uint8_t>(i))) {
            freeIndex = i;
            break;
        }
    }
    int slot = -1;
    if (auto cleared = clearedSlotBefore(freeIndex)) {
        if (auto ok = replace(*cleared, created); !ok.ok()) return ok.error();
        slot = *cleared;
    } else if (freeIndex < 0) {
        return refusal(kFailed, Text() << "No empty profile available");
    } else {
        slot = mModem.externalCreate(WDS_PROFILE_TYPE_3GPP_V01, created);
        if (slot < 0) {
            return refusal(kFailed, Text() << "Profile not stored: " << mModem.lastCommitError());
        }
    }
    mExtra[static_cast<uint8_t>(slot)] = extra;
    return Stored{listed(static_cast<uint8_t>(slot), created), true};
}

Result<bool> ProfileService::remove(const mm::ProfileDict& properties) {
    const auto index = mm::profileIndex(properties);
    if (!index) return refusal(kInvalidArgs, Text() << "Missing 'profile-id' in profile");
    const auto current =
            *index >= 1 && *index <= 255
                    ? mModem.getProfile(WDS_PROFILE_TYPE_3GPP_V01, static_cast<uint8_t>(*index))
                    : std::nullopt;
    if (!current) return refusal(kNotFound, Text() << "Profile '" << *index << "' not found");
    if (mConnected.count(*index) != 0) {
        return refusal(kConnected,
                       Text() << "Profile '" << *index << "' is in use by a connected bearer");
    }
    const auto slot = static_cast<uint8_t>(*index);
    if (mDeleteClearsSlot) {
        if (mm::isClearedSlot(listed(slot, *current))) return false;
        mm::Settings cleared = {};
        cleared.apn_name_valid = 1;
        cleared.persistent_valid = 1;
        cleared.persistent = 1;
        if (auto ok = replace(slot, cleared); !ok.ok()) return ok.error();
    } else if (!mModem.externalDelete(WDS_PROFILE_TYPE_3GPP_V01, slot)) {
        return refusal(kFailed, Text() << "Profile not deleted: " << mModem.lastCommitError());
    }
    mExtra.erase(slot);
    return true;
}

void ProfileService::setConnected(int32_t index, bool connected) {
    if (connected) {
        mConnected.insert(index);
    } else {
        mConnected.erase(index);
    }
}

}  // namespace mmsim
