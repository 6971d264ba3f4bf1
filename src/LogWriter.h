// A log sink: where the library's formatted messages go.
#pragma once

#include <cstdint>
#include <string>

namespace kiv {

enum class LogLevel : uint32_t {
    Verbose = 0,  // entry traces and verbose detail
    Debug = 1,    // debug detail (destructors, callbacks)
    Warning = 2,  // unexpected but handled
    Error = 3,    // errors; kept in the local history
    Fatal = 4,
    Info = 5,  // results that matter; kept in the local history
};

class LogWriter {
  public:
    virtual ~LogWriter() = default;
    // Called from any thread; implementations must be thread-safe.
    virtual void write(LogLevel level, std::string tag, std::string message) = 0;
    // The sink's own priority for a level.
    virtual int convertPrio(LogLevel level) = 0;
    // Whether the sink takes lines of this level at all; lines it does not
    // take are not even formatted (unless the local history keeps them).
    virtual bool isLoggable(LogLevel /*level*/) { return true; }
};

}  // namespace kiv
