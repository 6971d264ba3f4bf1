#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "base/EventFd.h"
#include "base/Mutex.h"

namespace kiv {

// How client threads hand their requests to the worker: one request slot
// and an eventfd that wakes the worker. Callers are served first come,
// first served; each waits on a condition variable of its own, and the
// worker answers the served caller in that caller's own slot and wakes the
// next one itself, so that the next request is handed over without waiting
// for the answered caller to run.
class CallerQueue {
  public:
    using Execute =
            std::function<std::shared_ptr<ClientResponse>(const std::shared_ptr<ClientRequest>&)>;

    // Aborts the process, after a log line, when no eventfd can be had.
    CallerQueue();

    // The descriptor that becomes readable when a request waits.
    int fd() const { return mRequestFd.get(); }

    // Client thread: waits its turn, hands the request over and waits for
    // the answer. Null when the worker could not be woken.
    std::shared_ptr<ClientResponse> call(std::shared_ptr<ClientRequest> request) EXCLUDES(mLock);

    // Worker thread, when the descriptor is readable: executes the request
    // in the slot, if any, holding the lock for the whole execution, and
    // answers its caller.
    void serve(const Execute& execute) EXCLUDES(mLock);

  private:
    // One waiting caller: its own wake-up and the slot its answer goes to.
    struct Caller {
        std::condition_variable turn;
        std::shared_ptr<ClientResponse> response;
        bool answered = false;
    };

    bool wakeWorker();
    void wakeNext() REQUIRES(mLock);

    Mutex mLock;
    std::shared_ptr<ClientRequest> mRequest GUARDED_BY(mLock);
    // In arrival order; the front one is being served.
    std::deque<Caller*> mCallers GUARDED_BY(mLock);
    EventFd mRequestFd;
};

}  // namespace kiv
