#include "Manager.h"

#include "AdbWriter.h"
#include "ClientRequestManager.h"
#include "DiagWriter.h"
#include "LocalLogBuffer.h"
#include "LogWrapper.h"

namespace kiv {

Manager& Manager::getInstance() {
    static Manager sInstance;
    return sInstance;
}

Manager::Manager() {
    // Made before the Manager, the log singletons are destroyed after it at
    // exit: the worker it stops then may still log.
    LocalLogBuffer::getInstance();
    LogWrapper::getInstance();
    KLOGD("kiv::Manager: constructor");
}

Manager::~Manager() = default;

void Manager::init(int param, bool adbLog) {
    if (adbLog) {
        LogWrapper::getInstance().setLogWriter(std::make_unique<AdbWriter>());
    } else {
        LogWrapper::getInstance().setLogWriter(std::make_unique<DiagWriter>());
    }
    KLOGI("Manager::init(%d)", param);
    // The new pipeline is built before the old one goes.
    auto requestManager = std::make_unique<ClientRequestManager>(param);
    mRequestManager.swap(requestManager);
}

// Steps shared by every operation: the entry line, the hand-over, the exit
// line and the type-checked response. Null when not initialised or when the
// response is not a Response.
template <typename Response, typename Request>
std::shared_ptr<Response> Manager::call(const char* name, std::shared_ptr<Request> request) {
    // "Manager::<name> > <request>" and "Manager::<name> < <response>",
    // built directly: these two lines are on every call's path.
    auto& log = LogWrapper::getInstance();
    log.logMessage(LogLevel::Info, kLogTag,
                   std::string("Manager::").append(name).append(" > ").append(request->dump()));
    auto response = mRequestManager->processClientRequest(request);
    log.logMessage(LogLevel::Info, kLogTag,
                   std::string("Manager::")
                           .append(name)
                           .append(" < ")
                           .append(response ? response->dump() : std::string()));
    return std::dynamic_pointer_cast<Response>(response);
}

#define KIV_REQUIRE_INIT(failure)          \
    if (!mRequestManager) {                \
        KLOGE("Manager not initialized!"); \
        return failure;                    \
    }

std::shared_ptr<IProfileKey> Manager::addProfile(const AddProfileParams& params) {
    KIV_REQUIRE_INIT(nullptr);
    auto response = call<AddResponse>("addProfile", std::make_shared<AddRequest>(params));
    if (!response) {
        KLOGE("Unable to cast to AddResponse");
        return nullptr;
    }
    return response->getAddProfileKey();
}

bool Manager::modifyProfile(const ModifyProfileParams& params, std::shared_ptr<IProfileKey> key) {
    KIV_REQUIRE_INIT(false);
    auto response = call<ModifyResponse>("modifyProfile",
                                         std::make_shared<ModifyRequest>(params, std::move(key)));
    if (!response) {
        KLOGE("Unable to cast to ModifyResponse");
        return false;
    }
    return response->getStatus() == Status::Success;
}

bool Manager::deleteProfile(std::shared_ptr<IProfileKey> key) {
    KIV_REQUIRE_INIT(false);
    auto response =
            call<DeleteResponse>("deleteProfile", std::make_shared<DeleteRequest>(std::move(key)));
    if (!response) {
        KLOGE("Unable to cast to DeleteResponse");
        return false;
    }
    return response->getStatus() == Status::Success;
}

std::list<std::shared_ptr<IProfileKey>> Manager::filter(const FilterProfileParams& params) {
    KIV_REQUIRE_INIT({});
    auto response = call<FilterResponse>("filter", std::make_shared<FilterRequest>(params));
    if (!response) {
        KLOGE("Unable to cast to FilterResponse");
        return {};
    }
    return response->getFilterResult();
}

std::optional<ProfileParams> Manager::getProfile(std::shared_ptr<IProfileKey> key) {
    KIV_REQUIRE_INIT(std::nullopt);
    auto response = call<GetResponse>("getProfile", std::make_shared<GetRequest>(std::move(key)));
    if (!response || response->getStatus() != Status::Success) {
        KLOGE("Error in getProfile");
        return std::nullopt;
    }
    return response->getParams();
}

bool Manager::match(const FilterProfileParams& params, std::shared_ptr<IProfileKey> key) {
    KIV_REQUIRE_INIT(false);
    auto response =
            call<MatchResponse>("match", std::make_shared<MatchRequest>(params, std::move(key)));
    if (!response) {
        KLOGE("Unable to cast to MatchResponse");
        return false;
    }
    return response->getMatchResult();
}

void Manager::refresh(PDCRefreshStatus status) {
    KIV_REQUIRE_INIT();
    auto response = call<RefreshResponse>("refresh", std::make_shared<RefreshRequest>(status));
    if (!response) {
        KLOGE("Unable to cast to RefreshResponse");
        return;
    }
    KLOGW("%s", isRefreshStarted(status) ? "KIV refresh started" : "KIV refresh completed");
}

std::vector<ReclaimedProfile> Manager::reclaim(bool dryRun) {
    KIV_REQUIRE_INIT({});
    auto response = call<ReclaimResponse>("reclaim", std::make_shared<ReclaimRequest>(dryRun));
    if (!response) {
        KLOGE("Unable to cast to ReclaimResponse");
        return {};
    }
    return response->getReclaimedProfiles();
}

#undef KIV_REQUIRE_INIT

std::vector<std::string> Manager::dump() {
    std::vector<std::string> lines;
    if (mRequestManager) lines = mRequestManager->dump();
    lines.emplace_back("");
    lines.emplace_back("Logs:");
    for (auto& line : LocalLogBuffer::getInstance().getLogs()) lines.push_back(std::move(line));
    return lines;
}

}  // namespace kiv
