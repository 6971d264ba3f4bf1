// Policy helpers on top of the Manager: finding or creating the profiles for
// LTE attach, data calls and emergency calls, and keeping modem profiles in
// line with APN classes and a carrier's APN types. Every call runs on the
// caller's thread and reaches the library only through the Manager.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "IProfileKey.h"
#include "Manager.h"
#include "ProfileParams.h"

namespace kiv {

class Util {
  public:
    Util();
    ~Util() = default;

    // Whether existing profiles may be rewritten freely (false at first).
    void setProfileUpdateAllowed(bool allowed);

    // --- APN classes: one persistent profile per class and technology.
    void updateModemProfileByApnClass(const std::list<ProfileParams>& list3gpp,
                                      const std::list<ProfileParams>& list3gpp2);
    void updateModemProfileByApnClassAndTechType(const ProfileParams& params, TechType techType);

    // --- APN types: merge the types wanted on each APN name into the modem
    // profiles with that name, split by IP type.
    void updateAPNTypeBitmaskOnModemProfile(const std::list<ProfileParams>& list);
    void handleCombinedProfileUpdate(uint32_t mask, const std::string& apnName);
    void handleProfileUpdateByTechType(TechType techType, uint32_t v4Mask, uint32_t v6Mask,
                                       uint32_t v4v6Mask, const std::string& apnName);
    // Whether any profile of that technology, name and home IP type matched.
    bool updateByIpType(TechType techType, IPType ipType, uint32_t mask,
                        const std::string& apnName);

    // --- Profile selection.
    // The LTE attach profile, found in four stages or created persistent.
    std::shared_ptr<IProfileKey> findOrCreateProfileForLteAttach(const ProfileParams& params);
    bool matchLteAttachProfileId(int profileId, const ProfileParams& params);
    // A data-call profile; a created one is temporary.
    std::shared_ptr<IProfileKey> findOrCreateProfileForSetupDataCall(TechType techType,
                                                                     const ProfileParams& params);
    // An emergency profile; a created one is persistent, 3GPP, APN type EMERGENCY.
    std::shared_ptr<IProfileKey> findOrCreateProfileForEmergencyDataCall(
            const ProfileParams& params);

  private:
    Manager* mManager;
    bool mProfileUpdateAllowed = false;
};

}  // namespace kiv
