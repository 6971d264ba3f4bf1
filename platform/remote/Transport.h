// The transport of the modem service's messaging client: one connection
// per client, the handshake, one event thread that reads every connection
// of the process, matches answers to the requests waiting for them, runs
// the callbacks in order with the answers, and reconnects notifiers when the
// service comes back. Handles are never freed, so a released handle is
// never mistaken for a live one. Internal to libxalremote: its clients and
// requests are in Transport.cpp, its event thread in TransportThread.cpp,
// one connection's packets and hello in Connection.h.
#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "XalRemote.h"
#include "base/EventFd.h"
#include "base/Mutex.h"
#include "wire/ServiceWire.h"
#include "xal/xal_client.h"

namespace xalremote {

using Clock = std::chrono::steady_clock;

// What a callback is told.
struct Callback {
    wire::EventKind kind;
    int code;
    unsigned int msgId;
    std::vector<uint8_t> payload;
};

// One answer awaited by a caller: a response or a pong.
struct Awaited {
    bool done = false;
    xal_client_error_type result = XAL_NO_ERR;
    std::vector<uint8_t> body;
};

// An answer read from the service, handed to its caller in turn with the
// callbacks read before and after it.
struct Answer {
    uint32_t seq;
    bool response;  // else a pong
    xal_client_error_type result;
    std::vector<uint8_t> body;
};

}  // namespace xalremote

struct xal_client_struct {
    explicit xal_client_struct(bool isNotifier) : notifier(isNotifier) {}

    const bool notifier;
    // Everything below is guarded by xalremote::Transport::mLock.
    android::base::unique_fd fd;  // the connection; may be closed only by release
    bool released = false;
    bool connected = false;     // the connection is up and read by the event thread
    bool lost = false;          // service client: the service went away or down
    bool lostReported = false;  // its error callback was queued
    bool serviceUp = false;     // notifier: as last told
    bool registered = false;    // service client: its event-list request was answered
    uint32_t nextSeq = 0;
    std::map<uint32_t, xalremote::Awaited*> awaited;
    xalremote::Clock::time_point retryAt{};  // notifier without a connection: the next attempt
    xal_client_notify_cb notifyCb = nullptr;
    void* notifyData = nullptr;
    xal_client_error_cb errorCb = nullptr;
    void* errorData = nullptr;
    xal_client_ind_cb indCb = nullptr;
    void* indData = nullptr;
    kiv::Mutex sendLock;  // one writer on the connection at a time
};

namespace xalremote {

class Transport {
  public:
    // The process's one transport, made on first use and never destroyed
    // (clients may still be released while the process exits).
    static Transport& instance();
    // A request travels in one message, after the header and three words.
    static constexpr size_t kMostRequest = wire::kMaxMessage - wire::kHeaderSize - 12;

    // A service named anew is another service: no client of this process
    // is returning to it.
    void setPath(const std::string& path);
    std::string path();
    void setConnector(xalremote::Connector connect);

    // A new connection to the service (xalremote::connectToService).
    android::base::unique_fd connect();

    // The C interface's calls, each on the handles of this process.
    xal_client_type newNotifier();
    xal_client_error_type newClient(xal_client_ind_cb indCb, void* indData, xal_client_type* out);

    bool isLive(xal_client_type client);
    xal_client_error_type registerNotify(xal_client_type client, xal_client_notify_cb cb,
                                         void* data);
    xal_client_error_type registerError(xal_client_type client, xal_client_error_cb cb, void* data);
    xal_client_error_type sendSync(xal_client_type client, unsigned int msgId, const void* request,
                                   unsigned int requestLength, void* response,
                                   unsigned int responseLength, unsigned int timeoutMs);

    // Tells the observer, if any, of a request's outcome. Not with the lock held.
    void observe(const xalremote::RequestOutcome& outcome) EXCLUDES(mLock);

    xal_client_error_type release(xal_client_type client);

    // What XalRemote.h offers a program, as it describes them.
    size_t registeredClients();
    void setRequestHook(xalremote::RequestHook hook);
    void setObserver(xalremote::RequestObserver observer);
    bool waitForRegistered(size_t count, std::chrono::milliseconds timeout);
    bool sync(std::chrono::milliseconds timeout);

    // Asks once whether the service is up (xal_client_get_any_service).
    xal_client_error_type probe();

  private:
    // A callback owed to a client, or an answer owed to a caller.
    struct Deferred {
        xal_client_type client;
        Callback event;
        std::optional<Answer> answer;
    };

    Transport();

    bool isLiveLocked(xal_client_type client) const REQUIRES(mLock);
    // Why a request of the client cannot be sent now; none when it can.
    std::optional<xal_client_error_type> refusalLocked(xal_client_type client) const
            REQUIRES(mLock);

    size_t registeredLocked() const REQUIRES(mLock);

    // The indications of an answer given here, queued for the requesting
    // client (while it is open) after what the service sent before.
    void answerLocallyLocked(xal_client_type client, xalremote::LocalAnswer answer) REQUIRES(mLock);

    void startLocked() REQUIRES(mLock);

    void wakeLocked() REQUIRES(mLock) { mWake.signal(); }

    void attachLocked(xal_client_type client, android::base::unique_fd fd) REQUIRES(mLock);

    void detachLocked(xal_client_type client) REQUIRES(mLock);

    // The connection ended: the service went away.
    void lostLocked(xal_client_type client) REQUIRES(mLock);

    void markLostLocked(xal_client_type client) REQUIRES(mLock);

    // One message from the service, read by the event thread or, for a
    // callback waiting for its own answer, inline.
    void takeLocked(xal_client_type client, wire::Message message, bool readInline) REQUIRES(mLock);

    // Reads the calling callback's own connection until its answer arrives.
    void readInline(xal_client_type client, uint32_t seq, Clock::time_point deadline);

    void deliver(xal_client_type client, const Callback& event);

    // Hands an answer to its caller, if it still waits.
    bool answerLocked(xal_client_type client, Answer answer) REQUIRES(mLock);

    // Runs the callbacks owed and hands out the answers owed, in the order
    // they arrived; no callback while the lock is held. A caller given its
    // response has returned before the callbacks read after it run, so that
    // what arrived before an answer is seen before it, and what arrived
    // after it, after it.
    void runDeferred() REQUIRES(mLock);

    void reconnectLocked(xal_client_type client) REQUIRES(mLock);

    void run();

    kiv::Mutex mLock;
    std::condition_variable mChanged;  // answers, registrations, deliveries
    std::string mPath GUARDED_BY(mLock);
    xalremote::Connector mConnector GUARDED_BY(mLock);
    std::map<xal_client_type, std::unique_ptr<xal_client_struct>> mHandles GUARDED_BY(mLock);
    std::vector<std::unique_ptr<xal_client_struct>> mReleased GUARDED_BY(mLock);
    std::deque<Deferred> mDeferred GUARDED_BY(mLock);
    xalremote::RequestObserver mObserver GUARDED_BY(mLock);
    xalremote::RequestHook mRequestHook GUARDED_BY(mLock);
    // The handle whose connection or callback the event thread is busy with.
    xal_client_type mBusy GUARDED_BY(mLock);
    // Some service client lost the service; the next one to connect says so.
    bool mServiceLost GUARDED_BY(mLock);
    const android::base::unique_fd mEpoll;
    const kiv::EventFd mWake;
    std::thread mThread;
    std::atomic<std::thread::id> mThreadId{};
};

}  // namespace xalremote
