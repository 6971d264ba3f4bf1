#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "IProfileKey.h"

namespace kiv {

// The channel from a handle back into the request pipeline.
using RequestFunction =
        std::function<std::shared_ptr<ClientResponse>(std::shared_ptr<ClientRequest>)>;

// A client's expiration listener and the handle it was registered through.
using ExpirationListener = std::pair<std::function<void()>, std::weak_ptr<IProfileKey>>;

// True when the listener's handle is gone (or was never set).
bool expired(const ExpirationListener& listener);

// The handle given to clients: names one cached profile by its token. It
// talks to the library only through the request function, because it dies
// on client threads.
class ProfileKey : public IProfileKey {
  public:
    ProfileKey(TechType techType, int profileId, unsigned long token,
               RequestFunction requestFunction);
    // Sends the release of this handle's token: from a client thread it waits
    // until the worker has served it; on the worker thread it runs once the
    // current pass is done.
    ~ProfileKey() override;

    int getProfileId() const override { return mProfileId; }
    TechType getTechType() const override { return mTechType; }
    unsigned long getToken() const { return mToken; }

    // Sends the registration, as the release is sent; the listener is
    // attached on the worker.
    void registerExpirationListener(std::function<void()> listener) override;

    // "3GPP:5 token=12"
    std::string dump() const override;

  private:
    const TechType mTechType;
    const int mProfileId;
    const unsigned long mToken;
    const RequestFunction mRequestFunction;
};

}  // namespace kiv
