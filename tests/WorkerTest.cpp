// The worker thread on its own.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "src/Worker.h"

namespace kiv {
namespace {

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

}  // namespace
}  // namespace kiv
