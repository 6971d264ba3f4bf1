// The library's entry point: one per process.
#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "IProfileKey.h"
#include "ProfileParams.h"

namespace kiv {

class ClientRequestManager;

// Every profile operation blocks until the library's worker thread has
// executed it. Failures are reported by a null key, false, an empty list or
// an empty optional, with the reason in the log.
class Manager {
  public:
    static Manager& getInstance();

    // Brings the library up against modem instance `param`, logging to the
    // Android log when adbLog is true and to the modem diagnostics channel
    // otherwise. Calling it again replaces the whole pipeline: keys obtained
    // before must not be used afterwards. Must not race with other calls.
    void init(int param, bool adbLog);

    std::shared_ptr<IProfileKey> addProfile(const AddProfileParams& params);
    bool modifyProfile(const ModifyProfileParams& params, std::shared_ptr<IProfileKey> key);
    bool deleteProfile(std::shared_ptr<IProfileKey> key);
    std::list<std::shared_ptr<IProfileKey>> filter(const FilterProfileParams& params);
    std::optional<ProfileParams> getProfile(std::shared_ptr<IProfileKey> key);
    bool match(const FilterProfileParams& params, std::shared_ptr<IProfileKey> key);
    // Brackets a modem reconfiguration: while started, every other request
    // is refused; on completion the cache is reread and earlier keys die.
    void refresh(PDCRefreshStatus status);
    // The cache and the recent important log lines.
    std::vector<std::string> dump();

    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

  private:
    friend class Util;

    Manager();
    ~Manager();
    // For Util::reclaimTemporaryProfiles: a policy, not a basic operation.
    std::vector<ReclaimedProfile> reclaim(bool dryRun);

    template <typename Response, typename Request>
    std::shared_ptr<Response> call(const char* name, std::shared_ptr<Request> request);

    std::unique_ptr<ClientRequestManager> mRequestManager;
};

}  // namespace kiv
