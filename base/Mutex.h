// A mutex and its scoped lock that clang's thread-safety analysis can see
// (the standard library's own carry no capability attributes here), so that
// a field read or written without its lock fails the build.
//
//     Mutex mLock;
//     int mCount GUARDED_BY(mLock);
//     void bump() EXCLUDES(mLock) { MutexLock lock(mLock); ++mCount; }
//
// Condition variables wait through the scoped lock; a predicate that reads
// guarded fields says so: lock.wait(cv, [&]() REQUIRES(mLock) { ... }).
#pragma once

#if defined(__clang__)
#include <android-base/thread_annotations.h>
#else
// Only clang checks the annotations; for other compilers they are nothing.
#define CAPABILITY(x)
#define SCOPED_CAPABILITY
#define GUARDED_BY(x)
#define PT_GUARDED_BY(x)
#define REQUIRES(...)
#define ACQUIRE(...)
#define RELEASE(...)
#define TRY_ACQUIRE(...)
#define EXCLUDES(...)
#define ACQUIRED_BEFORE(...)
#define RETURN_CAPABILITY(x)
#define NO_THREAD_SAFETY_ANALYSIS
#endif

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kiv {

class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }

    // Waits on a condition while this mutex is held by whichever lock took
    // it; it is held again on return.
    template <typename Predicate>
    void wait(std::condition_variable& condition, Predicate predicate) REQUIRES(this) {
        std::unique_lock<std::mutex> held(mMutex, std::adopt_lock);
        condition.wait(held, predicate);
        held.release();
    }

  private:
    friend class MutexLock;
    std::mutex mMutex;
};

class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mLock(mutex.mMutex) {}
    ~MutexLock() RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    // Lets go for a while (a callback, a blocking call) and takes it back.
    void unlock() RELEASE() { mLock.unlock(); }
    void lock() ACQUIRE() { mLock.lock(); }

    // Waits until the predicate holds; the lock is held again on return.
    template <typename Predicate>
    void wait(std::condition_variable& condition, Predicate predicate) {
        condition.wait(mLock, predicate);
    }
    // As wait(), giving up at the deadline: whether the predicate holds.
    template <typename Clock, typename Duration, typename Predicate>
    bool waitUntil(std::condition_variable& condition,
                   const std::chrono::time_point<Clock, Duration>& deadline, Predicate predicate) {
        return condition.wait_until(mLock, deadline, predicate);
    }
    template <typename Clock, typename Duration>
    void waitUntil(std::condition_variable& condition,
                   const std::chrono::time_point<Clock, Duration>& deadline) {
        condition.wait_until(mLock, deadline);
    }

  private:
    std::unique_lock<std::mutex> mLock;
};

}  // namespace kiv
