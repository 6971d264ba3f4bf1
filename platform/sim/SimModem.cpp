// The in-process simulated modem: the modem itself, and the dispatcher that
// runs the callbacks of the C interface.

#include "SimModemImpl.h"

namespace xalsim {

SimModem::Impl::Impl(ModemCore& core) : core(core), dispatcher([this] { runDispatcher(); }) {}

void SimModem::Impl::queue(Task task) {
    kiv::MutexLock guard(lock);
    tasks.push_back(std::move(task));
    changed.notify_all();
}

xal_client_struct* SimModem::Impl::find(xal_client_type handle) {
    auto it = handles.find(handle);
    return it == handles.end() ? nullptr : it->second.get();
}

void SimModem::Impl::runDispatcher() {
    kiv::MutexLock guard(lock);
    for (;;) {
        guard.wait(changed, [this]() REQUIRES(lock) { return !tasks.empty(); });
        if (Clock::now() < tasks.front().due) {
            guard.waitUntil(changed, tasks.front().due);
            continue;
        }
        Task task = std::move(tasks.front());
        tasks.pop_front();
        xal_client_struct* client = find(task.client);
        if (client == nullptr || client->released) {
            changed.notify_all();
            continue;
        }
        dispatching = true;
        dispatchingClient = task.client;
        const xal_client_struct callbacks = *client;
        guard.unlock();
        const Event& event = task.event;
        switch (event.kind) {
            case Event::kNotify:
                if (callbacks.notifyCb) {
                    callbacks.notifyCb(task.client, wire::wdsServiceObject(),
                                       static_cast<xal_client_notify_event_type>(event.code),
                                       callbacks.notifyData);
                }
                break;
            case Event::kError:
                if (callbacks.errorCb)
                    callbacks.errorCb(task.client, event.code, callbacks.errorData);
                break;
            case Event::kIndication: {
                std::vector<uint8_t> payload = event.payload;
                if (callbacks.indCb) {
                    callbacks.indCb(task.client, event.msgId, payload.data(),
                                    static_cast<unsigned int>(payload.size()), callbacks.indData);
                }
                break;
            }
        }
        core.noteDelivered(event.kind);
        guard.lock();
        dispatching = false;
        dispatchingClient = nullptr;
        changed.notify_all();
    }
}

SimModem::SimModem()
    : ModemCore([this](ClientId client, Event event, Clock::time_point due) {
          mImpl->queue({client, std::move(event), due});
      }),
      mImpl(new Impl(*this)) {}

SimModem& SimModem::instance() {
    // Immortal: the library may still talk to it while the process exits.
    static SimModem* sInstance = new SimModem;
    return *sInstance;
}

bool SimModem::waitForCallbacks(std::chrono::milliseconds timeout) {
    kiv::MutexLock guard(mImpl->lock);
    return guard.waitUntil(mImpl->changed, Clock::now() + timeout, [this]() REQUIRES(mImpl->lock) {
        return mImpl->tasks.empty() && !mImpl->dispatching;
    });
}

void SimModem::holdNextRequest(unsigned int msgId) {
    kiv::MutexLock guard(mImpl->lock);
    mImpl->holdMsgId = msgId;
}

bool SimModem::waitUntilHeld(std::chrono::milliseconds timeout) {
    kiv::MutexLock guard(mImpl->lock);
    return guard.waitUntil(mImpl->changed, Clock::now() + timeout,
                           [this]() REQUIRES(mImpl->lock) { return mImpl->holding; });
}

void SimModem::releaseRequests() {
    kiv::MutexLock guard(mImpl->lock);
    mImpl->holdMsgId.reset();
    mImpl->holding = false;
    mImpl->changed.notify_all();
}

}  // namespace xalsim
