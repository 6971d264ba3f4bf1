#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "base/EventFd.h"
#include "src/EventManager.h"
#include "support/CapturingLog.h"

namespace kiv {
namespace {

// A descriptor the manager itself closes (when it is not approved): the
// test must not close it again.
int makeEventFdForTheManager() {
    EventFd fd;
    return dup(fd.get());
}

void signal(int fd) {
    ASSERT_EQ(EventFd::signal(fd), static_cast<ssize_t>(sizeof(uint64_t)));
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// Counts calls per descriptor and drains what it reads.
struct Counter {
    std::vector<int> calls;
    static void onReadable(int fd, void* data) {
        static_cast<Counter*>(data)->calls.push_back(fd);
        EventManager::clearRead(fd, nullptr);
    }
    static void onClose(int fd, void* data) { static_cast<Counter*>(data)->calls.push_back(-fd); }
};

TEST(EventManagerTest, SecondRegistrationOfADescriptorRefused) {
    test::ScopedLogCapture log;
    EventManager events;
    Counter first, second;
    EventFd owned;
    const int fd = owned.get();
    ASSERT_TRUE(events.addEventHandler(fd, Counter::onReadable, &first, Counter::onClose, EPOLLIN));
    EXPECT_TRUE(EventManager::isApprovedFd(fd));
    EXPECT_FALSE(events.addEventHandler(fd, Counter::onReadable, &second, nullptr, EPOLLIN));
    EXPECT_TRUE(log.contains(LogLevel::Warning,
                             "fd=" + std::to_string(fd) + " is already in handlers"));

    signal(fd);
    events.processEvents();
    EXPECT_EQ(first.calls, std::vector<int>{fd});  // the first registration stays
    EXPECT_TRUE(second.calls.empty());
}

// Removing a handler runs its close callback and leaves the descriptor to
// its owner; removing one never added changes nothing.
TEST(EventManagerTest, RemovalRunsTheCloseCallback) {
    test::ScopedLogCapture log;
    EventManager events;
    Counter first;
    EventFd owned;
    const int fd = owned.get();
    ASSERT_TRUE(events.addEventHandler(fd, Counter::onReadable, &first, Counter::onClose, EPOLLIN));
    events.removeEventHandler(fd);
    EXPECT_EQ(first.calls, std::vector<int>{-fd});
    EXPECT_FALSE(EventManager::isApprovedFd(fd));
    EXPECT_TRUE(isOpen(fd));  // its owner closes it

    // A descriptor that was never added: epoll refuses, nothing else happens.
    EventFd stranger;
    events.removeEventHandler(stranger.get());
    EXPECT_TRUE(log.contains(LogLevel::Error, "Cannot remove event handler"));
    EXPECT_FALSE(EventManager::isApprovedFd(stranger.get()));
}

TEST(EventManagerTest, DispatchHangUpAndUnapprovedClosedAtMostFourEventsPerPass) {
    test::ScopedLogCapture log;
    EventManager events;
    Counter counter;

    // A pipe whose writer is closed with data still in it: readable and hung up.
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_NONBLOCK | O_CLOEXEC), 0);
    android::base::unique_fd writer(pipeFds[1]);
    ASSERT_EQ(write(writer.get(), "x", 1), 1);
    writer.reset();
    events.addEventHandler(pipeFds[0], Counter::onReadable, &counter, Counter::onClose, EPOLLIN);
    events.processEvents();
    EXPECT_EQ(counter.calls, std::vector<int>{-pipeFds[0]});  // closed, never read
    EXPECT_FALSE(isOpen(pipeFds[0]));
    EXPECT_TRUE(log.contains(LogLevel::Warning,
                             "file descriptor '" + std::to_string(pipeFds[0]) + "' sent HUP."));

    counter.calls.clear();
    std::vector<EventFd> fds(6);
    for (const auto& fd : fds) {
        events.addEventHandler(fd.get(), Counter::onReadable, &counter, nullptr, EPOLLIN);
        signal(fd.get());
    }
    events.processEvents();
    EXPECT_EQ(counter.calls.size(), 4u);
    events.processEvents();
    EXPECT_EQ(counter.calls.size(), 6u);
    for (const auto& fd : fds) events.removeEventHandler(fd.get());

    // Approval withdrawn behind the manager's back, as when a descriptor
    // number is closed and reused elsewhere: removed and closed, not read.
    counter.calls.clear();
    const int fd = makeEventFdForTheManager();
    events.addEventHandler(fd, Counter::onReadable, &counter, nullptr, EPOLLIN);
    EventManager::remApprovedFd(fd);
    signal(fd);
    events.processEvents();
    EXPECT_TRUE(counter.calls.empty());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(log.contains(LogLevel::Warning,
                             "file descriptor " + std::to_string(fd) +
                                     " is not on the approved list, cannot process event"));
}

TEST(EventManagerTest, WakeUnblocksWaitAndDrainsItsCounter) {
    EventManager events;
    std::thread worker([&events] { events.processEvents(); });
    events.wake();
    worker.join();  // returns only because the wake descriptor fired

    EventFd fd;
    signal(fd.get());
    signal(fd.get());
    EventManager::clearRead(fd.get(), nullptr);
    uint64_t value = 0;
    EXPECT_EQ(read(fd.get(), &value, sizeof(value)), -1);
    EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
}  // namespace kiv
