#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <thread>
#include <vector>

#include "CapturingLog.h"
#include "EventManager.h"

namespace kiv {
namespace {

int makeEventFd() {
    return eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

void signal(int fd) {
    const uint64_t one = 1;
    ASSERT_EQ(write(fd, &one, sizeof(one)), static_cast<ssize_t>(sizeof(one)));
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

TEST(EventManager_Registration, DuplicatesRefusedAndRemovalRunsCloseCallback) {
    test::ScopedLogCapture log;
    EventManager events;
    Counter first, second;
    const int fd = makeEventFd();
    ASSERT_TRUE(events.addEventHandler(fd, Counter::onReadable, &first, Counter::onClose, EPOLLIN));
    EXPECT_TRUE(EventManager::isApprovedFd(fd));
    EXPECT_FALSE(events.addEventHandler(fd, Counter::onReadable, &second, nullptr, EPOLLIN));
    EXPECT_TRUE(log.contains("fd=" + std::to_string(fd) + " is already in handlers"));

    signal(fd);
    events.processEvents();
    EXPECT_EQ(first.calls, std::vector<int>{fd});  // the first registration stays
    EXPECT_TRUE(second.calls.empty());

    events.removeEventHandler(fd);
    EXPECT_EQ(first.calls, (std::vector<int>{fd, -fd}));
    EXPECT_FALSE(EventManager::isApprovedFd(fd));
    EXPECT_TRUE(isOpen(fd));  // the owner closes it
    close(fd);

    // A descriptor that was never added: epoll refuses, nothing else happens.
    log.clear();
    const int stranger = makeEventFd();
    events.removeEventHandler(stranger);
    EXPECT_TRUE(log.contains("Cannot remove event handler"));
    EXPECT_FALSE(EventManager::isApprovedFd(stranger));
    close(stranger);
}

TEST(EventManager_Dispatch, HangUpWinsAndAtMostFourEventsPerPass) {
    test::ScopedLogCapture log;
    EventManager events;
    Counter counter;

    // A pipe whose writer is closed with data still in it: readable and hung up.
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_NONBLOCK | O_CLOEXEC), 0);
    ASSERT_EQ(write(pipeFds[1], "x", 1), 1);
    close(pipeFds[1]);
    events.addEventHandler(pipeFds[0], Counter::onReadable, &counter, Counter::onClose, EPOLLIN);
    events.processEvents();
    EXPECT_EQ(counter.calls, std::vector<int>{-pipeFds[0]});  // closed, never read
    EXPECT_FALSE(isOpen(pipeFds[0]));
    EXPECT_TRUE(log.contains("file descriptor '" + std::to_string(pipeFds[0]) + "' sent HUP."));

    counter.calls.clear();
    std::vector<int> fds;
    for (int i = 0; i < 6; ++i) {
        fds.push_back(makeEventFd());
        events.addEventHandler(fds.back(), Counter::onReadable, &counter, nullptr, EPOLLIN);
        signal(fds.back());
    }
    events.processEvents();
    EXPECT_EQ(counter.calls.size(), 4u);
    events.processEvents();
    EXPECT_EQ(counter.calls.size(), 6u);
    for (int fd : fds) {
        events.removeEventHandler(fd);
        close(fd);
    }
}

TEST(EventManager_Dispatch, UnapprovedDescriptorIsRemovedAndClosed) {
    test::ScopedLogCapture log;
    EventManager events;
    Counter counter;
    const int fd = makeEventFd();
    events.addEventHandler(fd, Counter::onReadable, &counter, nullptr, EPOLLIN);
    // Approval withdrawn behind the manager's back, as when a descriptor
    // number is closed and reused elsewhere.
    EventManager::remApprovedFd(fd);
    signal(fd);
    events.processEvents();
    EXPECT_TRUE(counter.calls.empty());
    EXPECT_FALSE(isOpen(fd));
    EXPECT_TRUE(log.contains("file descriptor " + std::to_string(fd) +
                             " is not on the approved list, cannot process event"));
}

TEST(EventManager_Wake, UnblocksWaitAndDrainsItsCounter) {
    EventManager events;
    std::thread worker([&events] { events.processEvents(); });
    events.wake();
    worker.join();  // returns only because the wake descriptor fired

    const int fd = makeEventFd();
    signal(fd);
    signal(fd);
    EventManager::clearRead(fd, nullptr);
    uint64_t value = 0;
    EXPECT_EQ(read(fd, &value, sizeof(value)), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
}

}  // namespace
}  // namespace kiv
