#pragma once

#include "LogWriter.h"

namespace kiv {

// Writes to the Android log.
class AdbWriter : public LogWriter {
  public:
    void write(LogLevel level, std::string tag, std::string message) override;
    // Android priority: verbose 2, debug 3, info 4, error 6, fatal 7.
    int convertPrio(LogLevel level) override;
    // What the Android log itself would let through for the tag "KIV".
    bool isLoggable(LogLevel level) override;
};

}  // namespace kiv
