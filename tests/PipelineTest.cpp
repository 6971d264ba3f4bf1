// The request pipeline's classes on their own: the worker, the caller
// queue, the executor, and the manager that puts them together.

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "CallerQueue.h"
#include "CapturingLog.h"
#include "ClientRequestManager.h"
#include "LibraryFixture.h"
#include "RequestExecutor.h"
#include "SimModem.h"
#include "Worker.h"
#include "WorkerLoop.h"

namespace kiv {
namespace {

using namespace std::chrono_literals;

TEST(WorkerTest, PostedWorkRunsOnTheWorkerAfterThePassEvenWhenPostedJustBeforeStop) {
    Worker worker;
    std::atomic<int> passes{0};
    worker.start([&] { ++passes; });
    std::promise<std::thread::id> ranOn;
    worker.post([&] { ranOn.set_value(std::this_thread::get_id()); });
    worker.stop();  // the task was never woken for: the stop runs it
    const auto id = ranOn.get_future().get();
    EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_GE(passes.load(), 1);
    EXPECT_FALSE(worker.isCurrentThread());
    worker.stop();  // a second stop does nothing
}

// A thread standing in for the worker: serves the queue whenever its
// descriptor says a request waits.
class QueueServer {
  public:
    QueueServer(CallerQueue& queue, CallerQueue::Execute execute) : mQueue(queue) {
        mThread = std::thread([this, execute] {
            while (!mStop) {
                pollfd ready{mQueue.fd(), POLLIN, 0};
                if (poll(&ready, 1, 10) <= 0) continue;
                EventFd::drain(mQueue.fd());
                mQueue.serve(execute);
            }
        });
    }
    ~QueueServer() {
        mStop = true;
        mThread.join();
    }

  private:
    CallerQueue& mQueue;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

TEST(CallerQueueTest, EveryCallerGetsItsOwnAnswerWhateverTheInterleaving) {
    test::ScopedLogCapture log;
    CallerQueue queue;
    // The answer names the request it answers: a Match for key-less filters
    // of a given profile id comes back with that id as its result.
    QueueServer server(queue, [](const std::shared_ptr<ClientRequest>& request) {
        auto get = std::dynamic_pointer_cast<FilterRequest>(request);
        return std::make_shared<MatchResponse>(
                Status::Success, get && get->getFilterParams().getFilterByProfileId() % 2 == 1);
    });
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                FilterProfileParams params;
                params.setFilterByProfileId(t * 1000 + i);
                auto response = std::dynamic_pointer_cast<MatchResponse>(
                        queue.call(std::make_shared<FilterRequest>(params)));
                if (!response || response->getMatchResult() != (i % 2 == 1)) ++wrong;
            }
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(log.countContaining(LogLevel::Warning, "Handling Filter "), 800u);
}

// An executor on a cache of its own, driven on a worker loop as the manager does.
class RequestExecutorTest : public testing::Test {
  protected:
    void SetUp() override {
        auto& sim = xalsim::SimModem::instance();
        sim.reset();
        sim.seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                        xalsim::make3gppSettings("internet", "internet",
                                                 WDS_PDP_TYPE_PDP_IPV4V6_V01, 1, true));
        cache = loop.run([this] {
            return std::make_unique<ProfileCache>(loop.events(), 0, [](auto) { return nullptr; });
        });
        ASSERT_TRUE(sim.waitUntil([&] {
            return sim.requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) > 0;
        })) << "the cache's proxy did not register with the modem";
        executor = std::make_unique<RequestExecutor>(*cache);
    }
    void TearDown() override {
        loop.run([this] { cache.reset(); });
    }
    std::shared_ptr<ClientResponse> execute(std::shared_ptr<ClientRequest> request) {
        return loop.run([&] { return executor->execute(request); });
    }

    test::ScopedLogCapture log;
    test::WorkerLoop loop;
    std::unique_ptr<ProfileCache> cache;
    std::unique_ptr<RequestExecutor> executor;
};

