#include "ClientRequest.h"

#include <iterator>

namespace kiv {

std::string toString(ReqRespType type) {
    static constexpr const char* kNames[] = {"Add", "Modify",   "Delete",  "Filter", "Match",
                                             "Get", "Callback", "Refresh", "Reclaim"};
    const auto raw = static_cast<uint32_t>(type);
    return raw < std::size(kNames) ? kNames[raw] : std::to_string(raw);
}

std::ostream& operator<<(std::ostream& os, ReqRespType type) {
    return os << toString(type);
}

std::string ClientRequest::dump() const {
    std::string out;
    out.reserve(160);
    out.append(toString(mType)).append(" ");
    return out;
}

namespace {

std::string withKey(std::string out, const std::shared_ptr<IProfileKey>& key) {
    if (key) out += key->dump();
    return out;
}

}  // namespace

std::string AddRequest::dump() const {
    return ClientRequest::dump() + mParams.dump();
}

std::string ModifyRequest::dump() const {
    return withKey(ClientRequest::dump(), mKey) + " " + mParams.ProfileParams::dump();
}

std::string DeleteRequest::dump() const {
    return withKey(ClientRequest::dump(), mKey);
}

std::string FilterRequest::dump() const {
    return ClientRequest::dump() + "params: " + mParams.dump();
}

std::string MatchRequest::dump() const {
    return withKey(ClientRequest::dump(), mKey) + " " + mParams.dump();
}

std::string GetRequest::dump() const {
    return withKey(ClientRequest::dump(), mKey);
}

std::string ReclaimRequest::dump() const {
    return ClientRequest::dump() + (mDryRun ? "dryRun=true" : "dryRun=false");
}

std::string CallbackRequest::dump() const {
    std::string out = ClientRequest::dump();
    if (mReleaseToken) {
        out += "Release " + std::to_string(*mReleaseToken);
    } else if (hasExpirationInfo()) {
        const auto key = mExpirationKey->lock();
        out += "Register " + (key ? key->dump() : std::string("null")) +
               std::to_string(*mExpirationToken);
    }
    return out;
}

}  // namespace kiv
