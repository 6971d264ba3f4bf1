#include "ClientResponse.h"

#include <sstream>

namespace kiv {

std::ostream& operator<<(std::ostream& os, Status status) {
    switch (status) {
        case Status::Success:
            return os << "Success";
        case Status::Failure:
            return os << "Failure";
    }
    return os << static_cast<uint32_t>(status);
}

std::string ClientResponse::dump() const {
    std::ostringstream os;
    os << mType << " " << mStatus;
    return os.str();
}

std::string AddResponse::dump() const {
    return ClientResponse::dump() + " " + (mKey ? mKey->dump() : std::string());
}

std::string FilterResponse::dump() const {
    std::string text = ClientResponse::dump() + " ";
    for (const auto& key : mKeys) {
        text += (key ? key->dump() : std::string()) + ",";
    }
    return text;
}

std::string MatchResponse::dump() const {
    return ClientResponse::dump() + (mResult ? " true" : " false");
}

std::string GetResponse::dump() const {
    return ClientResponse::dump() + " " + (mParams ? mParams->dump() : std::string());
}

}  // namespace kiv
