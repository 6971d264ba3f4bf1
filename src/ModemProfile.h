#pragma once

#include <cstdint>
#include <cstring>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "ProfileFields.h"
#include "ProfileKey.h"
#include "ProfileParams.h"
#include "xal/wds_v01.h"

namespace kiv {

// The library's image of one data profile stored on the modem: the members
// common to 3GPP and 3GPP2 profiles, and the cache's bookkeeping (persistence,
// made by this library, handle count, expiration listeners). Lives on the
// worker thread only.
class ModemProfile {
  public:
    // Calls the listeners whose handles are still alive.
    virtual ~ModemProfile();
    ModemProfile(const ModemProfile&) = delete;
    ModemProfile& operator=(const ModemProfile&) = delete;

    // Whether this profile satisfies every present criterion of the filter.
    virtual bool match(const FilterProfileParams& filter) const;
    // Overwrites the members present in update (a diff) in place.
    virtual void apply(std::shared_ptr<ModemProfile> update);
    // The members the request would change, or null when nothing changes.
    virtual std::shared_ptr<ModemProfile> diff(const ModifyProfileParams& requested) const = 0;
    // The profile as clients see it.
    virtual ProfileParams get() const = 0;
    // The create and modify requests of either technology: the common
    // fields, and the technology's settings (writeSettings).
    virtual wds_create_profile_req_msg_v01 constructAddRequest() const;
    virtual wds_modify_profile_settings_req_msg_v01 constructModifyRequest() const;
    virtual std::string dump() const;

    TechType getTechType() const { return mTechType; }
    int getProfileId() const { return mProfileId; }
    void setProfileId(int profileId) { mProfileId = profileId; }
    bool getIsPersistent() const { return mPersistent; }
    void setIsPersistent(bool persistent) { mPersistent = persistent; }
    bool getIsKivCreated() const { return mKivCreated; }
    void setIsKivCreated(bool kivCreated) { mKivCreated = kivCreated; }

    int getRefCount() const { return mRefCount; }
    void incRefCount() { ++mRefCount; }
    void decRefCount() { --mRefCount; }  // no floor: the cache keeps the balance

    void registerExpirationListener(std::function<void()> callback, std::weak_ptr<IProfileKey> key);
    // Drops the listeners whose handles are gone.
    void clearExpiredListeners();
    size_t getListenerCount() const { return mListeners.size(); }

    bool hasApnName() const { return mApnName.has_value(); }
    std::string getApnName() const { return mApnName.value_or(std::string()); }
    void setApnName(std::string apnName) { mApnName = std::move(apnName); }
    // In the modem's APN type encoding.
    bool hasApnTypesMask() const { return mApnTypesMask.has_value(); }
    uint64_t getApnTypesMask() const { return mApnTypesMask.value_or(0); }
    void setApnTypesMask(uint64_t mask) { mApnTypesMask = mask; }
    bool hasCommonIPType() const { return mCommonIPType.has_value(); }
    IPType getCommonIPType() const { return mCommonIPType.value_or(IPType::UNKNOWN); }
    void setCommonIPType(IPType type) { mCommonIPType = type; }
    bool hasUserName() const { return mUserName.has_value(); }
    std::string getUserName() const { return mUserName.value_or(std::string()); }
    void setUserName(std::string userName) { mUserName = std::move(userName); }
    bool hasPassword() const { return mPassword.has_value(); }
    std::string getPassword() const { return mPassword.value_or(std::string()); }
    void setPassword(std::string password) { mPassword = std::move(password); }
    bool hasAuthType() const { return mAuthType.has_value(); }
    AuthType getAuthType() const { return mAuthType.value_or(AuthType::NONE); }
    void setAuthType(AuthType type) { mAuthType = type; }
    bool hasApnClass() const { return mApnClass.has_value(); }
    ApnClass getApnClass() const { return mApnClass.value_or(ApnClass{}); }
    void setApnClass(ApnClass apnClass) { mApnClass = apnClass; }
    bool hasIsClatEnabled() const { return mClatEnabled.has_value(); }
    bool getIsClatEnabled() const { return mClatEnabled.value_or(false); }
    void setIsClatEnabled(bool enabled) { mClatEnabled = enabled; }

