#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "EventManager.h"
#include "ProfileCache.h"

namespace kiv {

// Owns the library's worker thread and is the only way into the profile
// cache. Callers hand a request over through one slot and an eventfd and
// block until the worker has executed it.
//
// Callers are served one at a time in arrival order. A request made on the
// worker thread itself (a key dying inside an expiration listener) cannot
// wait for the worker: a key's callback is run once the current work is
// done, anything else is refused.
class ClientRequestManager {
  public:
    explicit ClientRequestManager(int param);
    ~ClientRequestManager();
    ClientRequestManager(const ClientRequestManager&) = delete;
    ClientRequestManager& operator=(const ClientRequestManager&) = delete;

    // Blocks until the worker answers; null when the worker could not be
    // woken, or on the worker thread (see above).
    std::shared_ptr<ClientResponse> processClientRequest(std::shared_ptr<ClientRequest> request);

    // The cache's lines, read on the worker thread.
    std::vector<std::string> dump();

    // Event callback of the request eventfd; arg is the manager.
    static void handleClientRequest(int fd, void* arg);

    class Channel;

  private:
    void runKivThread();
    bool onWorkerThread() const;
    // Executes one request against the cache; worker thread, mLock held.
    std::shared_ptr<ClientResponse> execute(const std::shared_ptr<ClientRequest>& request);
    // Runs work on the worker once its current pass is done.
    void postToWorker(std::function<void()> task);
    void runWorkerTasks();
    bool wakeWorker();

    // One waiting caller: its own wake-up and the slot its answer goes to.
    struct Caller {
        std::condition_variable turn;
        std::shared_ptr<ClientResponse> response;
        bool answered = false;
    };

    std::shared_ptr<ClientRequest> mRequest;  // guarded by mLock
    // Held by the worker for the whole execution of a request, cache and
    // modem calls included.
    std::mutex mLock;
    // Callers in arrival order; the front one is being served. The worker
    // answers it and wakes the next one itself, so that the next request is
    // handed over without waiting for the answered caller to run.
    std::deque<Caller*> mCallers;     // guarded by mLock
    bool mRefreshInProgress = false;  // guarded by mLock

    std::mutex mTasksLock;
    std::deque<std::function<void()>> mTasks;  // guarded by mTasksLock

    std::atomic<bool> mRunning{false};
    std::atomic<std::thread::id> mWorkerId{};
    int mRequestFd = -1;
    // The keys' way in; outlives this object in the keys it was copied into.
    std::shared_ptr<Channel> mChannel;
    EventManager mEventManager;
    ProfileCache mCache;
    std::thread mWorker;
};

}  // namespace kiv
