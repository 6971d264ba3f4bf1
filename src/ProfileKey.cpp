#include "ProfileKey.h"

#include "LogWrapper.h"

namespace kiv {

bool expired(const ExpirationListener& listener) {
    return listener.second.expired();
}

ProfileKey::ProfileKey(TechType techType, int profileId, unsigned long token,
                       RequestFunction requestFunction)
    : mTechType(techType),
      mProfileId(profileId),
      mToken(token),
      mRequestFunction(std::move(requestFunction)) {}

ProfileKey::~ProfileKey() {
    if (mRequestFunction) {
        auto request = std::make_shared<CallbackRequest>();
        request->setReleaseToken(mToken);
        mRequestFunction(request);
    } else {
        KLOGE("ProfileKey: no request function, release of token %lu dropped", mToken);
    }
    KLOGD("~ProfileKey");
}

void ProfileKey::registerExpirationListener(std::function<void()> listener) {
    if (!mRequestFunction) {
        KLOGE("ProfileKey: no request function, listener of token %lu dropped", mToken);
        return;
    }
    auto request = std::make_shared<CallbackRequest>();
    request->setExpirationInfo(std::move(listener), weak_from_this(), mToken);
    mRequestFunction(request);
}

std::string ProfileKey::dump() const {
    std::string out = toString(mTechType);
    out.append(":").append(std::to_string(mProfileId)).append(" token=");
    out.append(std::to_string(mToken));
    return out;
}

}  // namespace kiv
