// An exclusive lock that a process holds on a file beside what it guards
// (a state file's "FILE.lock", a socket's "PATH.lock"), by flock, so that
// two processes never use one thing at once and a holder that dies lets go
// by dying. The file records who holds it, and is removed when the lock is
// let go: a process that was waiting for it then finds it holds a file no
// longer at the path, and tries again on the one that is.
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace kiv {

class LockFile {
  public:
    // Takes the lock if nobody holds it. Held by another: the error's code
    // is EWOULDBLOCK and `holder` says who (what the holder recorded).
    static android::base::Result<LockFile> tryLock(const std::string& path, std::string* holder) {
        return acquire(path, LOCK_EX | LOCK_NB, holder);
    }
    // Takes the lock, waiting for whoever holds it to let go.
    static android::base::Result<LockFile> lock(const std::string& path) {
        return acquire(path, LOCK_EX, nullptr);
    }

    LockFile(LockFile&& other) = default;
    LockFile& operator=(LockFile&& other) {
        if (this != &other) {
            letGo();
            mPath = std::move(other.mPath);
            mFd = std::move(other.mFd);
        }
        return *this;
    }
    LockFile(const LockFile&) = delete;
    ~LockFile() { letGo(); }

    // Records who holds it, for whoever finds it held.
    void record(const std::string& holder) {
        if (ftruncate(mFd.get(), 0) == 0) {
            TEMP_FAILURE_RETRY(pwrite(mFd.get(), holder.data(), holder.size(), 0));
        }
    }

  private:
    static android::base::Result<LockFile> acquire(const std::string& path, int operation,
                                                   std::string* holder) {
        for (;;) {
            android::base::unique_fd fd(TEMP_FAILURE_RETRY(
                    open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)));
            if (fd.get() < 0) return android::base::ErrnoError() << "cannot open the lock " << path;
            if (TEMP_FAILURE_RETRY(flock(fd.get(), operation)) != 0) {
                const int why = errno;
                if (holder != nullptr) *holder = readHolder(fd.get());
                return android::base::Error(why) << "cannot lock " << path;
            }
            // The holder before may have removed the file as it let go.
            struct stat held {};
            struct stat named {};
            if (fstat(fd.get(), &held) == 0 && stat(path.c_str(), &named) == 0 &&
                held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
                return LockFile(path, std::move(fd));
            }
        }
    }

    void letGo() {
        if (mFd.get() < 0) return;
        // Removed while still held: nobody can take a file that is going.
        unlink(mPath.c_str());
        mFd.reset();
    }

    LockFile(std::string path, android::base::unique_fd fd)
        : mPath(std::move(path)), mFd(std::move(fd)) {}

    static std::string readHolder(int fd) {
        char text[256];
        const ssize_t n = TEMP_FAILURE_RETRY(pread(fd, text, sizeof(text) - 1, 0));
        std::string holder(text, n > 0 ? static_cast<size_t>(n) : 0);
        while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' '))
            holder.pop_back();
        return holder;
    }

    std::string mPath;
    android::base::unique_fd mFd;
};

}  // namespace kiv
