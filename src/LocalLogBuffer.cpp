#include "LocalLogBuffer.h"

#include <sys/time.h>

#include <cstdio>
#include <ctime>

namespace kiv {

LocalLogBuffer::LocalLogBuffer(std::string name, int capacity)
    : mName(std::move(name)), mCapacity(capacity < 0 ? 0 : capacity) {}

LocalLogBuffer& LocalLogBuffer::getInstance() {
    static LocalLogBuffer sInstance("KIV", 200);
    return sInstance;
}

void LocalLogBuffer::addLogWithTimestamp(std::string message) {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    struct tm local {};
    localtime_r(&now.tv_sec, &local);
    char dateTime[50] = {};
    strftime(dateTime, sizeof(dateTime), "%F %X", &local);
    char stamp[100] = {};
    snprintf(stamp, sizeof(stamp), "%s.%03d", dateTime, static_cast<int>(now.tv_usec / 1000));

    std::string line;
    line.reserve(4 + 24 + 3 + mName.size() + message.size());
    line.append("    ").append(stamp).append(" [").append(mName).append("]").append(message);

    std::lock_guard<std::mutex> lock(mLock);
    // Eviction stops at the capacity before the insertion, so the buffer
    // holds up to capacity + 1 lines.
    while (mLines.size() > static_cast<size_t>(mCapacity)) mLines.pop_front();
    mLines.push_back(std::move(line));
}

std::vector<std::string> LocalLogBuffer::getLogs() {
    std::lock_guard<std::mutex> lock(mLock);
    return {mLines.begin(), mLines.end()};
}

void LocalLogBuffer::flush() {
    std::lock_guard<std::mutex> lock(mLock);
    mLines.clear();
}

}  // namespace kiv
