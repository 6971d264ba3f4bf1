#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CallerQueue.h"
#include "ClientRequest.h"
#include "ClientResponse.h"
#include "KeyChannel.h"
#include "ProfileCache.h"
#include "RequestExecutor.h"
#include "Worker.h"

namespace kiv {

// The library's pipeline and the only way into the profile cache: client
// threads hand requests to the worker thread through the caller queue and
// block until it has executed them against the cache.
//
// Ownership, in the order the members are made:
//
//   ClientRequestManager
//   ├── Worker            the thread and its EventManager
//   ├── KeyChannel        the keys' way back in (shared with the keys)
//   ├── ProfileCache      on the worker's event loop; owns the XalWdsProxy
//   ├── RequestExecutor   requests against the cache
//   ├── CallerQueue       client threads' way in: the slot and its eventfd
//   └── the dump snapshot, published by the worker
//
// A request made on the worker thread itself (a key dying inside an
// expiration listener) cannot wait for the worker: a key's callback is run
// once the current pass is done, anything else is refused.
class ClientRequestManager {
  public:
    explicit ClientRequestManager(int param);
    ~ClientRequestManager();
    ClientRequestManager(const ClientRequestManager&) = delete;
    ClientRequestManager& operator=(const ClientRequestManager&) = delete;

    // Blocks until the worker answers; null when the worker could not be
    // woken, or on the worker thread (see above).
    std::shared_ptr<ClientResponse> processClientRequest(std::shared_ptr<ClientRequest> request);

    // The cache's lines as the worker last published them: answered at
    // once, with no request and no log line, even while the worker is busy.
    std::vector<std::string> dump() const;

    // Event callback of the request eventfd; arg is the manager.
    static void handleClientRequest(int fd, void* arg);

  private:
    // After every pass of the worker: a changed cache is published for dump().
    void publishDump();

    Worker mWorker;
    std::shared_ptr<KeyChannel> mChannel;
    ProfileCache mCache;
    RequestExecutor mExecutor;
    CallerQueue mCallers;
    uint64_t mPublishedGeneration = 0;  // worker thread only
    // Replaced whole by the worker, read by any thread (atomic shared_ptr access).
    std::shared_ptr<const std::vector<std::string>> mDump;
};

}  // namespace kiv
