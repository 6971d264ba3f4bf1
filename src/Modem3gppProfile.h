#pragma once

#include "ModemProfile.h"

namespace kiv {

// Profile names by which the library recognises its own 3GPP profiles.
inline constexpr const char* kKivProfileName = "kiv_profile";
inline constexpr const char* kKivIAProfileName = "kiv_profile_ia";

// A 3GPP (GSM/UMTS/LTE) profile: the common members, the profile name, the
// home / LTE roaming / UMTS roaming IP types with the home override, the PDN
// throttling timers and the APN-disabled and emergency flags.
class Modem3gppProfile : public ModemProfile {
  public:
    explicit Modem3gppProfile(const ProfileParams& params);
    Modem3gppProfile(int profileId, const wds_get_profile_settings_resp_msg_v01& r);
    ~Modem3gppProfile() override = default;

    bool match(const FilterProfileParams& filter) const override;
    void apply(std::shared_ptr<ModemProfile> update) override;
    std::shared_ptr<ModemProfile> diff(const ModifyProfileParams& requested) const override;
    ProfileParams get() const override;
    std::string dump() const override;

    // The IP types to ask the modem for, given the requested ones and this
    // profile's current ones. A home type that differs from the roaming type
    // becomes a dual-stack home with the real type in the override.
    void getNewIPTypes(const ProfileParams& params, std::optional<IPType>& home,
                       std::optional<IPType>& roam, std::optional<IPType>& override) const;

    // The initial-attach profile is named "kiv_profile_ia"; a library profile
    // either that or "kiv_profile".
    bool isIAProfile() const;
    bool isKivProfile() const;

    bool hasOverrideHomeIPType() const { return mOverrideHomeIPType.has_value(); }
    IPType getOverrideHomeIPType() const { return mOverrideHomeIPType.value_or(IPType::UNKNOWN); }
    void setOverrideHomeIPType(IPType type) { mOverrideHomeIPType = type; }
    bool hasLteRoamIPType() const { return mLteRoamIPType.has_value(); }
    IPType getLteRoamIPType() const { return mLteRoamIPType.value_or(IPType::UNKNOWN); }
    void setLteRoamIPType(IPType type) { mLteRoamIPType = type; }
    bool hasUmtsRoamIPType() const { return mUmtsRoamIPType.has_value(); }
    IPType getUmtsRoamIPType() const { return mUmtsRoamIPType.value_or(IPType::UNKNOWN); }
    void setUmtsRoamIPType(IPType type) { mUmtsRoamIPType = type; }
    bool hasMaxPdnsConnPerBlock() const { return mMaxPdnsConnPerBlock.has_value(); }
    int getMaxPdnsConnPerBlock() const { return mMaxPdnsConnPerBlock.value_or(0); }
    void setMaxPdnsConnPerBlock(int value) { mMaxPdnsConnPerBlock = value; }
    bool hasMaxPdnConnTimer() const { return mMaxPdnConnTimer.has_value(); }
    int getMaxPdnConnTimer() const { return mMaxPdnConnTimer.value_or(0); }
    void setMaxPdnConnTimer(int value) { mMaxPdnConnTimer = value; }
    bool hasPdnReqWaitInterval() const { return mPdnReqWaitInterval.has_value(); }
    int getPdnReqWaitInterval() const { return mPdnReqWaitInterval.value_or(0); }
    void setPdnReqWaitInterval(int value) { mPdnReqWaitInterval = value; }
    bool hasIsApnDisabled() const { return mApnDisabled.has_value(); }
    bool getIsApnDisabled() const { return mApnDisabled.value_or(false); }
    void setIsApnDisabled(bool disabled) { mApnDisabled = disabled; }
    bool hasIsEmergencySupported() const { return mEmergencySupported.has_value(); }
    bool getIsEmergencySupported() const { return mEmergencySupported.value_or(false); }
    void setIsEmergencySupported(bool supported) { mEmergencySupported = supported; }
    bool hasProfileName() const { return mProfileName.has_value(); }
    std::string getProfileName() const { return mProfileName.value_or(std::string()); }
    void setProfileName(std::string name) { mProfileName = std::move(name); }

  protected:
    void writeSettings(wds_get_profile_settings_resp_msg_v01& settings) const override;

  private:
    friend struct Profile3gppFieldRules;
    static const ProfileField<Modem3gppProfile> kFields[9];

    std::optional<IPType> mOverrideHomeIPType;
    std::optional<IPType> mLteRoamIPType;
    std::optional<IPType> mUmtsRoamIPType;
    std::optional<int> mMaxPdnsConnPerBlock;
    std::optional<int> mMaxPdnConnTimer;
    std::optional<int> mPdnReqWaitInterval;
    std::optional<bool> mApnDisabled;
    std::optional<std::string> mProfileName;
    std::optional<bool> mEmergencySupported;
};

}  // namespace kiv
