// Runs an EventManager loop on a worker thread, as the library does, and
// lets a test run code on that thread and wait for it.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <thread>

#include "Watchdog.h"
#include "base/EventFd.h"
#include "base/Mutex.h"
#include "src/EventManager.h"

namespace kiv::test {

class WorkerLoop {
  public:
    WorkerLoop() {
        mEvents.addEventHandler(mCallFd.get(), onCall, this, nullptr, EPOLLIN);
        mThread = std::thread([this] {
            while (mRunning) mEvents.processEvents();
        });
    }
    ~WorkerLoop() {
        run([this] { mRunning = false; });
        mThread.join();
        mEvents.removeEventHandler(mCallFd.get());
    }

    EventManager& events() { return mEvents; }

    // Runs f on the worker thread and returns its result.
    template <typename F>
    auto run(F f) -> decltype(f()) {
        std::packaged_task<decltype(f())()> task(std::move(f));
        auto result = task.get_future();
        post([&task] { task(); });
        Waiting waiting("the test's worker loop to run a call");
        return result.get();
    }

    // Returns once everything the worker had been signalled before the call
    // has been handled: one pass may still be dispatching other descriptors
    // when a call returns, the second call waits for that pass to end.
    void sync() {
        run([] {});
        run([] {});
    }

    // Holds the worker until the returned function is called.
    std::function<void()> hold() {
        auto gate = std::make_shared<std::promise<void>>();
        auto entered = std::make_shared<std::promise<void>>();
        std::shared_future<void> open = gate->get_future().share();
        post([open, entered] {
            entered->set_value();
            open.wait();
        });
        Waiting waiting("the test's worker loop to be held");
        entered->get_future().wait();
        return [gate] { gate->set_value(); };
    }

  private:
    void post(std::function<void()> call) {
        {
            kiv::MutexLock lock(mLock);
            mCalls.push_back(std::move(call));
        }
        mCallFd.signal();
    }

    // Runs only the calls posted before this pass: a call posted meanwhile
    // waits for the next pass, after every other descriptor of this one.
    static void onCall(int fd, void* data) {
        auto* self = static_cast<WorkerLoop*>(data);
        EventManager::clearRead(fd, nullptr);
        std::deque<std::function<void()>> calls;
        {
            kiv::MutexLock lock(self->mLock);
            calls.swap(self->mCalls);
        }
        for (auto& call : calls) call();
    }

    EventManager mEvents;
    EventFd mCallFd;
    bool mRunning = true;  // worker thread only
    std::thread mThread;
    kiv::Mutex mLock;
    std::deque<std::function<void()>> mCalls GUARDED_BY(mLock);
};

}  // namespace kiv::test
