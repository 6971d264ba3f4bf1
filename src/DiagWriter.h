#pragma once

#include "LogWriter.h"

namespace kiv {

// Writes to the modem diagnostics channel.
class DiagWriter : public LogWriter {
  public:
    DiagWriter();
    ~DiagWriter() override;
    // Every message carries the diagnostics mask of the first message this
    // sink wrote in the process: the descriptor is made once and reused.
    void write(LogLevel level, std::string tag, std::string message) override;
    // Diagnostics mask: error 4, fatal 16, info 4, everything else 1.
    int convertPrio(LogLevel level) override;
};

}  // namespace kiv
