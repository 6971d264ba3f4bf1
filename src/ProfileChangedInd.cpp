#include "ProfileChangedInd.h"

#include <iterator>
#include <sstream>

namespace kiv {

std::ostream& operator<<(std::ostream& os, ProfileChangedEvent event) {
    static constexpr const char* kNames[] = {"Create", "Delete", "Modify", "SubscriptionChange",
                                             "ProfileReady"};
    const auto raw = static_cast<uint32_t>(event);
    if (raw < std::size(kNames)) return os << kNames[raw];
    return os << raw;
}

std::string ProfileChangedInd::dump() const {
    std::ostringstream os;
    os << techType << ":" << profileId << " " << event;
    return os.str();
}

}  // namespace kiv
