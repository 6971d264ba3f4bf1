#include "ClientRequestManager.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>

#include "LogWrapper.h"

namespace kiv {

// The request function of every key: forwards to the manager while it
// exists, and drops the request with a log line once it is gone.
class ClientRequestManager::Channel {
  public:
    explicit Channel(ClientRequestManager* owner) : mOwner(owner) {}

    std::shared_ptr<ClientResponse> send(std::shared_ptr<ClientRequest> request) {
        ClientRequestManager* owner;
        {
            std::lock_guard<std::mutex> lock(mLock);
            owner = mOwner;
            if (owner == nullptr) {
                KLOGW("ClientRequestManager: pipeline is gone, dropping %s",
                      request ? request->dump().c_str() : "null");
                return nullptr;
            }
            // The worker never waits here: the manager outlives its worker.
            if (owner->onWorkerThread()) return owner->processClientRequest(std::move(request));
            ++mInFlight;
        }
        auto response = owner->processClientRequest(std::move(request));
        std::lock_guard<std::mutex> lock(mLock);
        if (--mInFlight == 0) mIdle.notify_all();
        return response;
    }

    // Stops forwarding; waits for the calls in flight, which the still
    // running worker answers.
    void close() {
        std::unique_lock<std::mutex> lock(mLock);
        mOwner = nullptr;
        mIdle.wait(lock, [this] { return mInFlight == 0; });
    }

