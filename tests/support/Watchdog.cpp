#include "Watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace kiv::test {
namespace {

using watchdog::state;

// Runs on a thread of its own for the life of the process; it touches only
// the process-wide state, never the listener, which gtest deletes at exit.
void watch(std::chrono::seconds deadline) {
    std::unique_lock<std::mutex> guard(state().lock);
    for (;;) {
        state().changed.wait(guard, [] { return !state().test.empty(); });
        const uint64_t generation = state().generation;
        const bool moved = state().changed.wait_for(
                guard, deadline, [&] { return state().generation != generation; });
        if (moved) continue;
        std::string message = "[  HUNG    ] " + state().test + " did not finish within " +
                              std::to_string(deadline.count()) + " s";
        message += state().waitingFor.empty() ? "\n" : "; waiting for " + state().waitingFor + "\n";
        auto report = state().report;
        guard.unlock();
        if (report) message += report();
        fputs(message.c_str(), stderr);
        fflush(stderr);
        _exit(1);
    }
}

class WatchdogListener : public testing::EmptyTestEventListener {
  public:
    void OnTestStart(const testing::TestInfo& info) override {
        std::lock_guard<std::mutex> guard(state().lock);
        state().test = std::string(info.test_suite_name()) + "." + info.name();
        state().waitingFor.clear();
        ++state().generation;
        state().changed.notify_all();
    }

    void OnTestEnd(const testing::TestInfo&) override {
        std::function<std::string()> report;  // let go of outside the lock
        std::lock_guard<std::mutex> guard(state().lock);
        state().test.clear();
        report.swap(state().report);
        ++state().generation;
        state().changed.notify_all();
    }
};

}  // namespace

void installWatchdog(std::chrono::seconds deadline) {
    std::thread(watch, deadline).detach();
    testing::UnitTest::GetInstance()->listeners().Append(new WatchdogListener);
}

}  // namespace kiv::test
