// Parameters of one data profile, as the library's clients fill them in and
// read them back, and the enumerations shared by the whole library.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace kiv {

// Radio technology family of a profile.
enum class TechType : uint32_t { TECH_3GPP = 0, TECH_3GPP2 = 1 };

// PDN type. Compared as bit sets where subsets matter: V4 = 1, V6 = 2, V4V6 = 3.
enum class IPType : uint32_t { UNKNOWN = 0, V4 = 1, V6 = 2, V4V6 = 3 };

enum class AuthType : uint32_t { NONE = 0, PAP = 1, CHAP = 2, PAP_CHAP = 3 };

// APN class; 0 has no name.
enum class ApnClass : uint32_t { IMS = 1, ADMN = 2, INET = 3, APP = 4 };

// APN type bits. A mask of them is held in an unsigned 32-bit value.
enum ApnTypes : uint32_t {
    APN_TYPE_NONE = 0,
    APN_TYPE_DEFAULT = 0x1,
    APN_TYPE_MMS = 0x2,
    APN_TYPE_SUPL = 0x4,
    APN_TYPE_DUN = 0x8,
    APN_TYPE_HIPRI = 0x10,
    APN_TYPE_FOTA = 0x20,
    APN_TYPE_IMS = 0x40,
    APN_TYPE_CBS = 0x80,
    APN_TYPE_IA = 0x100,
    APN_TYPE_EMERGENCY = 0x200,
    APN_TYPE_MCX = 0x400,
    APN_TYPE_XCAP = 0x800,
};

// Match criteria of a filter; a mask of them is held in an unsigned 32-bit value.
enum FilterMatchType : uint32_t {
    HomeIPSubset = 0x1,
    RoamIPSubset = 0x2,
    ApnNameSubset = 0x4,
    ApnTypeBitmaskSubset = 0x8,
    HomeIPSuperset = 0x10,
    RoamIPSuperset = 0x20,
};

// Texts: the names of known values, the decimal number of any other.
std::string toString(TechType value);
std::string toString(IPType value);
std::string toString(AuthType value);
std::string toString(ApnClass value);
// "NONE" for 0, else the text of every known bit in ascending order ("DEFAULT|IMS|").
std::string toString(ApnTypes mask);
// "None" for 0, else the text of every known bit in ascending order.
std::string toString(FilterMatchType mask);

// Printers writing the texts above.
std::ostream& operator<<(std::ostream& os, TechType value);
std::ostream& operator<<(std::ostream& os, IPType value);
std::ostream& operator<<(std::ostream& os, AuthType value);
std::ostream& operator<<(std::ostream& os, ApnClass value);
std::ostream& operator<<(std::ostream& os, ApnTypes mask);
std::ostream& operator<<(std::ostream& os, FilterMatchType mask);

// One data profile. Every field is optional: an absent field was not given by
// the client. Getters do not check presence; an absent field reads as its
// default value, so callers test presence first.
class ProfileParams {
  public:
    ProfileParams() = default;
    ProfileParams(const ProfileParams&) = default;
    ProfileParams& operator=(const ProfileParams&) = default;
    virtual ~ProfileParams() = default;

    virtual std::string dump() const;

    bool hasApnName() const { return mApnName.has_value(); }
    std::string getApnName() const { return mApnName.value_or(std::string()); }
    void setApnName(std::string apnName) { mApnName = std::move(apnName); }

    bool hasUserName() const { return mUserName.has_value(); }
    std::string getUserName() const { return mUserName.value_or(std::string()); }
    void setUserName(std::string userName) { mUserName = std::move(userName); }

    bool hasPassword() const { return mPassword.has_value(); }
    std::string getPassword() const { return mPassword.value_or(std::string()); }
    void setPassword(std::string password) { mPassword = std::move(password); }

    bool hasAuthType() const { return mAuthType.has_value(); }
    AuthType getAuthType() const { return mAuthType.value_or(AuthType::NONE); }
    void setAuthType(AuthType authType) { mAuthType = authType; }

    bool hasHomeIPType() const { return mHomeIPType.has_value(); }
    IPType getHomeIPType() const { return mHomeIPType.value_or(IPType::UNKNOWN); }
    void setHomeIPType(IPType ipType) { mHomeIPType = ipType; }

    bool hasRoamIPType() const { return mRoamIPType.has_value(); }
    IPType getRoamIPType() const { return mRoamIPType.value_or(IPType::UNKNOWN); }
    void setRoamIPType(IPType ipType) { mRoamIPType = ipType; }

    // ApnTypes bits.
    bool hasApnTypesMask() const { return mApnTypesMask.has_value(); }
    uint32_t getApnTypesMask() const { return mApnTypesMask.value_or(0); }
    void setApnTypesMask(uint32_t mask) { mApnTypesMask = mask; }

    bool hasApnClass() const { return mApnClass.has_value(); }
    ApnClass getApnClass() const { return mApnClass.value_or(ApnClass{}); }
    void setApnClass(ApnClass apnClass) { mApnClass = apnClass; }

    bool hasIsClatEnabled() const { return mIsClatEnabled.has_value(); }
    bool getIsClatEnabled() const { return mIsClatEnabled.value_or(false); }
    void setIsClatEnabled(bool enabled) { mIsClatEnabled = enabled; }

