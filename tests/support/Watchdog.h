// Tests never hang: a test that has not finished within its deadline ends
// the run with a message naming the test, what it was waiting for and
// whatever the fixtures add (the library's dump), instead of waiting for the
// runner's time-out.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace kiv::test {

// What a test is waiting for, for the message if it never comes. Scopes nest;
// the innermost one is named.
class Waiting {
  public:
    explicit Waiting(std::string what);
    ~Waiting();
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

  private:
    std::string mPrevious;
};

// Adds text to the message of a test that hangs: called on the watchdog's
// thread, so it must not wait for the hung one. Cleared after every test.
void setHangReport(std::function<std::string()> report);

// Arms the watchdog for every later test (the tests' main does).
void installWatchdog(std::chrono::seconds deadline);

}  // namespace kiv::test
