#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <thread>

#include "EventManager.h"
#include "base/Mutex.h"

namespace kiv {

// The library's worker thread and its event loop. Everything that touches
// the cache or the modem runs here, one pass of the loop at a time; work
// posted from anywhere runs once the current pass is done.
class Worker {
  public:
    Worker() = default;
    // Stops the thread if it still runs.
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    EventManager& events() { return mEventManager; }

    // Starts the thread. After every pass (and the work posted during it)
    // it runs afterPass.
    void start(std::function<void()> afterPass);
    // Makes the loop end, and waits for the thread. Work posted before is
    // still run, on the worker.
    void stop();
    // Runs the task on the worker after the current pass. From another
    // thread, the worker must be woken (or about to stop) for it to run.
    void post(std::function<void()> task) EXCLUDES(mTasksLock);
    bool isCurrentThread() const { return std::this_thread::get_id() == mThreadId.load(); }

  private:
    void run(const std::function<void()>& afterPass);
    void runPosted() EXCLUDES(mTasksLock);

    EventManager mEventManager;
    Mutex mTasksLock;
    std::deque<std::function<void()>> mTasks GUARDED_BY(mTasksLock);
    std::atomic<bool> mRunning{false};
    std::atomic<std::thread::id> mThreadId{};
    std::thread mThread;
};

}  // namespace kiv
