#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "ProfileParams.h"

namespace kiv {

enum class ProfileChangedEvent : uint32_t {
    Create = 0,
    Delete = 1,
    Modify = 2,
    SubscriptionChange = 3,
    ProfileReady = 4,
};
std::string toString(ProfileChangedEvent event);
std::ostream& operator<<(std::ostream& os, ProfileChangedEvent event);

// One change of the modem's profile table: announced by the modem, or
// expected by the cache as the echo of its own operation.
struct ProfileChangedInd {
    TechType techType = TechType::TECH_3GPP;
    int profileId = 0;
    ProfileChangedEvent event = ProfileChangedEvent::Create;

    // "3GPP:3 Modify"
    std::string dump() const;

    bool operator==(const ProfileChangedInd& other) const {
        return techType == other.techType && profileId == other.profileId && event == other.event;
    }
    bool operator!=(const ProfileChangedInd& other) const { return !(*this == other); }
};

}  // namespace kiv
