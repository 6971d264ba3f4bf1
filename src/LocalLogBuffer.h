#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace kiv {

// The process's recent important log lines, each stamped with local time to
// the millisecond, for dumps.
class LocalLogBuffer {
  public:
    LocalLogBuffer(std::string name, int capacity);

    // The process-wide buffer "KIV", which keeps up to 201 lines.
    static LocalLogBuffer& getInstance();

    void addLogWithTimestamp(std::string message);
    std::vector<std::string> getLogs();
    void flush();
    std::string getName() const { return mName; }

  private:
    std::deque<std::string> mLines;  // guarded by mLock; oldest first
    const std::string mName;
    const int mCapacity;
    std::mutex mLock;
};

}  // namespace kiv
