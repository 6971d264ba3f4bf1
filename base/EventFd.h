// An eventfd used to wake a thread waiting in epoll: one place for making
// it, signalling it and draining it.
#pragma once

#include <android-base/unique_fd.h>
#include <sys/eventfd.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace kiv {

class EventFd {
  public:
    // A non-blocking, close-on-exec eventfd; not valid() when the kernel
    // refuses one (errno says why).
    EventFd() : mFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

    bool valid() const { return mFd.get() >= 0; }
    int get() const { return mFd.get(); }
    // Closes it now rather than with its owner.
    void reset() { mFd.reset(); }

    // Adds one to the counter of an eventfd, retrying a write that a signal
    // interrupted. The write's result: 8 when it was made, else -1 (errno set).
    static ssize_t signal(int fd) {
        const uint64_t one = 1;
        return TEMP_FAILURE_RETRY(write(fd, &one, sizeof(one)));
    }
    ssize_t signal() const { return signal(get()); }
    // Empties the counter: several signals are consumed by one drain. False
    // when a read failed other than by finding it empty (errno set).
    static bool drain(int fd) {
        uint64_t value;
        ssize_t n;
        while ((n = TEMP_FAILURE_RETRY(read(fd, &value, sizeof(value)))) > 0) {
        }
        // An eventfd never reads 0; a descriptor at its end would never run dry.
        return n < 0 && errno == EAGAIN;
    }
    bool drain() const { return drain(get()); }

  private:
    android::base::unique_fd mFd;
};

}  // namespace kiv
