// Tests never hang: a test that has not finished within its deadline ends
// the run with a message naming the test, what it was waiting for and
// whatever the fixtures add (the library's dump), instead of waiting for the
// runner's time-out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace kiv::test {

namespace watchdog {

struct State {
    std::mutex lock;
    std::condition_variable changed;
    std::string test;  // the running test; empty between tests
    std::string waitingFor;
    std::function<std::string()> report;
    uint64_t generation = 0;
};

// One per process, never destroyed: the watchdog's thread outlives main.
inline State& state() {
    static State* s = new State;
    return *s;
}

}  // namespace watchdog

// What a test is waiting for, for the message if it never comes. Scopes nest;
// the innermost one is named.
class Waiting {
  public:
    explicit Waiting(std::string what) {
        std::lock_guard<std::mutex> guard(watchdog::state().lock);
        mPrevious = std::move(watchdog::state().waitingFor);
        watchdog::state().waitingFor = std::move(what);
    }
    ~Waiting() {
        std::lock_guard<std::mutex> guard(watchdog::state().lock);
        watchdog::state().waitingFor = std::move(mPrevious);
    }
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

  private:
    std::string mPrevious;
};

// Adds text to the message of a test that hangs: called on the watchdog's
// thread, so it must not wait for the hung one. Cleared after every test.
inline void setHangReport(std::function<std::string()> report) {
    std::lock_guard<std::mutex> guard(watchdog::state().lock);
    watchdog::state().report = std::move(report);
}

// Arms the watchdog for every later test (the tests' main does).
void installWatchdog(std::chrono::seconds deadline);

}  // namespace kiv::test
