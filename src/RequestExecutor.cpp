#include "RequestExecutor.h"

#include "LogWrapper.h"

namespace kiv {

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
        case ReqRespType::Reclaim:
            return std::make_shared<ReclaimResponse>(Status::Failure,
                                                     std::vector<ReclaimedProfile>());
    }
    return std::make_shared<ClientResponse>(Status::Failure, type);
}

Status statusOf(bool success) {
    return success ? Status::Success : Status::Failure;
}

}  // namespace

std::shared_ptr<ClientResponse> RequestExecutor::execute(
        const std::shared_ptr<ClientRequest>& request) {
    if (!request) return nullptr;
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
        case ReqRespType::Reclaim: {
            auto reclaim = std::dynamic_pointer_cast<ReclaimRequest>(request);
            if (!reclaim) break;
            return std::make_shared<ReclaimResponse>(Status::Success,
                                                     mCache.reclaim(reclaim->isDryRun()));
        }
        default:
            // Answered all the same, so that no caller waits forever.
            KLOGE("RequestExecutor: unknown request type %u", static_cast<unsigned>(type));
            break;
    }
    return failureFor(type);
}

}  // namespace kiv
