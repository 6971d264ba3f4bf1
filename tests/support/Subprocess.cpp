#include "Subprocess.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

extern char** environ;

namespace kiv::test {

using Clock = std::chrono::steady_clock;

Subprocess::Subprocess(const std::vector<std::string>& argv, const Options& options) {
    // The child's ends, closed in the parent once it has them.
    android::base::unique_fd childIn, childOut, childErr;
    if (!android::base::Pipe(&childIn, &mIn) || !android::base::Pipe(&mOut, &childOut) ||
        !android::base::Pipe(&mErr, &childErr)) {
        abort();
    }
    // Everything the child needs is made before fork: after it, only calls
    // that are safe in the child of a threaded process.
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) envText.emplace_back(*e);
    for (const auto& e : options.environment) envText.push_back(e);
    std::vector<char*> env;
    for (auto& e : envText) env.push_back(e.data());
    env.push_back(nullptr);
    const passwd* nobody = options.asNobody && geteuid() == 0 ? getpwnam("nobody") : nullptr;
    const uid_t nobodyUid = nobody ? nobody->pw_uid : 0;
    const gid_t nobodyGid = nobody ? nobody->pw_gid : 0;
    if (!options.errorFile.empty()) {
        childErr.reset(TEMP_FAILURE_RETRY(
                open(options.errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)));
        mErr.reset();
        if (!childErr.ok()) abort();
    }

    mPid = fork();
    if (mPid == 0) {
        dup2(childIn.get(), STDIN_FILENO);
        dup2(childOut.get(), STDOUT_FILENO);
        dup2(childErr.get(), STDERR_FILENO);
        if (options.fileSizeLimit) {
            rlimit limit{static_cast<rlim_t>(*options.fileSizeLimit),
                         static_cast<rlim_t>(*options.fileSizeLimit)};
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        if (nobody != nullptr &&
            (setgroups(0, nullptr) != 0 || setgid(nobodyGid) != 0 || setuid(nobodyUid) != 0)) {
            _exit(126);
        }
        execvpe(args[0], args.data(), env.data());
        _exit(127);
    }
}

Subprocess::~Subprocess() {
    std::lock_guard<std::mutex> guard(mReapLock);
    if (!mStatus && mPid > 0) {
        ::kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
}

void Subprocess::write(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(mIn.get(), text.data() + done, text.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

void Subprocess::closeInput() {
    mIn.reset();
}

void Subprocess::kill(int signal) {
    // Never once reaped: the number may belong to another process by then.
    std::lock_guard<std::mutex> guard(mReapLock);
    if (!mStatus) ::kill(mPid, signal);
}

bool Subprocess::pump(Clock::time_point deadline) {
    pollfd fds[2] = {{mOut.get(), POLLIN, 0}, {mErr.get(), POLLIN, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (!mOut.ok() && !mErr.ok()) return false;
    if (poll(fds, 2, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) return true;
    char buffer[4096];
    for (int i = 0; i < 2; ++i) {
        android::base::unique_fd& fd = i == 0 ? mOut : mErr;
        if (!fd.ok() || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
        const ssize_t n = read(fd.get(), buffer, sizeof(buffer));
        if (n > 0) {
            (i == 0 ? mOutText : mErrText).append(buffer, static_cast<size_t>(n));
        } else {
            fd.reset();
        }
    }
    return true;
}

bool Subprocess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                               bool fromError) {
    const auto deadline = Clock::now() + timeout;
    const std::string& seen = fromError ? mErrText : mOutText;
    while (seen.find(text) == std::string::npos) {
        if (Clock::now() >= deadline || !pump(deadline))
            return seen.find(text) != std::string::npos;
    }
    return true;
}

std::optional<std::string> Subprocess::readLine(std::chrono::milliseconds timeout) {
    if (!waitForOutput("\n", timeout)) return std::nullopt;
    const size_t end = mOutText.find('\n');
    std::string line = mOutText.substr(0, end);
    mOutText.erase(0, end + 1);
    return line;
}

Subprocess::Result Subprocess::finish(std::chrono::milliseconds timeout) {
    closeInput();
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline && pump(deadline)) {
    }
    Result result;
    std::unique_lock<std::mutex> guard(mReapLock);
    if (!mStatus) {
        // The child's exit, waited for with the same deadline; another thread
        // may kill it meanwhile.
        guard.unlock();
        const android::base::unique_fd exited(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
        pollfd end{exited.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const bool done = exited.ok() &&
                          poll(&end, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) > 0;
        guard.lock();
        int status = 0;
        if (!done) {
            ::kill(mPid, SIGKILL);
            waitpid(mPid, &status, 0);
            mStatus = -1;
        } else {
            waitpid(mPid, &status, 0);
            mStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }
    result.status = *mStatus;
    result.out = mOutText;
    result.err = mErrText;
    return result;
}

Subprocess::Result Subprocess::run(const std::vector<std::string>& argv, const std::string& input,
                                   const Options& options) {
    Subprocess child(argv, options);
    child.write(input);
    return child.finish();
}

}  // namespace kiv::test
