// The request pipeline put together: the manager with its worker, caller
// queue and executor. The caller queue is driven by many clients at once in
// ConcurrencyTest.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "sim/SimModem.h"
#include "src/ClientRequestManager.h"
#include "support/LibraryFixture.h"

namespace kiv {
namespace {

using namespace std::chrono_literals;

class ClientRequestManagerTest : public test::LibraryFixture {
  protected:
    // A pipeline of its own beside the Manager's, its table read.
    static std::unique_ptr<ClientRequestManager> ownPipeline() {
        auto pipeline = std::make_unique<ClientRequestManager>(0);
        EXPECT_TRUE(sim().waitUntil([] {
            return sim().requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) >= 2;
        })) << "the second pipeline did not register with the modem";
        pipeline->processClientRequest(std::make_shared<RefreshRequest>(PDC_REFRESH_COMPLETED));
        return pipeline;
    }
    static std::shared_ptr<FilterResponse> filter(ClientRequestManager& pipeline, int id) {
        FilterProfileParams params;
        params.setFilterByProfileId(id);
        return std::dynamic_pointer_cast<FilterResponse>(
                pipeline.processClientRequest(std::make_shared<FilterRequest>(params)));
    }
};

// Inside a refresh bracket every request is answered with a failure of its
// own type; once the bracket closes they are served again.
TEST_F(ClientRequestManagerTest, RefreshBracketRefusesRequestsUntilItCloses) {
    auto pipeline = ownPipeline();
    auto found = filter(*pipeline, 1);
    ASSERT_TRUE(found && found->getFilterResult().size() == 1);
    auto key = found->getFilterResult().front();
    found.reset();

    pipeline->processClientRequest(std::make_shared<RefreshRequest>(PDCRefreshStatus{0}));
    const std::shared_ptr<ClientRequest> refused[] = {
            std::make_shared<AddRequest>(AddProfileParams(true, TechType::TECH_3GPP, false)),
            std::make_shared<GetRequest>(key),
            std::make_shared<FilterRequest>(FilterProfileParams()),
            std::make_shared<CallbackRequest>(),
    };
    for (const auto& request : refused) {
        auto response = pipeline->processClientRequest(request);
        ASSERT_TRUE(response);
        EXPECT_EQ(response->getResponseType(), request->getRequestType());
        EXPECT_EQ(response->getStatus(), Status::Failure) << request->dump();
    }
    pipeline->processClientRequest(std::make_shared<RefreshRequest>(PDC_REFRESH_COMPLETED));
    found = filter(*pipeline, 1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->getStatus(), Status::Success);
}

// A request of no known type gets a failure, and no request gets none.
TEST_F(ClientRequestManagerTest, MalformedRequestsGetTypedFailures) {
    auto pipeline = ownPipeline();
    auto odd = pipeline->processClientRequest(
            std::make_shared<ClientRequest>(static_cast<ReqRespType>(42)));
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->getStatus(), Status::Failure);
    EXPECT_TRUE(log->contains(LogLevel::Error, "RequestExecutor: unknown request type 42"));
    EXPECT_FALSE(pipeline->processClientRequest(nullptr));
    EXPECT_TRUE(log->contains(LogLevel::Error, "ClientRequestManager: null request refused"));
}

TEST_F(ClientRequestManagerTest, DumpAnswersAtOnceWhileTheWorkerIsInAModemRequest) {
    auto key = findOne(1);
    ASSERT_TRUE(key);
    const auto before = cacheLines();
    sim().holdNextRequest(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
    ModifyProfileParams change;
    change.setApnName("changed");
    auto modify =
            std::async(std::launch::async, [&] { return manager().modifyProfile(change, key); });
    ASSERT_TRUE(sim().waitUntilHeld()) << "the modify did not reach the modem";
    log->clear();
    const auto during = cacheLines();  // the worker is stuck in the modem
    EXPECT_TRUE(log->lines().empty());
    EXPECT_EQ(during, before);
    sim().releaseRequests();
    ASSERT_EQ(modify.wait_for(20s), std::future_status::ready)
            << "the held modify did not finish once released";
    EXPECT_TRUE(modify.get());
    // Once the caller has its answer, the dump shows the change.
    const auto after = cacheLines();
    EXPECT_TRUE(std::any_of(after.begin(), after.end(), [](const std::string& line) {
        return line.find("ApnName=changed,") != std::string::npos;
    }));
}

TEST_F(ClientRequestManagerTest, TornDownWhileAListenerCallsBackInItRunsListenersOnTheWorker) {
    // A pipeline of its own, as Manager holds one at process exit: a
    // listener that calls back into it must not wait for a joined worker.
    auto pipeline = ownPipeline();
    ClientRequestManager* const dying = pipeline.get();
    auto found = filter(*pipeline, 1);
    ASSERT_TRUE(found && found->getFilterResult().size() == 1);
    auto key = found->getFilterResult().front();
    found.reset();
    std::promise<std::thread::id> listenerRanOn;
    key->registerExpirationListener([&] {
        // The worker refuses a request from itself rather than wait for it.
        dying->processClientRequest(std::make_shared<FilterRequest>(FilterProfileParams()));
        listenerRanOn.set_value(std::this_thread::get_id());
    });
    filter(*pipeline, 1);  // after the registration

    auto teardown = std::async(std::launch::async, [&] { pipeline.reset(); });
    ASSERT_EQ(teardown.wait_for(20s), std::future_status::ready) << "teardown waited on itself";
    auto ranOn = listenerRanOn.get_future();
    ASSERT_EQ(ranOn.wait_for(0s), std::future_status::ready)
            << "the listener did not run before teardown ended";
    EXPECT_NE(ranOn.get(), std::this_thread::get_id());
    EXPECT_EQ(log->countContaining(LogLevel::Error, "refused on the worker thread"), 1u);
    key.reset();  // the pipeline is gone: dropped with a log line
    EXPECT_EQ(log->countContaining(LogLevel::Warning,
                                   "KeyChannel: pipeline is gone, dropping Callback"),
              1u);
}

}  // namespace
}  // namespace kiv
