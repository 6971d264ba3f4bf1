#include "Watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace kiv::test {
namespace {

struct State {
    std::mutex lock;
    std::condition_variable changed;
    std::string test;  // the running test; empty between tests
    std::string waitingFor;
    std::function<std::string()> report;
    uint64_t generation = 0;
};

State& state() {
    static State* s = new State;  // outlives every test and the watchdog
    return *s;
}

class WatchdogListener : public testing::EmptyTestEventListener {
  public:
    explicit WatchdogListener(std::chrono::seconds deadline) : mDeadline(deadline) {
        std::thread([this] { watch(); }).detach();
    }

    void OnTestStart(const testing::TestInfo& info) override {
        std::lock_guard<std::mutex> guard(state().lock);
        state().test = std::string(info.test_suite_name()) + "." + info.name();
        state().waitingFor.clear();
        ++state().generation;
        state().changed.notify_all();
    }

    void OnTestEnd(const testing::TestInfo&) override {
        std::function<std::string()> report;
        {
            std::lock_guard<std::mutex> guard(state().lock);
            state().test.clear();
            report = std::move(state().report);
            state().report = nullptr;
            ++state().generation;
            state().changed.notify_all();
        }
    }

  private:
    void watch() {
        std::unique_lock<std::mutex> guard(state().lock);
        for (;;) {
            state().changed.wait(guard, [] { return !state().test.empty(); });
            const uint64_t generation = state().generation;
            const bool moved = state().changed.wait_for(
                    guard, mDeadline, [&] { return state().generation != generation; });
            if (moved) continue;
            std::string message = "[  HUNG    ] " + state().test + " did not finish within " +
                                  std::to_string(mDeadline.count()) + " s";
            message += state().waitingFor.empty() ? "\n"
                                                  : "; waiting for " + state().waitingFor + "\n";
            auto report = state().report;
            guard.unlock();
            if (report) message += report();
            fputs(message.c_str(), stderr);
            fflush(stderr);
            _exit(1);
        }
    }

    const std::chrono::seconds mDeadline;
};

}  // namespace

Waiting::Waiting(std::string what) {
    std::lock_guard<std::mutex> guard(state().lock);
    mPrevious = std::move(state().waitingFor);
    state().waitingFor = std::move(what);
}

Waiting::~Waiting() {
    std::lock_guard<std::mutex> guard(state().lock);
    state().waitingFor = std::move(mPrevious);
}

void setHangReport(std::function<std::string()> report) {
    std::lock_guard<std::mutex> guard(state().lock);
    state().report = std::move(report);
}

void installWatchdog(std::chrono::seconds deadline) {
    testing::UnitTest::GetInstance()->listeners().Append(new WatchdogListener(deadline));
}

}  // namespace kiv::test
