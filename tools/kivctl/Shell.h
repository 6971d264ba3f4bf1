// kivctl shell: commands read from standard input, one per line, on one
// session; profiles are kept as handles between them.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "Session.h"

namespace kivctl {

class Shell {
  public:
    // interactive: a person types the lines, and is asked for each.
    Shell(Session& session, std::istream& in, std::ostream& out, std::ostream& err,
          bool interactive)
        : mSession(session), mIn(in), mOut(out), mErr(err), mInteractive(interactive) {}

    // Runs every line; the exit status is the worst of the lines'.
    int run();

    // A line's words: double quotes group, a backslash takes the next
    // character as it is, and a # that begins a word starts a comment
    // (unless a digit follows: #N is a handle).
    static std::vector<std::string> split(const std::string& line);

  private:
    int runLine(const std::vector<std::string>& words);

    Session& mSession;
    std::istream& mIn;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInteractive;
};

}  // namespace kivctl