    // The APN-type tests of match(), on ApnTypes bits; neither checks that
    // this profile has a mask.
    bool matchSubsetApnTypesMask(uint32_t apnTypes) const;
    bool matchExactApnTypesMask(uint32_t apnTypes) const;

    wds_profile_identifier_type_v01 constructProfileIdentifier() const;

    // For every common member present in requested that this profile lacks
    // or holds differently: copies the requested value into changes and sets
    // changed (which is never cleared).
    void updateDiffParameters(ModifyProfileParams requested, ProfileParams& changes,
                              bool& changed) const;

  protected:
    // A profile not yet on the modem (id -1). The common IP type is left to
    // the subclass.
    ModemProfile(TechType techType, const ProfileParams& params);
    // A profile read from the modem.
    ModemProfile(TechType techType, int profileId, const wds_get_profile_settings_resp_msg_v01& r);

    // Clear the record, then fill the common fields.
    void updateAddParameters(wds_create_profile_req_msg_v01& request) const;
    void updateModifyParameters(wds_modify_profile_settings_req_msg_v01& request) const;
    // Writes the common members that are present.
    void updateGetParameters(FilterProfileParams& params) const;
    // The technology's own fields of a create or modify request, written
    // into a record that holds every settings field.
    virtual void writeSettings(wds_get_profile_settings_resp_msg_v01& settings) const = 0;

  private:
    friend struct ProfileFieldRules;
    static const ProfileField<ModemProfile> kFields[8];

    const TechType mTechType;
    int mProfileId = -1;
    bool mPersistent = false;
    bool mKivCreated = false;
    int mRefCount = 0;
    std::list<ExpirationListener> mListeners;

    std::optional<std::string> mApnName;  // lower case, at most 150 characters
    std::optional<uint64_t> mApnTypesMask;
    std::optional<IPType> mCommonIPType;
    std::optional<std::string> mUserName;
    std::optional<std::string> mPassword;
    std::optional<AuthType> mAuthType;
    std::optional<ApnClass> mApnClass;
    std::optional<bool> mClatEnabled;
};

// Longest APN name the modem holds.
inline constexpr size_t kMaxApnNameLength = WDS_APN_NAME_MAX_V01;

// The first 150 characters of an APN name, lower-cased.
std::string normalizeApnName(const std::string& apnName);

// Whether E matches the wanted IP type exactly, or as a superset of it when
// subsetCriterion is in the criteria, or as a subset when supersetCriterion is.
bool matchIPType(IPType wanted, IPType actual, uint32_t criteria, uint32_t subsetCriterion,
                 uint32_t supersetCriterion);

// A string field of a modem record, read only within its array: up to the
// first NUL, and never past the field's last character position.
template <size_t N>
std::string readField(const char (&field)[N]) {
    static_assert(N > 0);
    const void* nul = memchr(field, '\0', N - 1);
    const size_t length = nul ? static_cast<const char*>(nul) - field : N - 1;
    return std::string(field, length);
}

// Copies at most N - 1 characters of text into a zeroed field of N bytes.
template <size_t N>
void writeField(char (&field)[N], const std::string& text) {
    static_assert(N > 0);
    const size_t length = text.size() < N - 1 ? text.size() : N - 1;
    memcpy(field, text.data(), length);
    field[length] = '\0';
}

// Writes an optional field of a modem record: its valid flag and its value.
template <typename Field, typename Value>
void putField(uint8_t& valid, Field& field, Value value) {
    valid = 1;
    field = static_cast<Field>(value);
}

// The same for a string field, cut to fit.
template <size_t N>
void putText(uint8_t& valid, char (&field)[N], const std::string& text) {
    valid = 1;
    writeField(field, text);
}

}  // namespace kiv
