// A log sink for tests: keeps every line the library writes while it is
// installed.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "src/LogWrapper.h"

namespace kiv::test {

struct LogLine {
    LogLevel level;
    std::string tag;
    std::string message;
};

class ScopedLogCapture {
  public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Lines at the level whose message equals text exactly.
    size_t count(LogLevel level, const std::string& text) const;
    // Whether such a line was written; if not, says what was (the same text
    // at another level, or every line).
    testing::AssertionResult contains(LogLevel level, const std::string& text) const;
    // Lines at the level whose message contains the fragment.
    size_t countContaining(LogLevel level, const std::string& fragment) const;
    // Lines at any level whose message contains the fragment: for checking
    // that something was not logged.
    size_t mentions(const std::string& fragment) const;
    void clear();

    struct Store {
        mutable kiv::Mutex lock;
        std::vector<LogLine> lines GUARDED_BY(lock);
    };

  private:
    std::shared_ptr<Store> mStore;
};

}  // namespace kiv::test
