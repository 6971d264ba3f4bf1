// A program run by a test in a process of its own, with its standard
// streams in pipes. Every wait has a deadline: a child that overstays it is
// killed and the wait reports it, so no test hangs.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kiv::test {

struct SubprocessOptions {
    std::vector<std::string> environment;  // NAME=VALUE, added to the test's own
    std::optional<long> fileSizeLimit;     // bytes (RLIMIT_FSIZE), a full disk
    bool asNobody = false;                 // drop root, where the test runs as root
    // Standard error appended to this file rather than kept: for a program
    // that logs more than a pipe holds while nobody reads it.
    std::string errorFile;
};

class Subprocess {
  public:
    using Options = SubprocessOptions;
    struct Result {
        int status = -1;  // the exit status; 128 + N when killed by signal N; -1 on time-out
        std::string out;
        std::string err;
    };

    Subprocess(const std::vector<std::string>& argv, const Options& options);
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    pid_t pid() const { return mPid; }
    void write(const std::string& text);
    void closeInput();
    void kill(int signal);
    // Reads until a line of standard output (or error) holds the text.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                       bool fromError = false);
    // The next line of standard output, without its newline; none at the
    // deadline or the end.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    // Closes standard input, reads everything and waits for the exit.
    Result finish(std::chrono::milliseconds timeout = std::chrono::seconds(60));

    // Runs a program to its end.
    static Result run(const std::vector<std::string>& argv, const std::string& input = "",
                      const Options& options = Options());

  private:
    // Reads what is there, waiting at most until the deadline; false at the end.
    bool pump(std::chrono::steady_clock::time_point deadline);

    pid_t mPid = -1;
    android::base::unique_fd mIn;
    android::base::unique_fd mOut;
    android::base::unique_fd mErr;
    std::string mOutText;
    std::string mErrText;
    // Reaping and killing take turns: a reaped child's number may be reused.
    std::mutex mReapLock;
    std::optional<int> mStatus;  // once reaped
};

}  // namespace kiv::test
