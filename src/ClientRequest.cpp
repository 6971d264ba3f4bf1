#include "ClientRequest.h"

#include <sstream>

namespace kiv {

namespace {

std::string keyText(const std::shared_ptr<IProfileKey>& key) {
    return key ? key->dump() : std::string();
}

}  // namespace

std::ostream& operator<<(std::ostream& os, ReqRespType type) {
    static constexpr const char* kNames[] = {"Add",   "Modify", "Delete",   "Filter",
                                             "Match", "Get",    "Callback", "Refresh"};
    const auto raw = static_cast<uint32_t>(type);
    if (raw < std::size(kNames)) return os << kNames[raw];
    return os << raw;
}

std::string ClientRequest::dump() const {
    std::ostringstream os;
    os << mType << " ";
    return os.str();
}

std::string AddRequest::dump() const {
    return ClientRequest::dump() + mParams.dump();
}

std::string ModifyRequest::dump() const {
    return ClientRequest::dump() + keyText(mKey) + " " + mParams.ProfileParams::dump();
}

std::string DeleteRequest::dump() const {
    return ClientRequest::dump() + keyText(mKey);
}

std::string FilterRequest::dump() const {
    return ClientRequest::dump() + "params: " + mParams.dump();
}

std::string MatchRequest::dump() const {
    return ClientRequest::dump() + keyText(mKey) + " " + mParams.dump();
}

std::string GetRequest::dump() const {
    return ClientRequest::dump() + keyText(mKey);
}

std::string CallbackRequest::dump() const {
    std::ostringstream os;
    os << ClientRequest::dump();
    if (mReleaseToken) {
        os << "Release " << *mReleaseToken;
    } else if (hasExpirationInfo()) {
        const auto key = mExpirationKey->lock();
        os << "Register " << (key ? key->dump() : std::string("null")) << *mExpirationToken;
    }
    return os.str();
}

}  // namespace kiv