    bool hasIsEmergencySupported() const { return mIsEmergencySupported.has_value(); }
    bool getIsEmergencySupported() const { return mIsEmergencySupported.value_or(false); }
    void setIsEmergencySupported(bool supported) { mIsEmergencySupported = supported; }

    bool hasIsApnDisabled() const { return mIsApnDisabled.has_value(); }
    bool getIsApnDisabled() const { return mIsApnDisabled.value_or(false); }
    void setIsApnDisabled(bool disabled) { mIsApnDisabled = disabled; }

    bool hasMaxPdnsConnPerBlock() const { return mMaxPdnsConnPerBlock.has_value(); }
    int32_t getMaxPdnsConnPerBlock() const { return mMaxPdnsConnPerBlock.value_or(0); }
    void setMaxPdnsConnPerBlock(int32_t value) { mMaxPdnsConnPerBlock = value; }

    bool hasMaxPdnConnTimer() const { return mMaxPdnConnTimer.has_value(); }
    int32_t getMaxPdnConnTimer() const { return mMaxPdnConnTimer.value_or(0); }
    void setMaxPdnConnTimer(int32_t value) { mMaxPdnConnTimer = value; }

    bool hasPdnReqWaitInterval() const { return mPdnReqWaitInterval.has_value(); }
    int32_t getPdnReqWaitInterval() const { return mPdnReqWaitInterval.value_or(0); }
    void setPdnReqWaitInterval(int32_t value) { mPdnReqWaitInterval = value; }

    // True only when the flag is present and set: the profile was made by
    // this library / is its initial-attach (LTE attach) profile.
    bool getIsKivProfile() const { return mIsKivProfile.value_or(false); }
    bool getIsIAProfile() const { return mIsIAProfile.value_or(false); }

  protected:
    // Set by AddProfileParams and FilterProfileParams only.
    std::optional<bool> mIsKivProfile;
    std::optional<bool> mIsIAProfile;

  private:
    std::optional<std::string> mApnName;
    std::optional<std::string> mUserName;
    std::optional<std::string> mPassword;
    std::optional<AuthType> mAuthType;
    std::optional<IPType> mHomeIPType;
    std::optional<IPType> mRoamIPType;
    std::optional<uint32_t> mApnTypesMask;
    std::optional<ApnClass> mApnClass;
    std::optional<bool> mIsClatEnabled;
    std::optional<bool> mIsEmergencySupported;
    std::optional<bool> mIsApnDisabled;
    std::optional<int32_t> mMaxPdnsConnPerBlock;
    std::optional<int32_t> mMaxPdnConnTimer;
    std::optional<int32_t> mPdnReqWaitInterval;
};

// Parameters of a profile to create.
class AddProfileParams : public ProfileParams {
  public:
    AddProfileParams(bool persistent, TechType techType, bool isIAProfile);
    // Copies every field of params (the library-profile flag included), then
    // sets the initial-attach flag from isIAProfile.
    AddProfileParams(const ProfileParams& params, bool persistent, TechType techType,
                     bool isIAProfile);

    std::string dump() const override;

    bool getIsPersistent() const { return mPersistent; }
    TechType getTechType() const { return mTechType; }

  private:
    bool mPersistent;
    TechType mTechType;
};

// Changes to a profile: absent fields stay as they are.
class ModifyProfileParams : public ProfileParams {
  public:
    ModifyProfileParams() = default;
    explicit ModifyProfileParams(const ProfileParams& params) : ProfileParams(params) {}
};

// Criteria for finding profiles: every present field must match, as refined
// by the FilterMatchType bits.
class FilterProfileParams : public ProfileParams {
  public:
    FilterProfileParams() = default;
    // Copies every field of params; no criteria, no profile id or tech type.
    explicit FilterProfileParams(const ProfileParams& params) : ProfileParams(params) {}

    std::string dump() const override;

    uint32_t getFilterMatchCriteria() const { return mFilterMatchCriteria; }
    void addFilterMatchCriteria(uint32_t mask) { mFilterMatchCriteria |= mask; }
    void removeFilterMatchCriteria(uint32_t mask) { mFilterMatchCriteria &= ~mask; }

    bool hasFilterByProfileId() const { return mFilterByProfileId.has_value(); }
    int32_t getFilterByProfileId() const { return mFilterByProfileId.value_or(0); }
    void setFilterByProfileId(int32_t profileId) { mFilterByProfileId = profileId; }

    bool hasFilterByTechType() const { return mFilterByTechType.has_value(); }
    TechType getFilterByTechType() const { return mFilterByTechType.value_or(TechType::TECH_3GPP); }
    void setFilterByTechType(TechType techType) { mFilterByTechType = techType; }

    // These test the same flags that a profile record carries.
    bool hasFilterByIsKivProfile() const { return mIsKivProfile.has_value(); }
    void setFilterByIsKivProfile(bool isKivProfile) { mIsKivProfile = isKivProfile; }
    bool hasFilterByIsIAProfile() const { return mIsIAProfile.has_value(); }
    void setFilterByIsIAProfile(bool isIAProfile) { mIsIAProfile = isIAProfile; }

  private:
    uint32_t mFilterMatchCriteria = 0;
    std::optional<int32_t> mFilterByProfileId;
    std::optional<TechType> mFilterByTechType;
};

}  // namespace kiv
