// The in-process side of the simulated modem: the handles of the C
// interface with their callbacks, and the dispatcher thread that runs the
// callbacks in the order the modem raised its events.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <thread>

#include "SimModem.h"
#include "base/Mutex.h"
#include "wire/ClientContract.h"

struct xal_client_struct {
    bool notifier = false;
    bool released = false;
    xal_client_notify_cb notifyCb = nullptr;
    void* notifyData = nullptr;
    xal_client_error_cb errorCb = nullptr;
    void* errorData = nullptr;
    xal_client_ind_cb indCb = nullptr;
    void* indData = nullptr;
};

namespace xalsim {

struct Task {
    ClientId client;
    Event event;
    Clock::time_point due;
};

// Lock order: the modem's lock, then this one. The dispatcher never holds
// this lock while it calls into the modem or runs a callback.
struct SimModem::Impl {
    explicit Impl(ModemCore& core);

    void queue(Task task) EXCLUDES(lock);
    void runDispatcher() EXCLUDES(lock);
    xal_client_struct* find(xal_client_type handle) REQUIRES(lock);

    ModemCore& core;
    kiv::Mutex lock;
    std::condition_variable changed;  // tasks or dispatching changed
    // Handles are never freed, so a released handle is never reused. Their
    // fields are guarded by the lock too.
    std::map<xal_client_type, std::unique_ptr<xal_client_struct>> handles GUARDED_BY(lock);
    std::deque<Task> tasks GUARDED_BY(lock);
    bool dispatching GUARDED_BY(lock) = false;
    xal_client_type dispatchingClient GUARDED_BY(lock) = nullptr;
    std::optional<unsigned int> holdMsgId GUARDED_BY(lock);
    bool holding GUARDED_BY(lock) = false;
    std::thread dispatcher;
};

}  // namespace xalsim
