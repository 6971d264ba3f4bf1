// Responses: the worker thread's answer to each request.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ClientRequest.h"
#include "IProfileKey.h"
#include "ProfileParams.h"

namespace kiv {

enum class Status : uint32_t { Success = 0, Failure = 1 };
std::string toString(Status status);
std::ostream& operator<<(std::ostream& os, Status status);

class ClientResponse {
  public:
    ClientResponse(Status status, ReqRespType type) : mStatus(status), mType(type) {}
    virtual ~ClientResponse() = default;
    virtual std::string dump() const;

    Status getStatus() const { return mStatus; }
    ReqRespType getResponseType() const { return mType; }

  private:
    Status mStatus;
    ReqRespType mType;
};

class AddResponse : public ClientResponse {
  public:
    AddResponse(Status status, std::shared_ptr<IProfileKey> key)
        : ClientResponse(status, ReqRespType::Add), mKey(std::move(key)) {}
    std::string dump() const override;
    std::shared_ptr<IProfileKey> getAddProfileKey() const { return mKey; }

  private:
    std::shared_ptr<IProfileKey> mKey;
};

class ModifyResponse : public ClientResponse {
  public:
    explicit ModifyResponse(Status status) : ClientResponse(status, ReqRespType::Modify) {}
};

class DeleteResponse : public ClientResponse {
  public:
    explicit DeleteResponse(Status status) : ClientResponse(status, ReqRespType::Delete) {}
};

class FilterResponse : public ClientResponse {
  public:
    FilterResponse(Status status, std::list<std::shared_ptr<IProfileKey>> keys)
        : ClientResponse(status, ReqRespType::Filter), mKeys(std::move(keys)) {}
    std::string dump() const override;
    std::list<std::shared_ptr<IProfileKey>> getFilterResult() const { return mKeys; }

  private:
    std::list<std::shared_ptr<IProfileKey>> mKeys;
};

class MatchResponse : public ClientResponse {
  public:
    MatchResponse(Status status, bool result)
        : ClientResponse(status, ReqRespType::Match), mResult(result) {}
    std::string dump() const override;
    bool getMatchResult() const { return mResult; }

  private:
    bool mResult;
};

class GetResponse : public ClientResponse {
  public:
    GetResponse(Status status, std::optional<ProfileParams> params)
        : ClientResponse(status, ReqRespType::Get), mParams(std::move(params)) {}
    std::string dump() const override;
    std::optional<ProfileParams> getParams() const { return mParams; }

  private:
    std::optional<ProfileParams> mParams;
};

class CallbackResponse : public ClientResponse {
  public:
    explicit CallbackResponse(Status status) : ClientResponse(status, ReqRespType::Callback) {}
};

class RefreshResponse : public ClientResponse {
  public:
    explicit RefreshResponse(Status status) : ClientResponse(status, ReqRespType::Refresh) {}
};

// A library temporary that was (or, in a dry run, would be) deleted.
struct ReclaimedProfile {
    TechType techType;
    int profileId;
    ProfileParams params;  // as the cache held it
};

class ReclaimResponse : public ClientResponse {
  public:
    ReclaimResponse(Status status, std::vector<ReclaimedProfile> profiles)
        : ClientResponse(status, ReqRespType::Reclaim), mProfiles(std::move(profiles)) {}
    std::string dump() const override;
    const std::vector<ReclaimedProfile>& getReclaimedProfiles() const { return mProfiles; }

  private:
    std::vector<ReclaimedProfile> mProfiles;
};

}  // namespace kiv
