#pragma once

#include "ModemProfile.h"

namespace kiv {

// A 3GPP2 (CDMA) profile: the common members only, its single IP type held
// in the common IP type. Authentication and credentials are written twice,
// once for the profile and once at PDN level. Filters that ask for any
// 3GPP-only property never match it.
class Modem3gpp2Profile : public ModemProfile {
  public:
    explicit Modem3gpp2Profile(const ProfileParams& params);
    // The password is not read back: a 3GPP2 profile read from the modem has none.
    Modem3gpp2Profile(int profileId, const wds_get_profile_settings_resp_msg_v01& r);
    ~Modem3gpp2Profile() override = default;

    bool match(const FilterProfileParams& filter) const override;
    std::shared_ptr<ModemProfile> diff(const ModifyProfileParams& requested) const override;
    ProfileParams get() const override;

  protected:
    void writeSettings(wds_get_profile_settings_resp_msg_v01& settings) const override;
};

}  // namespace kiv
