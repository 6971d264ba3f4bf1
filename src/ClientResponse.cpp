#include "ClientResponse.h"

namespace kiv {

std::string toString(Status status) {
    switch (status) {
        case Status::Success:
            return "Success";
        case Status::Failure:
            return "Failure";
    }
    return std::to_string(static_cast<uint32_t>(status));
}

std::ostream& operator<<(std::ostream& os, Status status) {
    return os << toString(status);
}

std::string ClientResponse::dump() const {
    std::string out;
    out.reserve(160);
    out.append(toString(mType)).append(" ").append(toString(mStatus));
    return out;
}

std::string AddResponse::dump() const {
    std::string out = ClientResponse::dump();
    out += ' ';
    if (mKey) out += mKey->dump();
    return out;
}

std::string FilterResponse::dump() const {
    std::string text = ClientResponse::dump() + " ";
    for (const auto& key : mKeys) {
        text += (key ? key->dump() : std::string()) + ",";
    }
    return text;
}

std::string ReclaimResponse::dump() const {
    std::string text = ClientResponse::dump() + " ";
    for (const auto& profile : mProfiles) {
        text += toString(profile.techType) + ":" + std::to_string(profile.profileId) + ",";
    }
    return text;
}

std::string MatchResponse::dump() const {
    return ClientResponse::dump() + (mResult ? " true" : " false");
}

std::string GetResponse::dump() const {
    std::string out = ClientResponse::dump();
    out += ' ';
    if (mParams) out += mParams->dump();
    return out;
}

}  // namespace kiv
