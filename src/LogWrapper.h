// The library's one logging front end: formats each message, hands it to the
// installed sink, and keeps errors and important results in the local history.
#pragma once

#include <memory>
#include <string>

#include "LogWriter.h"
#include "base/Mutex.h"

namespace kiv {

inline constexpr const char* kLogTag = "KIV";

class LogWrapper {
  public:
    static LogWrapper& getInstance();

    // Installs a new sink. The previous one is handed back in the argument
    // and destroyed with it, or, when another thread is writing through it
    // at that moment, once that write has finished.
    void setLogWriter(std::unique_ptr<LogWriter> writer);

    // printf-style; the message is cut at 511 characters. Levels Error and
    // Info are also kept in LocalLogBuffer.
    void log(LogLevel level, const char* tag, const char* format, ...)
            __attribute__((format(printf, 4, 5)));

    // The same for a message already built: cut at 511 characters, not
    // formatted.
    void logMessage(LogLevel level, const char* tag, std::string message);

    // Whether a line of this level goes anywhere: to the local history
    // (Error and Info) or to a sink that takes it.
    bool isLoggable(LogLevel level);

  private:
    LogWrapper() = default;

    std::shared_ptr<LogWriter> currentWriter() EXCLUDES(mWriterLock);

    Mutex mWriterLock;  // held only to read or swap mWriter
    std::shared_ptr<LogWriter> mWriter GUARDED_BY(mWriterLock);
};

}  // namespace kiv

// The library's log lines, all with the tag "KIV". The arguments are not
// evaluated for a line that goes nowhere.
#define KLOG(level, ...)                                                     \
    do {                                                                     \
        auto& kivLog = ::kiv::LogWrapper::getInstance();                     \
        if (kivLog.isLoggable(::kiv::LogLevel::level)) {                     \
            kivLog.log(::kiv::LogLevel::level, ::kiv::kLogTag, __VA_ARGS__); \
        }                                                                    \
    } while (0)
#define KLOGV(...) KLOG(Verbose, __VA_ARGS__)
#define KLOGD(...) KLOG(Debug, __VA_ARGS__)
#define KLOGW(...) KLOG(Warning, __VA_ARGS__)
#define KLOGE(...) KLOG(Error, __VA_ARGS__)
#define KLOGI(...) KLOG(Info, __VA_ARGS__)