TEST_F(RequestExecutorTest, RefreshBracketRefusesAndMalformedRequestsGetTypedFailures) {
    auto refreshed = execute(std::make_shared<RefreshRequest>(PDC_REFRESH_COMPLETED));
    ASSERT_TRUE(std::dynamic_pointer_cast<RefreshResponse>(refreshed));
    auto filtered = std::dynamic_pointer_cast<FilterResponse>(
            execute(std::make_shared<FilterRequest>(FilterProfileParams())));
    ASSERT_TRUE(filtered);
    EXPECT_EQ(filtered->getFilterResult().size(), 1u);
    auto key = filtered->getFilterResult().front();
    filtered.reset();

    execute(std::make_shared<RefreshRequest>(PDCRefreshStatus{0}));
    EXPECT_TRUE(executor->isRefreshInProgress());
    const std::shared_ptr<ClientRequest> refused[] = {
            std::make_shared<AddRequest>(AddProfileParams(true, TechType::TECH_3GPP, false)),
            std::make_shared<GetRequest>(key),
            std::make_shared<FilterRequest>(FilterProfileParams()),
            std::make_shared<CallbackRequest>(),
    };
    for (const auto& request : refused) {
        auto response = execute(request);
        ASSERT_TRUE(response);
        EXPECT_EQ(response->getResponseType(), request->getRequestType());
        EXPECT_EQ(response->getStatus(), Status::Failure) << request->dump();
    }
    execute(std::make_shared<RefreshRequest>(PDC_REFRESH_COMPLETED));
    EXPECT_FALSE(executor->isRefreshInProgress());

    // A key from before the reread, a null key, a request of no known type,
    // and no request: typed failures, and null for nothing.
    EXPECT_EQ(execute(std::make_shared<GetRequest>(key))->getStatus(), Status::Failure);
    EXPECT_EQ(execute(std::make_shared<DeleteRequest>(nullptr))->getStatus(), Status::Failure);
    auto odd = execute(std::make_shared<ClientRequest>(static_cast<ReqRespType>(42)));
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->getStatus(), Status::Failure);
    EXPECT_TRUE(log.contains(LogLevel::Error, "ClientRequestManager: unknown request type 42"));
    EXPECT_FALSE(execute(nullptr));
    key.reset();  // its release, to a cache that forgot it, goes nowhere
}

class ClientRequestManagerTest : public test::LibraryFixture {};

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
    auto pipeline = std::make_unique<ClientRequestManager>(0);
    ClientRequestManager* const dying = pipeline.get();
    ASSERT_TRUE(sim().waitUntil([] {
        return sim().requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) >= 2;
    })) << "the second pipeline did not register with the modem";
    pipeline->processClientRequest(std::make_shared<RefreshRequest>(PDC_REFRESH_COMPLETED));
    FilterProfileParams internet;
    internet.setFilterByProfileId(1);
    auto found = std::dynamic_pointer_cast<FilterResponse>(
            pipeline->processClientRequest(std::make_shared<FilterRequest>(internet)));
    ASSERT_TRUE(found && found->getFilterResult().size() == 1);
    auto key = found->getFilterResult().front();
    found.reset();
    std::promise<std::thread::id> listenerRanOn;
    key->registerExpirationListener([&] {
        // The worker refuses a request from itself rather than wait for it.
        dying->processClientRequest(std::make_shared<FilterRequest>(FilterProfileParams()));
        listenerRanOn.set_value(std::this_thread::get_id());
    });
    pipeline->processClientRequest(
            std::make_shared<FilterRequest>(internet));  // after the registration

    auto teardown = std::async(std::launch::async, [&] { pipeline.reset(); });
    ASSERT_EQ(teardown.wait_for(20s), std::future_status::ready) << "teardown waited on itself";
    auto ranOn = listenerRanOn.get_future();
    ASSERT_EQ(ranOn.wait_for(0s), std::future_status::ready)
            << "the listener did not run before teardown ended";
    EXPECT_NE(ranOn.get(), std::this_thread::get_id());
    EXPECT_EQ(log->countContaining(LogLevel::Error, "refused on the worker thread"), 1u);
    key.reset();  // the pipeline is gone: dropped with a log line
    EXPECT_EQ(log->countContaining(LogLevel::Warning,
                                   "ClientRequestManager: pipeline is gone, dropping Callback"),
              1u);
}

}  // namespace
}  // namespace kiv
