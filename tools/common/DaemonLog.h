// How the project's daemons (kivmodemd, kivmmd) speak on standard error: a
// log line with the time of day, and the reason they could not start.
#pragma once

#include <cstdio>
#include <ctime>
#include <string>

namespace kivctl {

// "PROGRAM HH:MM:SS.mmm: LINE"
inline void logLine(const char* program, const std::string& line) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%T", &local);
    fprintf(stderr, "%s %s.%03ld: %s\n", program, stamp, now.tv_nsec / 1000000, line.c_str());
}

// "PROGRAM: WHY", and the exit status to end with.
inline int fail(const char* program, int status, const std::string& why) {
    fprintf(stderr, "%s: %s\n", program, why.c_str());
    return status;
}

}  // namespace kivctl
