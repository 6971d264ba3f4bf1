#include "LocalLogBuffer.h"

#include <sys/time.h>

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
    // The date and time change once a second: each thread formats them anew
    // only then.
    thread_local time_t sSecond = -1;
    thread_local char sDateTime[50] = {};
    if (now.tv_sec != sSecond) {
        struct tm local {};
        localtime_r(&now.tv_sec, &local);
        strftime(sDateTime, sizeof(sDateTime), "%F %X", &local);
        sSecond = now.tv_sec;
    }
    const int millis = static_cast<int>(now.tv_usec / 1000);
    const char fraction[] = {'.', static_cast<char>('0' + millis / 100),
                             static_cast<char>('0' + millis / 10 % 10),
                             static_cast<char>('0' + millis % 10)};

    std::string line;
    line.reserve(4 + 24 + 3 + mName.size() + message.size());
    line.append("    ").append(sDateTime).append(fraction, sizeof(fraction));
    line.append(" [").append(mName).append("]").append(message);

    MutexLock lock(mLock);
    // Eviction stops at the capacity before the insertion, so the buffer
    // holds up to capacity + 1 lines.
    while (mLines.size() > static_cast<size_t>(mCapacity)) mLines.pop_front();
    mLines.push_back(std::move(line));
}

std::vector<std::string> LocalLogBuffer::getLogs() {
    MutexLock lock(mLock);
    return {mLines.begin(), mLines.end()};
}

void LocalLogBuffer::flush() {
    MutexLock lock(mLock);
    mLines.clear();
}

}  // namespace kiv
