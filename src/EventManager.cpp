#include "EventManager.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "LogWrapper.h"

namespace kiv {

Mutex EventManager::sApprovedLock;
std::set<int> EventManager::sApprovedFd;

EventManager::EventManager() : mEpollFd(epoll_create1(EPOLL_CLOEXEC)) {
    if (mEpollFd.get() == -1) {
        KLOGE("Cannot create epoll instance");
        abort();
    }
    if (!mWakeFd.valid()) {
        KLOGE("Cannot create eventfd instance");
        abort();
    }
    addEventHandler(mWakeFd.get(), clearRead, nullptr, nullptr, EPOLLIN | EPOLLHUP);
    KLOGV("EventManager is ready. epollFd:%d", mEpollFd.get());
}

EventManager::~EventManager() {
    removeEventHandler(mWakeFd.get());
    // The wake descriptor closes first, then the epoll one.
    mWakeFd.reset();
    mEpollFd.reset();
}

bool EventManager::addEventHandler(int fd, EventCallback callback, void* data,
                                   CloseCallback closeCallback, int events) {
    KLOGV("EventManager::addEventHandler(int %d, EventCallback %p, void* %p, CloseCallback %p, "
          "events %d) EX",
          fd, reinterpret_cast<void*>(callback), data, reinterpret_cast<void*>(closeCallback),
          events);
    if (mHandlers.count(fd) != 0) {
        KLOGW("fd=%d is already in handlers", fd);
        return false;
    }
    struct epoll_event event = {};
    event.events = static_cast<uint32_t>(events);
    event.data.fd = fd;
    if (epoll_ctl(mEpollFd.get(), EPOLL_CTL_ADD, fd, &event) == -1) {
        // The handler is kept all the same: a later add of the same
        // descriptor must not replace it.
        KLOGE("Cannot add event handler");
    }
    mHandlers[fd] = HandlerObject{callback, closeCallback, data};
    addApprovedFd(fd);
    return true;
}

void EventManager::removeEventHandler(int fd) {
    KLOGV("EventManager::removeEventHandler(int fd) EX");
    if (epoll_ctl(mEpollFd.get(), EPOLL_CTL_DEL, fd, nullptr) == -1) {
        KLOGE("Cannot remove event handler");
    }
    auto it = mHandlers.find(fd);
    if (it != mHandlers.end()) {
        // Copied: the close callback may change the map.
        const HandlerObject handler = it->second;
        if (handler.closeCallback != nullptr) handler.closeCallback(fd, handler.data);
        const size_t erased = mHandlers.erase(fd);
        if (erased != 1)
            KLOGE("handlers.erase for fd %d, returned %d!", fd, static_cast<int>(erased));
    }
    remApprovedFd(fd);
}

void EventManager::processEvents() {
    const int count = epoll_wait(mEpollFd.get(), mEvents, kMaxEvents, -1);
    if (count == -1) {
        KLOGE("epoll_wait error");
        return;
    }
    for (int i = 0; i < count; ++i) {
        const uint32_t events = mEvents[i].events;
        const int fd = mEvents[i].data.fd;
        KLOGV("there are %d file descriptor(s) with events pending", count - i);
        KLOGV("processing event number: %d, handling %d for %d", i, static_cast<int>(events), fd);

        // A descriptor that hung up, or that no manager registered, is closed
        // here on its owner's behalf: its number must not be dispatched again.
        if (events & EPOLLHUP) {
            KLOGW("file descriptor '%d' sent HUP.", fd);
            removeEventHandler(fd);
            close(fd);
            continue;
        }
        if (events & EPOLLIN) {
            if (!isApprovedFd(fd)) {
                KLOGW("file descriptor %d is not on the approved list, cannot process event", fd);
                removeEventHandler(fd);
                close(fd);
                continue;
            }
            auto it = mHandlers.find(fd);
            if (it == mHandlers.end()) {
                KLOGW("file descriptor '%d' does not have an event handler registered", fd);
                continue;
            }
            // Copied: the callback may add or remove handlers.
            const HandlerObject handler = it->second;
            KLOGV("file descriptor '%d' is processing events [callback:%p, data:%p]", fd,
                  reinterpret_cast<void*>(handler.callback), handler.data);
            if (handler.callback == nullptr) {
                KLOGE("no callback registered");
            } else {
                handler.callback(fd, handler.data);
            }
            continue;
        }
        std::string flags;
        if (events & EPOLLOUT) flags += "EPOLLOUT ";
        if (events & EPOLLPRI) flags += "EPOLLPRI ";
        if (events & EPOLLERR) flags += "EPOLLERR ";
        if (events & EPOLLET) flags += "EPOLLET ";
        KLOGW("Unhandled epoll event: %s [flags 0%o]", flags.c_str(), events);
    }
}

void EventManager::wake() {
    KLOGV("EventManager::wake() EX");
    // Intentional: the wake-up line on standard output is part of the
    // library's behaviour, kept as it stands.
    fputs("wake()\n", stdout);
    fflush(stdout);
    const ssize_t written = mWakeFd.signal();
    if (written != static_cast<ssize_t>(sizeof(uint64_t))) {
        KLOGW("Error in writing rv: %d, error: %s", static_cast<int>(written), strerror(errno));
    }
}

void EventManager::clearRead(int fd, void* /*data*/) {
    char buffer[256] = {};
    ssize_t n;
    while ((n = read(fd, buffer, sizeof(buffer))) > 0) {
    }
    // A read of 0 (end of file) would never turn into EAGAIN: stop there too.
    if (n == 0 || errno != EAGAIN) KLOGW("Error while clearing the read buffer on fd %d", fd);
}

bool EventManager::isApprovedFd(int fd) {
    MutexLock lock(sApprovedLock);
    return sApprovedFd.count(fd) != 0;
}

void EventManager::addApprovedFd(int fd) {
    MutexLock lock(sApprovedLock);
    sApprovedFd.insert(fd);
}

void EventManager::remApprovedFd(int fd) {
    MutexLock lock(sApprovedLock);
    sApprovedFd.erase(fd);
}

}  // namespace kiv
