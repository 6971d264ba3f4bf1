#pragma once

#include <memory>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "ProfileCache.h"

namespace kiv {

// Executes client requests against the profile cache: one typed response
// per request, a typed failure for a request that is refused (a refresh is
// in progress), malformed or not understood. Plain code: the worker thread
// calls it, one request at a time.
class RequestExecutor {
  public:
    explicit RequestExecutor(ProfileCache& cache) : mCache(cache) {}

    // Null only for a null request.
    std::shared_ptr<ClientResponse> execute(const std::shared_ptr<ClientRequest>& request);

    // Between a refresh-start and a refresh-complete request every other
    // request is refused.
    bool isRefreshInProgress() const { return mRefreshInProgress; }

  private:
    ProfileCache& mCache;
    bool mRefreshInProgress = false;
};

}  // namespace kiv
