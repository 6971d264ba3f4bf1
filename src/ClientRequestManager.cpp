#include "ClientRequestManager.h"

#include <atomic>

#include "LogWrapper.h"

namespace kiv {

ClientRequestManager::ClientRequestManager(int param)
    : mChannel(std::make_shared<KeyChannel>(
              [this](std::shared_ptr<ClientRequest> request) {
                  return processClientRequest(std::move(request));
              },
              [this] { return mWorker.isCurrentThread(); })),
      mCache(mWorker.events(), param, KeyChannel::requestFunction(mChannel)),
      mExecutor(mCache),
      mDump(std::make_shared<const std::vector<std::string>>(mCache.dump())) {
    KLOGD("kiv::ClientRequestManager: constructor");
    // The request descriptor is registered before the worker starts, so
    // that the handler map is only ever touched by one thread at a time.
    mWorker.events().addEventHandler(mCallers.fd(), handleClientRequest, this, nullptr, EPOLLIN);
    mWorker.start([this] { publishDump(); });
}

ClientRequestManager::~ClientRequestManager() {
    KLOGD("kiv::ClientRequestManager: destructor");
    mChannel->close();
    // The profiles leave the cache on the worker, so that the listeners they
    // call run there and may still call into the library.
    mWorker.post([this] { mCache.clear(); });
    mWorker.stop();
    mWorker.events().removeEventHandler(mCallers.fd());
}

std::shared_ptr<ClientResponse> ClientRequestManager::processClientRequest(
        std::shared_ptr<ClientRequest> request) {
    if (!request) {
        // The worker would find an empty slot and answer no one.
        KLOGE("ClientRequestManager: null request refused");
        return nullptr;
    }
    if (mWorker.isCurrentThread()) {
        // Waiting here would wait for this very thread.
        if (request->getRequestType() == ReqRespType::Callback) {
            KLOGD("ClientRequestManager: %s deferred on the worker thread",
                  request->dump().c_str());
            mWorker.post([this, request] { mExecutor.execute(request); });
        } else {
            KLOGE("ClientRequestManager: %s refused on the worker thread", request->dump().c_str());
        }
        return nullptr;
    }
    return mCallers.call(std::move(request));
}

void ClientRequestManager::handleClientRequest(int fd, void* arg) {
    // Intentional: the trace's odd form (a line number and the operation)
    // is the library's own; it stays as it stands.
    KLOGD(":%d:%s", 77, "handleClientRequest");
    if (!EventFd::drain(fd)) KLOGE("Error while clearing the read buffer on fd %d", fd);
    auto* self = static_cast<ClientRequestManager*>(arg);
    if (self == nullptr) {
        KLOGE("arg is null");
        return;
    }
    // Published before the caller hears back: a dump after an answer shows it.
    self->mCallers.serve([self](const std::shared_ptr<ClientRequest>& request) {
        auto response = self->mExecutor.execute(request);
        self->publishDump();
        return response;
    });
}

void ClientRequestManager::publishDump() {
    if (mCache.generation() == mPublishedGeneration) return;
    mPublishedGeneration = mCache.generation();
    std::atomic_store(&mDump,
                      std::shared_ptr<const std::vector<std::string>>(
                              std::make_shared<const std::vector<std::string>>(mCache.dump())));
}

std::vector<std::string> ClientRequestManager::dump() const {
    return *std::atomic_load(&mDump);
}

}  // namespace kiv
