// Requests: every client operation crosses to the library's worker thread as
// one of these.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "IProfileKey.h"
#include "ProfileParams.h"

namespace kiv {

// Type of a request and of its response.
enum class ReqRespType : uint32_t {
    Add = 0,
    Modify = 1,
    Delete = 2,
    Filter = 3,
    Match = 4,
    Get = 5,
    Callback = 6,
    Refresh = 7,
    Reclaim = 8,
};
std::string toString(ReqRespType type);
std::ostream& operator<<(std::ostream& os, ReqRespType type);

// Phase of a modem configuration refresh: 0 started, any other value completed.
enum PDCRefreshStatus : uint8_t {
    PDC_REFRESH_STARTED = 0,
    PDC_REFRESH_COMPLETED = 1,
};

inline bool isRefreshStarted(PDCRefreshStatus status) {
    return status == PDC_REFRESH_STARTED;
}

class ClientRequest {
  public:
    explicit ClientRequest(ReqRespType type) : mType(type) {}
    virtual ~ClientRequest() = default;
    virtual std::string dump() const;

    ReqRespType getRequestType() const { return mType; }

  private:
    ReqRespType mType;
};

class AddRequest : public ClientRequest {
  public:
    explicit AddRequest(AddProfileParams params)
        : ClientRequest(ReqRespType::Add), mParams(std::move(params)) {}
    std::string dump() const override;
    AddProfileParams getAddProfileParams() const { return mParams; }

  private:
    AddProfileParams mParams;
};

class ModifyRequest : public ClientRequest {
  public:
    ModifyRequest(ModifyProfileParams params, std::shared_ptr<IProfileKey> key)
        : ClientRequest(ReqRespType::Modify), mParams(std::move(params)), mKey(std::move(key)) {}
    std::string dump() const override;
    ModifyProfileParams getModifyProfileParams() const { return mParams; }
    std::shared_ptr<IProfileKey> getModifyProfileKey() const { return mKey; }

  private:
    ModifyProfileParams mParams;
    std::shared_ptr<IProfileKey> mKey;
};

class DeleteRequest : public ClientRequest {
  public:
    explicit DeleteRequest(std::shared_ptr<IProfileKey> key)
        : ClientRequest(ReqRespType::Delete), mKey(std::move(key)) {}
    std::string dump() const override;
    std::shared_ptr<IProfileKey> getDeleteProfileKey() const { return mKey; }

  private:
    std::shared_ptr<IProfileKey> mKey;
};

class FilterRequest : public ClientRequest {
  public:
    explicit FilterRequest(FilterProfileParams params)
        : ClientRequest(ReqRespType::Filter), mParams(std::move(params)) {}
    std::string dump() const override;
    FilterProfileParams getFilterParams() const { return mParams; }

  private:
    FilterProfileParams mParams;
};

class MatchRequest : public ClientRequest {
  public:
    MatchRequest(FilterProfileParams params, std::shared_ptr<IProfileKey> key)
        : ClientRequest(ReqRespType::Match), mParams(std::move(params)), mKey(std::move(key)) {}
    std::string dump() const override;
    FilterProfileParams getMatchParams() const { return mParams; }
    std::shared_ptr<IProfileKey> getMatchKey() const { return mKey; }

  private:
    FilterProfileParams mParams;
    std::shared_ptr<IProfileKey> mKey;
};

class GetRequest : public ClientRequest {
  public:
    explicit GetRequest(std::shared_ptr<IProfileKey> key)
        : ClientRequest(ReqRespType::Get), mKey(std::move(key)) {}
    std::string dump() const override;
    std::shared_ptr<IProfileKey> getProfileKey() const { return mKey; }

  private:
    std::shared_ptr<IProfileKey> mKey;
};

// What a profile handle asks of the library: the release of its token, or the
// registration of an expiration listener. The release part is checked first.
class CallbackRequest : public ClientRequest {
  public:
    CallbackRequest() : ClientRequest(ReqRespType::Callback) {}
    std::string dump() const override;

    void setReleaseToken(unsigned long token) { mReleaseToken = token; }
    bool hasReleaseToken() const { return mReleaseToken.has_value(); }
    unsigned long getReleaseToken() const { return mReleaseToken.value_or(0); }

    void setExpirationInfo(std::function<void()> cb, std::weak_ptr<IProfileKey> key,
                           unsigned long token) {
        mExpirationCb = std::move(cb);
        mExpirationKey = std::move(key);
        mExpirationToken = token;
    }
    bool hasExpirationInfo() const {
        return mExpirationToken.has_value() && mExpirationCb.has_value() &&
               mExpirationKey.has_value();
    }
    std::function<void()> getExpirationCb() const { return mExpirationCb.value_or(nullptr); }
    std::weak_ptr<IProfileKey> getExpirationKey() const {
        return mExpirationKey.value_or(std::weak_ptr<IProfileKey>());
    }
    unsigned long getExpirationToken() const { return mExpirationToken.value_or(0); }

  private:
    std::optional<unsigned long> mReleaseToken;
    std::optional<unsigned long> mExpirationToken;
    std::optional<std::function<void()>> mExpirationCb;
    std::optional<std::weak_ptr<IProfileKey>> mExpirationKey;
};

class RefreshRequest : public ClientRequest {
  public:
    explicit RefreshRequest(PDCRefreshStatus status)
        : ClientRequest(ReqRespType::Refresh), mStatus(status) {}
    PDCRefreshStatus getStatus() const { return mStatus; }

  private:
    PDCRefreshStatus mStatus;
};

// Deletes the library's temporary profiles that no live key holds (see
// Util::reclaimTemporaryProfiles); a dry run only lists them.
class ReclaimRequest : public ClientRequest {
  public:
    explicit ReclaimRequest(bool dryRun) : ClientRequest(ReqRespType::Reclaim), mDryRun(dryRun) {}
    std::string dump() const override;
    bool isDryRun() const { return mDryRun; }

  private:
    bool mDryRun;
};

}  // namespace kiv
