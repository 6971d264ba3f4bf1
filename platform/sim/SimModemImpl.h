// The in-process side of the simulated modem: the handles of the C
// interface with their callbacks, and the dispatcher thread that runs the
// callbacks in the order the modem raised its events.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "SimModem.h"

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

struct xal_idl_service_object {
    int version;
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

    void queue(Task task);
    void runDispatcher();
    xal_client_struct* find(xal_client_type handle);  // lock held

    ModemCore& core;
    std::mutex lock;
    std::condition_variable changed;  // tasks or dispatching changed
    // Handles are never freed, so a released handle is never reused.
    std::map<xal_client_type, std::unique_ptr<xal_client_struct>> handles;  // guarded by lock
    std::deque<Task> tasks;                                                 // guarded by lock
    bool dispatching = false;                                               // guarded by lock
    xal_client_type dispatchingClient = nullptr;                            // guarded by lock
    std::thread dispatcher;
};

// The one WDS service object of the simulator.
xal_idl_service_object_type wdsServiceObject();

}  // namespace xalsim