  private:
    std::mutex mLock;
    std::condition_variable mIdle;
    ClientRequestManager* mOwner;  // guarded by mLock
    int mInFlight = 0;             // guarded by mLock
};

namespace {

// Failure responses for every request type, for refused and malformed requests.
std::shared_ptr<ClientResponse> failureFor(ReqRespType type) {
    switch (type) {
        case ReqRespType::Add:
            return std::make_shared<AddResponse>(Status::Failure, nullptr);
        case ReqRespType::Modify:
            return std::make_shared<ModifyResponse>(Status::Failure);
        case ReqRespType::Delete:
            return std::make_shared<DeleteResponse>(Status::Failure);
        case ReqRespType::Filter:
            return std::make_shared<FilterResponse>(Status::Failure,
                                                    std::list<std::shared_ptr<IProfileKey>>());
        case ReqRespType::Match:
            return std::make_shared<MatchResponse>(Status::Failure, false);
        case ReqRespType::Get:
            return std::make_shared<GetResponse>(Status::Failure, std::nullopt);
        case ReqRespType::Callback:
            return std::make_shared<CallbackResponse>(Status::Failure);
        case ReqRespType::Refresh:
            return std::make_shared<RefreshResponse>(Status::Failure);
    }
    return std::make_shared<ClientResponse>(Status::Failure, type);
}

Status statusOf(bool success) {
    return success ? Status::Success : Status::Failure;
}

}  // namespace

ClientRequestManager::ClientRequestManager(int param)
    : mChannel(std::make_shared<Channel>(this)),
      mEventManager(),
      mCache(mEventManager, param, [channel = mChannel](std::shared_ptr<ClientRequest> request) {
          return channel->send(std::move(request));
      }) {
    KLOGD("kiv::ClientRequestManager: constructor");
    mRefreshInProgress = false;
    // The request descriptor is registered before the worker starts, so that
    // the handler map is only ever touched by one thread at a time.
    mRequestFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (mRequestFd == -1) {
        KLOGE("Cannot create eventfd instance");
        abort();
    }
    mEventManager.addEventHandler(mRequestFd, handleClientRequest, this, nullptr, EPOLLIN);
    // Set here rather than by the worker, so that a destructor that follows
    // at once cannot be overtaken by a late-starting worker.
    mRunning = true;
    mWorker = std::thread([this] { runKivThread(); });
}

ClientRequestManager::~ClientRequestManager() {
    KLOGD("kiv::ClientRequestManager: destructor");
    mChannel->close();
    mRunning = false;
    mEventManager.wake();
    mWorker.join();
    mEventManager.removeEventHandler(mRequestFd);
    close(mRequestFd);
}

void ClientRequestManager::runKivThread() {
    mWorkerId = std::this_thread::get_id();
    KLOGI("KIV thread started");
    while (mRunning) {
        mEventManager.processEvents();
        runWorkerTasks();
    }
}

bool ClientRequestManager::onWorkerThread() const {
    return std::this_thread::get_id() == mWorkerId.load();
}

bool ClientRequestManager::wakeWorker() {
    const uint64_t one = 1;
    const ssize_t written = write(mRequestFd, &one, sizeof(one));
    if (written != static_cast<ssize_t>(sizeof(one))) {
        KLOGE("error in writing rv: %d error: %s", static_cast<int>(written), strerror(errno));
        return false;
    }
    return true;
}

void ClientRequestManager::postToWorker(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(mTasksLock);
    mTasks.push_back(std::move(task));
}

void ClientRequestManager::runWorkerTasks() {
    for (;;) {
        std::deque<std::function<void()>> tasks;
        {
            std::lock_guard<std::mutex> lock(mTasksLock);
            if (mTasks.empty()) return;
            tasks.swap(mTasks);
        }
        for (auto& task : tasks) task();
    }
}

std::shared_ptr<ClientResponse> ClientRequestManager::processClientRequest(
        std::shared_ptr<ClientRequest> request) {
    if (!request) {
        // The worker would find an empty slot and answer no one.
        KLOGE("ClientRequestManager: null request refused");
        return nullptr;
    }
    if (onWorkerThread()) {
        // Waiting here would wait for this very thread.
        if (request->getRequestType() == ReqRespType::Callback) {
            KLOGD("ClientRequestManager: %s deferred on the worker thread",
                  request->dump().c_str());
            postToWorker([this, request] {
                std::lock_guard<std::mutex> lock(mLock);
                execute(request);
            });
        } else {
            KLOGE("ClientRequestManager: %s refused on the worker thread", request->dump().c_str());
        }
        return nullptr;
    }

    std::unique_lock<std::mutex> lock(mLock);
    Caller me;
    mCallers.push_back(&me);
    me.turn.wait(lock, [&] { return mCallers.front() == &me; });
    if (!wakeWorker()) {
        mCallers.pop_front();
        if (!mCallers.empty()) mCallers.front()->turn.notify_one();
        return nullptr;
    }
    mRequest = std::move(request);
    // The worker takes this caller off the queue when it answers.
    me.turn.wait(lock, [&] { return me.answered; });
    return std::move(me.response);
}

void ClientRequestManager::handleClientRequest(int fd, void* arg) {
    KLOGD(":%d:%s", 77, "handleClientRequest");
    uint64_t value;
    while (read(fd, &value, sizeof(value)) > 0) {
    }
    if (errno != EAGAIN) KLOGE("Error while clearing the read buffer on fd %d", fd);
    auto* self = static_cast<ClientRequestManager*>(arg);
    if (self == nullptr) {
        KLOGE("arg is null");
        return;
    }
    std::lock_guard<std::mutex> lock(self->mLock);
    // The caller being served is the front one; no request in the slot
    // (a wake-up for other work) wakes nobody.
    if (!self->mRequest) return;
    KLOGW("Handling %s", self->mRequest->dump().c_str());
    auto response = self->execute(self->mRequest);
    self->mRequest.reset();
    Caller* served = self->mCallers.front();
    self->mCallers.pop_front();
    served->response = std::move(response);
    served->answered = true;
    // Both wake-ups happen under the lock: neither caller can leave (and
    // take its condition variable with it) before the lock is released.
    served->turn.notify_one();
    if (!self->mCallers.empty()) self->mCallers.front()->turn.notify_one();
}

std::shared_ptr<ClientResponse> ClientRequestManager::execute(
        const std::shared_ptr<ClientRequest>& request) {
    const ReqRespType type = request->getRequestType();
    if (mRefreshInProgress && type != ReqRespType::Refresh) return failureFor(type);

    switch (type) {
        case ReqRespType::Add: {
            auto add = std::dynamic_pointer_cast<AddRequest>(request);
            if (!add) break;
            // Success even when the cache failed: the key tells.
            return std::make_shared<AddResponse>(Status::Success,
                                                 mCache.add(add->getAddProfileParams()));
        }
        case ReqRespType::Modify: {
            auto modify = std::dynamic_pointer_cast<ModifyRequest>(request);
            if (!modify) break;
            auto key = std::dynamic_pointer_cast<ProfileKey>(modify->getModifyProfileKey());
            if (!key) break;
            return std::make_shared<ModifyResponse>(
                    statusOf(mCache.modify(modify->getModifyProfileParams(), key)));
        }
        case ReqRespType::Delete: {
            auto remove = std::dynamic_pointer_cast<DeleteRequest>(request);
            if (!remove) break;
            auto key = std::dynamic_pointer_cast<ProfileKey>(remove->getDeleteProfileKey());
            if (!key) break;
            return std::make_shared<DeleteResponse>(statusOf(mCache.remove(key)));
        }
        case ReqRespType::Filter: {
            auto filter = std::dynamic_pointer_cast<FilterRequest>(request);
            if (!filter) break;
            return std::make_shared<FilterResponse>(Status::Success,
                                                    mCache.filter(filter->getFilterParams()));
        }
        case ReqRespType::Match: {
            auto match = std::dynamic_pointer_cast<MatchRequest>(request);
            if (!match) break;
            auto key = std::dynamic_pointer_cast<ProfileKey>(match->getMatchKey());
            if (!key) break;
            return std::make_shared<MatchResponse>(Status::Success,
                                                   mCache.match(match->getMatchParams(), key));
        }
        case ReqRespType::Get: {
            auto get = std::dynamic_pointer_cast<GetRequest>(request);
            if (!get) break;
            auto key = std::dynamic_pointer_cast<ProfileKey>(get->getProfileKey());
            if (!key) break;
            auto params = mCache.get(key);
            if (!params) break;
            return std::make_shared<GetResponse>(Status::Success, std::move(params));
        }
        case ReqRespType::Callback: {
            auto callback = std::dynamic_pointer_cast<CallbackRequest>(request);
            if (!callback) break;
            bool done = false;
            if (callback->hasReleaseToken()) {
                done = mCache.releaseProfile(callback->getReleaseToken());
            } else if (callback->hasExpirationInfo()) {
                done = mCache.registerExpirationListener(callback->getExpirationCb(),
                                                         callback->getExpirationKey(),
                                                         callback->getExpirationToken());
            }
            return std::make_shared<CallbackResponse>(statusOf(done));
        }
        case ReqRespType::Refresh: {
            auto refresh = std::dynamic_pointer_cast<RefreshRequest>(request);
            if (!refresh) break;
            if (isRefreshStarted(refresh->getStatus())) {
                mRefreshInProgress = true;
            } else {
                mRefreshInProgress = false;
                mCache.refresh();
            }
            return std::make_shared<RefreshResponse>(Status::Success);
        }
        default:
            // Answered all the same, so that no caller waits forever.
            KLOGE("ClientRequestManager: unknown request type %u", static_cast<unsigned>(type));
            break;
    }
    return failureFor(type);
}

std::vector<std::string> ClientRequestManager::dump() {
    if (onWorkerThread()) return mCache.dump();
    // The cache belongs to the worker: read it there, between requests.
    auto lines = std::make_shared<std::promise<std::vector<std::string>>>();
    auto result = lines->get_future();
    postToWorker([this, lines] { lines->set_value(mCache.dump()); });
    if (!wakeWorker()) return {};
    return result.get();
}

}  // namespace kiv
