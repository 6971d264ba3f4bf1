// kivctl: the library's command-line front end on a simulated modem whose
// profile table persists between runs.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace kivctl {

// Exit statuses.
inline constexpr int kOk = 0;
inline constexpr int kRefused = 1;   // the modem or the library refused
inline constexpr int kBadInput = 2;  // unknown command or option, bad value, unknown profile...

// Runs one command line (without the program name).
int run(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
        std::ostream& err);

}  // namespace kivctl
