#include "ProfileChangedInd.h"

#include <iterator>

namespace kiv {

std::string toString(ProfileChangedEvent event) {
    static constexpr const char* kNames[] = {"Create", "Delete", "Modify", "SubscriptionChange",
                                             "ProfileReady"};
    const auto raw = static_cast<uint32_t>(event);
    return raw < std::size(kNames) ? kNames[raw] : std::to_string(raw);
}

std::ostream& operator<<(std::ostream& os, ProfileChangedEvent event) {
    return os << toString(event);
}

std::string ProfileChangedInd::dump() const {
    return toString(techType) + ":" + std::to_string(profileId) + " " + toString(event);
}

}  // namespace kiv
