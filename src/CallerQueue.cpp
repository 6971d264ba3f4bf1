#include "CallerQueue.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "LogWrapper.h"

namespace kiv {

CallerQueue::CallerQueue() {
    if (!mRequestFd.valid()) {
        KLOGE("Cannot create eventfd instance");
        abort();
    }
}

bool CallerQueue::wakeWorker() {
    const ssize_t written = mRequestFd.signal();
    if (written != static_cast<ssize_t>(sizeof(uint64_t))) {
        KLOGE("error in writing rv: %d error: %s", static_cast<int>(written), strerror(errno));
        return false;
    }
    return true;
}

void CallerQueue::wakeNext() {
    if (!mCallers.empty()) mCallers.front()->turn.notify_one();
}

std::shared_ptr<ClientResponse> CallerQueue::call(std::shared_ptr<ClientRequest> request) {
    MutexLock lock(mLock);
    Caller me;
    mCallers.push_back(&me);
    lock.wait(me.turn, [&]() REQUIRES(mLock) { return mCallers.front() == &me; });
    if (!wakeWorker()) {
        mCallers.pop_front();
        wakeNext();
        return nullptr;
    }
    mRequest = std::move(request);
    // The worker takes this caller off the queue when it answers.
    lock.wait(me.turn, [&] { return me.answered; });
    return std::move(me.response);
}

void CallerQueue::serve(const Execute& execute) {
    MutexLock lock(mLock);
    // No request in the slot (a wake-up for other work) wakes nobody.
    if (!mRequest) return;
    KLOGW("Handling %s", mRequest->dump().c_str());
    auto response = execute(mRequest);
    mRequest.reset();
    Caller* served = mCallers.front();
    mCallers.pop_front();
    served->response = std::move(response);
    served->answered = true;
    // Both wake-ups happen under the lock: neither caller can leave (and
    // take its condition variable with it) before the lock is released.
    served->turn.notify_one();
    wakeNext();
}

}  // namespace kiv
