// kivctl: the library's command-line front end on a simulated modem whose
// profile table persists between runs.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "common/Errors.h"

namespace kivctl {

// Runs one command line (without the program name); returns the exit status.
int run(const std::vector<std::string>& args, std::istream& in, std::ostream& out,
        std::ostream& err);

}  // namespace kivctl
