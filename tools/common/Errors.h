// How kivctl ends: exit statuses, and the two kinds of failure.
#pragma once

#include <stdexcept>
#include <string>

namespace kivctl {

inline constexpr int kOk = 0;
inline constexpr int kRefused = 1;   // the modem or the library refused, or a change was not stored
inline constexpr int kBadInput = 2;  // unknown command or option, bad value, unknown profile...

// Bad input: one line on standard error, exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Refused by the modem, the library or the system: exit status 1.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Text from the user, a file or the modem, for a message: bytes that are
// not printable ASCII (and backslashes) are shown as \xNN, never written raw
// to a terminal.
std::string printable(const std::string& text);
// The same in single quotes.
inline std::string quote(const std::string& text) {
    return "'" + printable(text) + "'";
}

}  // namespace kivctl
