#pragma once

#include <deque>
#include <string>
#include <vector>

#include "base/Mutex.h"

namespace kiv {

// The process's recent important log lines, each stamped with local time to
// the millisecond, for dumps.
class LocalLogBuffer {
  public:
    LocalLogBuffer(std::string name, int capacity);

    // The process-wide buffer "KIV", which keeps up to 201 lines.
    static LocalLogBuffer& getInstance();

    void addLogWithTimestamp(std::string message) EXCLUDES(mLock);
    std::vector<std::string> getLogs() EXCLUDES(mLock);
    void flush() EXCLUDES(mLock);
    std::string getName() const { return mName; }

  private:
    std::deque<std::string> mLines GUARDED_BY(mLock);  // oldest first
    const std::string mName;
    const int mCapacity;
    Mutex mLock;
};

}  // namespace kiv
