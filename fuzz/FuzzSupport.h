// Shared set-up of the fuzz targets: a quiet log.
#pragma once

#include "LocalLogBuffer.h"
#include "LogWrapper.h"

namespace kiv::fuzz {

// Takes no line, so that nothing but the local history is formatted.
class QuietWriter : public LogWriter {
  public:
    void write(LogLevel, std::string, std::string) override {}
    int convertPrio(LogLevel) override { return 0; }
    bool isLoggable(LogLevel) override { return false; }
};

// Also makes the log singletons before any rig of a target, so that at exit
// they are destroyed after it (a rig's worker thread logs until it stops).
inline void quietLog() {
    static const bool sDone = [] {
        LocalLogBuffer::getInstance();
        LogWrapper::getInstance().setLogWriter(std::make_unique<QuietWriter>());
        return true;
    }();
    (void)sDone;
}

}  // namespace kiv::fuzz
