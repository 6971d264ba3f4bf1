// A log sink for tests: keeps every line the library writes while it is
// installed.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "LogWrapper.h"
#include "Mutex.h"

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
    // Number of lines whose message equals text exactly.
    size_t count(const std::string& text) const;
    bool contains(const std::string& text) const { return count(text) > 0; }
    // Number of lines whose message contains the fragment.
    size_t countContaining(const std::string& fragment) const;
    void clear();

    struct Store {
        mutable kiv::Mutex lock;
        std::vector<LogLine> lines GUARDED_BY(lock);
    };

  private:
    std::shared_ptr<Store> mStore;
};

}  // namespace kiv::test
