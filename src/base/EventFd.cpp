#include "EventFd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace kiv {

EventFd::EventFd() : mFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

ssize_t EventFd::signal(int fd) {
    const uint64_t one = 1;
    return TEMP_FAILURE_RETRY(write(fd, &one, sizeof(one)));
}

bool EventFd::drain(int fd) {
    uint64_t value;
    ssize_t n;
    while ((n = TEMP_FAILURE_RETRY(read(fd, &value, sizeof(value)))) > 0) {
    }
    // An eventfd never reads 0; a descriptor at its end would never run dry.
    return n < 0 && errno == EAGAIN;
}

}  // namespace kiv
