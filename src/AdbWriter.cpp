#include "AdbWriter.h"

#include <android/log.h>

#include <iterator>

#include "LogWrapper.h"

namespace kiv {

int AdbWriter::convertPrio(LogLevel level) {
    static constexpr int kPriorities[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,
                                          ANDROID_LOG_ERROR,   ANDROID_LOG_FATAL, ANDROID_LOG_INFO};
    const auto index = static_cast<uint32_t>(level);
    return index < std::size(kPriorities) ? kPriorities[index] : ANDROID_LOG_INFO;
}

bool AdbWriter::isLoggable(LogLevel level) {
    return __android_log_is_loggable(convertPrio(level), kLogTag, ANDROID_LOG_VERBOSE) != 0;
}

void AdbWriter::write(LogLevel level, std::string tag, std::string message) {
    __android_log_print(convertPrio(level), tag.c_str(), "%s", message.c_str());
}

}  // namespace kiv
