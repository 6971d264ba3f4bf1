#include "LogWrapper.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "LocalLogBuffer.h"

namespace kiv {

namespace {

constexpr size_t kMaxMessage = 512;  // 511 characters and the NUL

}  // namespace

LogWrapper& LogWrapper::getInstance() {
    static LogWrapper sInstance;
    return sInstance;
}

void LogWrapper::setLogWriter(std::unique_ptr<LogWriter> writer) {
    std::shared_ptr<LogWriter> previous(std::move(writer));
    {
        std::lock_guard<std::mutex> lock(mWriterLock);
        mWriter.swap(previous);
    }
    // previous is released here, outside the lock.
}

std::shared_ptr<LogWriter> LogWrapper::currentWriter() {
    std::lock_guard<std::mutex> lock(mWriterLock);
    return mWriter;
}

void LogWrapper::log(LogLevel level, const char* tag, const char* format, ...) {
    std::string tagText(tag != nullptr ? tag : "");
    char buffer[kMaxMessage + 1] = {};
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        vsnprintf(buffer, kMaxMessage, format, args);
        va_end(args);
    }
    std::string message(buffer);

    if (auto writer = currentWriter()) writer->write(level, tagText, message);
    if (level == LogLevel::Info || level == LogLevel::Error) {
        LocalLogBuffer::getInstance().addLogWithTimestamp(std::move(message));
    }
}

}  // namespace kiv
