#pragma once

#include <android-base/unique_fd.h>
#include <sys/epoll.h>

#include <map>
#include <set>

#include "base/EventFd.h"
#include "base/Mutex.h"

namespace kiv {

// Called on the worker thread when the descriptor is readable / removed.
using EventCallback = void (*)(int fd, void* data);
using CloseCallback = void (*)(int fd, void* data);

// The worker thread's event loop: one epoll instance mapping ready
// descriptors to plain function callbacks. Everything but wake() runs on the
// worker thread. A process-wide set of approved descriptors guards against
// dispatching a descriptor number that was closed and reused.
class EventManager {
  public:
    struct HandlerObject {
        EventCallback callback = nullptr;
        CloseCallback closeCallback = nullptr;
        void* data = nullptr;
    };

    // Aborts the process when no epoll instance or eventfd can be had.
    EventManager();
    // Remaining handlers are dropped without their close callbacks.
    ~EventManager();
    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    // False when fd is already registered here.
    bool addEventHandler(int fd, EventCallback callback, void* data, CloseCallback closeCallback,
                         int events);
    // Unregisters fd and runs its close callback. Never closes fd.
    void removeEventHandler(int fd);
    // One blocking wait, then dispatch of at most four ready descriptors.
    void processEvents();
    // Makes a blocked processEvents() return; callable from any thread.
    void wake();

    // Drains a non-blocking descriptor.
    static void clearRead(int fd, void* data);
    static bool isApprovedFd(int fd) EXCLUDES(sApprovedLock);
    static void addApprovedFd(int fd) EXCLUDES(sApprovedLock);
    static void remApprovedFd(int fd) EXCLUDES(sApprovedLock);

  private:
    static constexpr int kMaxEvents = 4;

    android::base::unique_fd mEpollFd;
    EventFd mWakeFd;
    struct epoll_event mEvents[kMaxEvents] = {};
    std::map<int, HandlerObject> mHandlers;

    // Shared by every EventManager of the process. Its lock lets a second
    // pipeline be built on another thread while the first one still runs.
    static Mutex sApprovedLock;
    static std::set<int> sApprovedFd GUARDED_BY(sApprovedLock);
};

}  // namespace kiv
