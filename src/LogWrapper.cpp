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
        MutexLock lock(mWriterLock);
        mWriter.swap(previous);
    }
    // previous is released here, outside the lock.
}

std::shared_ptr<LogWriter> LogWrapper::currentWriter() {
    MutexLock lock(mWriterLock);
    return mWriter;
}

namespace {

bool keptInHistory(LogLevel level) {
    return level == LogLevel::Info || level == LogLevel::Error;
}

}  // namespace

bool LogWrapper::isLoggable(LogLevel level) {
    if (keptInHistory(level)) return true;
    MutexLock lock(mWriterLock);
    return mWriter && mWriter->isLoggable(level);
}

void LogWrapper::log(LogLevel level, const char* tag, const char* format, ...) {
    auto writer = currentWriter();
    const bool toWriter = writer && writer->isLoggable(level);
    if (!toWriter && !keptInHistory(level)) return;

    std::string tagText(tag != nullptr ? tag : "");
    char buffer[kMaxMessage + 1] = {};
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        vsnprintf(buffer, kMaxMessage, format, args);
        va_end(args);
    }
    std::string message(buffer);

    if (toWriter) writer->write(level, tagText, message);
    if (keptInHistory(level)) {
        LocalLogBuffer::getInstance().addLogWithTimestamp(std::move(message));
    }
}

void LogWrapper::logMessage(LogLevel level, const char* tag, std::string message) {
    auto writer = currentWriter();
    const bool toWriter = writer && writer->isLoggable(level);
    if (!toWriter && !keptInHistory(level)) return;
    if (message.size() > kMaxMessage - 1) message.resize(kMaxMessage - 1);
    if (toWriter) writer->write(level, tag != nullptr ? tag : "", message);
    if (keptInHistory(level)) {
        LocalLogBuffer::getInstance().addLogWithTimestamp(std::move(message));
    }
}

}  // namespace kiv
