// Policy helpers on top of the Manager: finding or creating the profiles for
// LTE attach, data calls and emergency calls, and keeping modem profiles in
// line with APN classes and a carrier's APN types. Every call runs on the
// caller's thread and reaches the library only through the Manager.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "ClientResponse.h"
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

    // --- APN types: the types wanted on each APN name, by IP type, written
    // onto the modem profiles with that name (replacing theirs).
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

    // --- Leftovers.
    // Deletes from the modem every non-persistent profile of the library
    // (named "kiv_profile" or "kiv_profile_ia", or created by this process's
    // library) to which this process holds no live key, and returns them; a
    // dry run deletes nothing. Such profiles are left by the library's own
    // rules: a reread (refresh, ProfileReady, SubscriptionChange) voids every
    // key, a release during a refresh bracket is refused, a delete that fails
    // on the last release is not retried, and a process that dies leaves its
    // temporaries behind. Call it after start-up (init and the first
    // refresh) and after each reread.
    //
    // Only the process that owns the library's profiles on the modem may
    // call it (on a device, the one telephony process per modem): where
    // several processes use the library on one modem, it deletes the
    // others' temporaries too. 3GPP2 profiles carry no name on the modem, so
    // a 3GPP2 temporary is found only while this library still knows it
    // made it (until a reread).
    std::vector<ReclaimedProfile> reclaimTemporaryProfiles(bool dryRun = false);

  private:
    Manager* mManager;
    bool mProfileUpdateAllowed = false;
};

}  // namespace kiv
