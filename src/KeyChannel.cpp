#include "KeyChannel.h"

#include "LogWrapper.h"

namespace kiv {

RequestFunction KeyChannel::requestFunction(const std::shared_ptr<KeyChannel>& channel) {
    return [channel](std::shared_ptr<ClientRequest> request) {
        return channel->send(std::move(request));
    };
}

std::shared_ptr<ClientResponse> KeyChannel::send(std::shared_ptr<ClientRequest> request) {
    {
        MutexLock lock(mLock);
        if (!mOpen) {
            KLOGW("KeyChannel: pipeline is gone, dropping %s",
                  request ? request->dump().c_str() : "null");
            return nullptr;
        }
        // The worker never waits here, and the pipeline outlives its worker.
        if (mOnWorker()) {
            lock.unlock();
            return mTarget(std::move(request));
        }
        ++mInFlight;
    }
    auto response = mTarget(std::move(request));
    MutexLock lock(mLock);
    if (--mInFlight == 0) mIdle.notify_all();
    return response;
}

void KeyChannel::close() {
    MutexLock lock(mLock);
    mOpen = false;
    lock.wait(mIdle, [this]() REQUIRES(mLock) { return mInFlight == 0; });
}

}  // namespace kiv
