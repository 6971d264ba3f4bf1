#pragma once

#include <condition_variable>
#include <functional>
#include <memory>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "ProfileKey.h"
#include "base/Mutex.h"

namespace kiv {

// The keys' way back into the request pipeline. Keys hold copies of its
// request function and may outlive the pipeline (a client holding one across
// a second init): once the pipeline is gone their requests are dropped with
// a log line instead of reaching freed memory.
class KeyChannel {
  public:
    // target: the pipeline's entry; onWorker: whether the caller is its
    // worker thread, which never waits for itself.
    KeyChannel(RequestFunction target, std::function<bool()> onWorker)
        : mTarget(std::move(target)), mOnWorker(std::move(onWorker)) {}

    // The request function to give keys.
    static RequestFunction requestFunction(const std::shared_ptr<KeyChannel>& channel);

    std::shared_ptr<ClientResponse> send(std::shared_ptr<ClientRequest> request) EXCLUDES(mLock);
    // Stops forwarding; waits for the calls in flight, which the still
    // running worker answers.
    void close() EXCLUDES(mLock);

  private:
    const RequestFunction mTarget;
    const std::function<bool()> mOnWorker;
    Mutex mLock;
    std::condition_variable mIdle;
    bool mOpen GUARDED_BY(mLock) = true;
    int mInFlight GUARDED_BY(mLock) = 0;
};

}  // namespace kiv
