#include "Worker.h"

#include "LogWrapper.h"

namespace kiv {

Worker::~Worker() {
    stop();
}

void Worker::start(std::function<void()> afterPass) {
    // Set here rather than by the thread, so that a stop that follows at
    // once cannot be overtaken by a late-starting thread.
    mRunning = true;
    mThread = std::thread([this, afterPass = std::move(afterPass)] { run(afterPass); });
}

void Worker::stop() {
    if (!mThread.joinable()) return;
    mRunning = false;
    mEventManager.wake();
    mThread.join();
}

void Worker::post(std::function<void()> task) {
    MutexLock lock(mTasksLock);
    mTasks.push_back(std::move(task));
}

void Worker::run(const std::function<void()>& afterPass) {
    mThreadId = std::this_thread::get_id();
    KLOGI("KIV thread started");
    while (mRunning) {
        mEventManager.processEvents();
        runPosted();
        afterPass();
    }
    // Work posted before the stop still runs here, where it belongs.
    runPosted();
    afterPass();
}

void Worker::runPosted() {
    for (;;) {
        std::deque<std::function<void()>> tasks;
        {
            MutexLock lock(mTasksLock);
            if (mTasks.empty()) return;
            tasks.swap(mTasks);
        }
        for (auto& task : tasks) task();
    }
}

}  // namespace kiv
