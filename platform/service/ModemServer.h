// The simulated modem as a service: one modem (ModemCore) served to any
// number of clients over SOCK_SEQPACKET Unix sockets (ServiceWire.h). Each
// connection is one client of the modem; a change made through one reaches
// every other client registered for profile events as an indication, as on
// a real modem.
//
// One thread runs the service (run()); the modem's requests are served one
// at a time in arrival order, each taking the configured latency, and a
// request that cannot be answered within its time-out is dropped (its
// client sees the time-out). A client that stops reading its messages is
// disconnected rather than allowed to hold the modem's memory.
//
// What a client is sent leaves in the order the modem produced it: an
// answer follows every indication the modem raised before it served the
// request, and precedes the indications its change raised. A delayed
// indication holds back what comes after it, as a slow channel would.
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ServiceSocket.h"
#include "base/EventFd.h"
#include "base/Mutex.h"
#include "sim/ModemCore.h"
#include "wire/ServiceWire.h"

namespace xalservice {

class ModemServer {
  public:
    struct Options {
        xalsim::Config config;
        std::chrono::milliseconds latency{0};  // per request, as a real modem's round trip
    };
    using Log = std::function<void(const std::string& line)>;

    ModemServer(const Options& options, Log log);
    ~ModemServer();
    ModemServer(const ModemServer&) = delete;
    ModemServer& operator=(const ModemServer&) = delete;

    // The modem served. It may be set up (table, commit hook) before run().
    xalsim::ModemCore& modem() { return mModem; }

    // Listens on a Unix socket at `path` (mode 0600). Refused when another
    // service listens there; a socket left behind by one that died is
    // replaced. The socket is removed when the server is destroyed.
    android::base::Result<void> listen(const std::string& path);
    // Serves a connection made elsewhere (one end of a socketpair). Any thread.
    void adopt(android::base::unique_fd connection);
    // Serves until stop() is called, or `stopFd` (if given) becomes readable.
    void run(int stopFd = -1);
    // Makes run() return. Any thread.
    void stop();
    // Handles everything ready now, without waiting, on the calling thread
    // (instead of run(): for tests and fuzzing, one step at a time).
    void pump();

  private:
    using Clock = std::chrono::steady_clock;
    struct Outgoing {
        Clock::time_point due;  // not sent before; nor is anything behind it
        std::vector<uint8_t> bytes;
        std::optional<xalsim::Event::Kind> event;  // counted as delivered once sent
    };
    struct Connection {
        uint64_t id;
        android::base::unique_fd fd;
        wire::Role role = wire::Role::kProbe;
        bool greeted = false;
        bool clientOpen = false;  // the modem knows it as a client
        bool dead = false;
        bool waitingToWrite = false;
        pid_t pid = 0;
        uid_t uid = 0;
        std::deque<Outgoing> outgoing;  // in order, each not before its time
        size_t queuedBytes = 0;
    };
    struct PendingRequest {
        uint64_t connection;
        uint32_t seq;
        unsigned int msgId;
        unsigned int timeoutMs;
        uint32_t responseLength;
        std::vector<uint8_t> request;
        Clock::time_point arrival;
    };
    struct Waiter {  // a control client waiting for requests to arrive
        uint64_t connection;
        uint32_t seq;
        unsigned int msgId;
        uint64_t count;
        Clock::time_point deadline;
    };
    struct Posted {
        xalsim::ClientId client;
        xalsim::Event event;
        Clock::time_point due;
    };

    enum class Step { kIdle, kBusy, kStop };
    // One wait of at most timeoutMs for the descriptors, and what follows.
    Step step(int timeoutMs);
    static xalsim::ClientId clientIdOf(uint64_t connection);
    static uint64_t connectionOf(xalsim::ClientId client);

    void accept();
    void addConnection(android::base::unique_fd fd);
    void readFrom(Connection& connection);
    void handle(Connection& connection, const wire::Message& message);
    void handleControl(Connection& connection, const wire::Message& message);
    void drop(Connection& connection, const std::string& why);
    void close(Connection& connection);
    void reply(Connection& connection, const wire::Message& message);
    void queue(Connection& connection, Outgoing outgoing);
    void flush(Connection& connection, Clock::time_point now);
    void takePosted();
    // Serves the requests whose turn has come; the time of the next one.
    std::optional<Clock::time_point> serveDue(Clock::time_point now);
    void checkWaiters(Clock::time_point now);
    int timeoutUntilNextWork(Clock::time_point now);
    void watch(int fd, uint64_t key, uint32_t events);
    std::string describe(const Connection& connection) const;
    bool heldBack(const Connection& connection) const;

    const Options mOptions;
    const Log mLog;
    xalsim::ModemCore mModem;

    android::base::unique_fd mEpoll;
    kiv::EventFd mWake;  // stop(), adopt() and events posted by other threads
    std::optional<ServiceSocket> mSocket;

    // Events the modem raised, waiting for the service thread.
    kiv::Mutex mPostedLock;
    std::vector<Posted> mPosted GUARDED_BY(mPostedLock);
    std::vector<android::base::unique_fd> mAdopted GUARDED_BY(mPostedLock);
    bool mStopping GUARDED_BY(mPostedLock);

    // The service thread's own.
    std::map<uint64_t, Connection> mConnections;
    uint64_t mNextId = kFirstConnection;
    std::deque<PendingRequest> mPending;
    Clock::time_point mBusyUntil{};
    std::map<unsigned int, uint64_t> mArrivals;  // requests received, by message id
    std::vector<Waiter> mWaiters;
    // Held: nothing goes out to the modem's clients until it is released
    // (a control command, to order events deterministically in tests).
    bool mHolding = false;

    static constexpr uint64_t kWakeKey = 1;
    static constexpr uint64_t kListenKey = 2;
    static constexpr uint64_t kStopKey = 3;
    static constexpr uint64_t kFirstConnection = 16;
};

}  // namespace xalservice
