#include "Transport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "wire/ClientContract.h"
#include "xal/wds_v01.h"

namespace xalremote {

using android::base::unique_fd;
using wire::EventKind;
using wire::Message;
using wire::MessageType;
using wire::Role;

namespace {

// How long a notifier waits between attempts to reach a service that is away.
constexpr auto kReconnectInterval = std::chrono::milliseconds(100);
// How long the service has to answer a hello.
constexpr auto kHandshakeTimeout = std::chrono::milliseconds(2000);

// Sends one packet, waiting for room until the deadline.
xal_client_error_type sendPacket(int fd, const Message& message, Clock::time_point deadline) {
    const std::vector<uint8_t> bytes = wire::encode(message);
    for (;;) {
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent == static_cast<ssize_t>(bytes.size())) return XAL_NO_ERR;
        if (sent >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            return XAL_SERVICE_ERR;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return XAL_TIMEOUT_ERR;
        pollfd out{fd, POLLOUT, 0};
        poll(&out, 1, static_cast<int>(std::min<int64_t>(left.count(), 60000)));
    }
}

// Reads one packet, waiting until the deadline. Null on time-out, end or error.
std::optional<Message> receivePacket(int fd, Clock::time_point deadline, bool* closed) {
    std::vector<uint8_t> buffer(wire::kMaxMessage + 1);
    for (;;) {
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (got > 0) {
            auto message = wire::decode(buffer.data(), static_cast<size_t>(got));
            if (!message.ok()) return std::nullopt;
            return std::move(*message);
        }
        if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
            *closed = true;
            return std::nullopt;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return std::nullopt;
        pollfd in{fd, POLLIN, 0};
        poll(&in, 1, static_cast<int>(std::min<int64_t>(left.count(), 60000)));
    }
}

// Opens a connection and says hello; the service's answer, or why not.
xal_client_error_type handshake(unique_fd& fd, Role role, uint32_t flags) {
    fd = xalremote::connectToService();
    if (fd.get() < 0) return XAL_SERVICE_ERR;
    const auto deadline = Clock::now() + kHandshakeTimeout;
    const Message hello = wire::makeMessage(
            MessageType::kHello, 0,
            {static_cast<uint32_t>(role), flags, static_cast<uint32_t>(getpid())});
    if (sendPacket(fd.get(), hello, deadline) != XAL_NO_ERR) {
        fd.reset();
        return XAL_SERVICE_ERR;
    }
    bool closed = false;
    auto welcome = receivePacket(fd.get(), deadline, &closed);
    if (!welcome || welcome->type != MessageType::kWelcome) {
        fd.reset();
        return XAL_SERVICE_ERR;
    }
    const auto result = static_cast<xal_client_error_type>(welcome->words[0]);
    if (result != XAL_NO_ERR) fd.reset();
    return result;
}

}  // namespace

Transport& Transport::instance() {
    // Immortal: clients may still be released while the process exits.
    static Transport* sInstance = new Transport;
    return *sInstance;
}

void Transport::setPath(const std::string& path) {
    kiv::MutexLock guard(mLock);
    if (path != mPath) mServiceLost = false;
    mPath = path;
}

std::string Transport::path() {
    kiv::MutexLock guard(mLock);
    return mPath;
}

void Transport::setConnector(xalremote::Connector connect) {
    kiv::MutexLock guard(mLock);
    mServiceLost = false;
    mConnector = std::move(connect);
}

unique_fd Transport::connect() {
    xalremote::Connector connector;
    std::string path;
    {
        kiv::MutexLock guard(mLock);
        connector = mConnector;
        path = mPath;
    }
    unique_fd fd;
    if (connector) {
        fd = connector();
    } else {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.empty() || path.size() >= sizeof(address.sun_path)) {
            errno = path.empty() ? EDESTADDRREQ : ENAMETOOLONG;
            return unique_fd();
        }
        memcpy(address.sun_path, path.data(), path.size());
        fd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        if (fd.get() < 0 ||
            TEMP_FAILURE_RETRY(::connect(fd.get(), reinterpret_cast<sockaddr*>(&address),
                                         sizeof(address))) != 0) {
            return unique_fd();
        }
    }
    if (fd.get() >= 0) {
        const int flags = fcntl(fd.get(), F_GETFL);
        if (flags < 0 || fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) != 0) return unique_fd();
    }
    return fd;
}

xal_client_type Transport::newNotifier() {
    auto handle = std::make_unique<xal_client_struct>(true);
    xal_client_type client = handle.get();
    unique_fd fd;
    const bool up = handshake(fd, Role::kNotifier, 0) == XAL_NO_ERR;
    kiv::MutexLock guard(mLock);
    mHandles.emplace(client, std::move(handle));
    if (up) {
        attachLocked(client, std::move(fd));
    } else {
        // The event thread tries again; it has to learn of the new notifier.
        client->retryAt = Clock::now() + kReconnectInterval;
        wakeLocked();
    }
    startLocked();
    return client;
}

xal_client_error_type Transport::newClient(xal_client_ind_cb indCb, void* indData,
                                           xal_client_type* out) {
    bool returning;
    {
        kiv::MutexLock guard(mLock);
        returning = std::exchange(mServiceLost, false);
    }
    unique_fd fd;
    const xal_client_error_type result =
            handshake(fd, Role::kService, returning ? wire::kReturning : 0);
    kiv::MutexLock guard(mLock);
    if (result != XAL_NO_ERR) {
        mServiceLost = mServiceLost || returning;
        return result;
    }
    auto handle = std::make_unique<xal_client_struct>(false);
    xal_client_type client = handle.get();
    client->indCb = indCb;
    client->indData = indData;
    mHandles.emplace(client, std::move(handle));
    attachLocked(client, std::move(fd));
    startLocked();
    *out = client;
    return XAL_NO_ERR;
}

bool Transport::isLive(xal_client_type client) {
    kiv::MutexLock guard(mLock);
    return isLiveLocked(client);
}

xal_client_error_type Transport::registerNotify(xal_client_type client, xal_client_notify_cb cb,
                                                void* data) {
    kiv::MutexLock guard(mLock);
    if (!isLiveLocked(client) || !client->notifier) return XAL_CLIENT_INVALID_CLNT;
    client->notifyCb = cb;
    client->notifyData = data;
    // The service tells a watching notifier whether it is up.
    if (cb != nullptr && client->connected) {
        sendPacket(client->fd.get(), wire::makeMessage(MessageType::kWatch),
                   Clock::now() + kHandshakeTimeout);
    }
    return XAL_NO_ERR;
}

xal_client_error_type Transport::registerError(xal_client_type client, xal_client_error_cb cb,
                                               void* data) {
    kiv::MutexLock guard(mLock);
    if (!isLiveLocked(client) || client->notifier) return XAL_CLIENT_INVALID_CLNT;
    client->errorCb = cb;
    client->errorData = data;
    // A service already lost is reported at once, as it would have been.
    if (cb != nullptr && client->lost && !client->lostReported) {
        client->lostReported = true;
        mDeferred.push_back({client, {EventKind::kError, XAL_SERVICE_ERR, 0, {}}, std::nullopt});
        wakeLocked();
    }
    return XAL_NO_ERR;
}

xal_client_error_type Transport::sendSync(xal_client_type client, unsigned int msgId,
                                          const void* request, unsigned int requestLength,
                                          void* response, unsigned int responseLength,
                                          unsigned int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    Awaited answer;
    uint32_t seq;
    kiv::MutexLock guard(mLock);
    std::optional<xal_client_error_type> early;
    if (!isLiveLocked(client) || client->notifier) {
        early = XAL_CLIENT_INVALID_CLNT;
    } else if (client->lost || !client->connected) {
        early = XAL_SERVICE_ERR;  // not sent: the service is away
    } else if (mRequestHook) {
        const xalremote::RequestHook hook = mRequestHook;
        guard.unlock();
        auto local = hook(client, msgId, request, requestLength, response, responseLength);
        guard.lock();
        if (local) {
            early = XAL_NO_ERR;
            answerLocallyLocked(client, std::move(*local));
        }
    }
    if (early) {
        guard.unlock();
        const bool answered = *early == XAL_NO_ERR;
        observe({client, msgId, *early, answered, answered ? response : nullptr,
                 answered ? responseLength : 0});
        return *early;
    }
    seq = ++client->nextSeq;
    client->awaited[seq] = &answer;
    const bool onEventThread = std::this_thread::get_id() == mThreadId;
    guard.unlock();
    xal_client_error_type sent;
    {
        kiv::MutexLock writer(client->sendLock);
        const auto* bytes = static_cast<const uint8_t*>(request);
        sent = sendPacket(
                client->fd.get(),
                wire::makeMessage(MessageType::kRequest, seq, {msgId, timeoutMs, responseLength},
                                  std::vector<uint8_t>(bytes, bytes + requestLength)),
                deadline);
    }
    if (sent == XAL_NO_ERR && onEventThread) {
        // A callback asking: nobody else reads this connection meanwhile.
        readInline(client, seq, deadline);
    }
    guard.lock();
    if (sent == XAL_NO_ERR && !onEventThread) {
        guard.waitUntil(mChanged, deadline, [&] { return answer.done; });
    }
    xal_client_error_type result = sent;
    if (sent == XAL_NO_ERR) result = answer.done ? answer.result : XAL_TIMEOUT_ERR;
    if (result == XAL_NO_ERR) {
        memset(response, 0, responseLength);
        memcpy(response, answer.body.data(), std::min<size_t>(answer.body.size(), responseLength));
        if (msgId == XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) {
            client->registered = true;
            mChanged.notify_all();
        }
    }
    // Told while the event thread still holds back what arrived after
    // the answer: the observer sees the request complete in its turn.
    guard.unlock();
    observe({client, msgId, result, sent == XAL_NO_ERR, result == XAL_NO_ERR ? response : nullptr,
             result == XAL_NO_ERR ? responseLength : 0});
    guard.lock();
    client->awaited.erase(seq);
    mChanged.notify_all();
    return result;
}

void Transport::observe(const xalremote::RequestOutcome& outcome) {
    xalremote::RequestObserver observer;
    {
        kiv::MutexLock guard(mLock);
        observer = mObserver;
    }
    if (observer) observer(outcome);
}

xal_client_error_type Transport::release(xal_client_type client) {
    kiv::MutexLock guard(mLock);
    if (!isLiveLocked(client)) return XAL_CLIENT_INVALID_CLNT;
    client->released = true;
    detachLocked(client);
    for (auto& [seq, awaited] : client->awaited) {
        awaited->done = true;
        awaited->result = XAL_CLIENT_INVALID_CLNT;
    }
    mDeferred.erase(std::remove_if(mDeferred.begin(), mDeferred.end(),
                                   [client](const Deferred& d) { return d.client == client; }),
                    mDeferred.end());
    mChanged.notify_all();
    // A callback of this client running now finishes first, unless the
    // caller is that callback.
    if (std::this_thread::get_id() != mThreadId) {
        guard.wait(mChanged, [&]() REQUIRES(mLock) { return mBusy != client; });
    }
    // Kept, never freed: a stale handle must never name a new client.
    auto it = mHandles.find(client);
    mReleased.push_back(std::move(it->second));
    mHandles.erase(it);
    guard.unlock();
    {
        kiv::MutexLock writer(client->sendLock);
        client->fd.reset();
    }
    return XAL_NO_ERR;
}

size_t Transport::registeredClients() {
    kiv::MutexLock guard(mLock);
    return registeredLocked();
}

void Transport::setRequestHook(xalremote::RequestHook hook) {
    kiv::MutexLock guard(mLock);
    mRequestHook = std::move(hook);
}

void Transport::setObserver(xalremote::RequestObserver observer) {
    kiv::MutexLock guard(mLock);
    mObserver = std::move(observer);
}

bool Transport::waitForRegistered(size_t count, std::chrono::milliseconds timeout) {
    kiv::MutexLock guard(mLock);
    return guard.waitUntil(mChanged, Clock::now() + timeout,
                           [&]() REQUIRES(mLock) { return registeredLocked() >= count; });
}

bool Transport::sync(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    kiv::MutexLock guard(mLock);
    if (std::this_thread::get_id() == mThreadId) return false;
    struct Ping {
        xal_client_type client;
        uint32_t seq;
        std::unique_ptr<Awaited> answer;
    };
    std::vector<Ping> pings;
    for (const auto& [client, handle] : mHandles) {
        if (!client->connected) continue;
        Ping ping{client, ++client->nextSeq, std::make_unique<Awaited>()};
        client->awaited[ping.seq] = ping.answer.get();
        pings.push_back(std::move(ping));
    }
    guard.unlock();
    for (auto& ping : pings) {
        // A ping that cannot be sent meets a connection that has ended:
        // its end, read by the event thread, answers it.
        kiv::MutexLock writer(ping.client->sendLock);
        if (ping.client->fd.get() >= 0) {
            sendPacket(ping.client->fd.get(), wire::makeMessage(MessageType::kPing, ping.seq),
                       deadline);
        }
    }
    guard.lock();
    // A pong is read after every event sent before it was delivered; so
    // is a connection's end. Deferred callbacks run before the next read.
    const bool done = guard.waitUntil(mChanged, deadline, [&]() REQUIRES(mLock) {
        for (const auto& ping : pings) {
            if (!ping.answer->done) return false;
        }
        return mDeferred.empty() && mBusy == nullptr;
    });
    for (auto& ping : pings) ping.client->awaited.erase(ping.seq);
    return done;
}

Transport::Transport() : mBusy(nullptr), mServiceLost(false), mEpoll(epoll_create1(EPOLL_CLOEXEC)) {
    const char* path = getenv("KIVR_MODEM");
    if (path != nullptr) mPath = path;
    if (mEpoll.get() < 0 || !mWake.valid()) abort();
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, mWake.get(), &event);
}

bool Transport::isLiveLocked(xal_client_type client) const {
    return mHandles.count(client) != 0;
}

size_t Transport::registeredLocked() const {
    size_t count = 0;
    for (const auto& [client, handle] : mHandles) {
        count += !client->notifier && !client->lost && client->registered;
    }
    return count;
}

void Transport::answerLocallyLocked(xal_client_type client, xalremote::LocalAnswer answer) {
    if (!isLiveLocked(client)) return;
    for (auto& [msgId, bytes] : answer.indications) {
        mDeferred.push_back(
                {client, {EventKind::kIndication, 0, msgId, std::move(bytes)}, std::nullopt});
    }
    wakeLocked();
}

void Transport::startLocked() {
    if (mThread.joinable()) return;
    mThread = std::thread([this] { run(); });
    mThreadId = mThread.get_id();
}

void Transport::attachLocked(xal_client_type client, unique_fd fd) {
    {
        // A notifier's earlier connection may be in a writer's hands.
        kiv::MutexLock writer(client->sendLock);
        client->fd = std::move(fd);
    }
    client->connected = true;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = client;
    epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, client->fd.get(), &event);
}

void Transport::detachLocked(xal_client_type client) {
    if (!client->connected) return;
    client->connected = false;
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, client->fd.get(), nullptr);
}

void Transport::lostLocked(xal_client_type client) {
    detachLocked(client);
    for (auto& [seq, awaited] : client->awaited) {
        awaited->done = true;
        awaited->result = XAL_SERVICE_ERR;
    }
    if (client->notifier) {
        if (client->serviceUp) {
            client->serviceUp = false;
            mDeferred.push_back({client,
                                 {EventKind::kNotify, XAL_CLIENT_SERVICE_COUNT_DEC, 0, {}},
                                 std::nullopt});
        }
        client->retryAt = Clock::now() + kReconnectInterval;
    } else {
        markLostLocked(client);
    }
    mChanged.notify_all();
}

void Transport::markLostLocked(xal_client_type client) {
    if (client->lost) return;
    client->lost = true;
    mServiceLost = true;
    if (client->errorCb != nullptr && !client->lostReported) {
        client->lostReported = true;
        mDeferred.push_back({client, {EventKind::kError, XAL_SERVICE_ERR, 0, {}}, std::nullopt});
    }
}

void Transport::takeLocked(xal_client_type client, Message message, bool readInline) {
    switch (message.type) {
        case MessageType::kResponse:
        case MessageType::kPong: {
            const bool response = message.type == MessageType::kResponse;
            Answer answer{
                    message.seq, response,
                    response ? static_cast<xal_client_error_type>(message.words[0]) : XAL_NO_ERR,
                    std::move(message.body)};
            if (readInline) {
                answerLocked(client, std::move(answer));
            } else {
                // In turn: after the callbacks read before it.
                mDeferred.push_back({client, {}, std::move(answer)});
            }
            return;
        }
        case MessageType::kEvent: {
            const auto kind = static_cast<EventKind>(message.words[0]);
            const int code = static_cast<int>(message.words[1]);
            if (kind == EventKind::kNotify && client->notifier) {
                client->serviceUp = code == XAL_CLIENT_SERVICE_COUNT_INC;
            } else if (kind == EventKind::kError && !client->notifier) {
                // Reported through markLostLocked, once.
                markLostLocked(client);
                return;
            } else if (kind != EventKind::kIndication || client->notifier) {
                return;
            }
            mDeferred.push_back({client,
                                 {kind, code, message.words[2], std::move(message.body)},
                                 std::nullopt});
            return;
        }
        default:
            return;  // nothing else is meant for a client
    }
}

void Transport::readInline(xal_client_type client, uint32_t seq, Clock::time_point deadline) {
    for (;;) {
        bool closed = false;
        auto message = receivePacket(client->fd.get(), deadline, &closed);
        kiv::MutexLock guard(mLock);
        if (closed) {
            lostLocked(client);
            return;
        }
        if (!message) return;
        const bool answer = message->type == MessageType::kResponse && message->seq == seq;
        takeLocked(client, std::move(*message), /*readInline=*/true);
        if (answer) return;
    }
}

void Transport::deliver(xal_client_type client, const Callback& event) {
    std::vector<uint8_t> payload = event.payload;
    switch (event.kind) {
        case EventKind::kNotify:
            if (client->notifyCb) {
                client->notifyCb(client, wire::wdsServiceObject(),
                                 static_cast<xal_client_notify_event_type>(event.code),
                                 client->notifyData);
            }
            break;
        case EventKind::kError:
            if (client->errorCb) client->errorCb(client, event.code, client->errorData);
            break;
        case EventKind::kIndication:
            if (client->indCb) {
                client->indCb(client, event.msgId, payload.data(),
                              static_cast<unsigned int>(payload.size()), client->indData);
            }
            break;
    }
}

bool Transport::answerLocked(xal_client_type client, Answer answer) {
    auto it = client->awaited.find(answer.seq);
    if (it == client->awaited.end()) return false;  // its caller stopped waiting
    it->second->done = true;
    it->second->result = answer.result;
    it->second->body = std::move(answer.body);
    mChanged.notify_all();
    return true;
}

void Transport::runDeferred() {
    while (!mDeferred.empty()) {
        Deferred next = std::move(mDeferred.front());
        mDeferred.pop_front();
        if (next.client->released) continue;
        if (next.answer) {
            const uint32_t seq = next.answer->seq;
            const bool response = next.answer->response;
            if (answerLocked(next.client, std::move(*next.answer)) && response) {
                xal_client_type client = next.client;
                mLock.wait(mChanged, [&]() REQUIRES(mLock) {
                    return client->released || client->awaited.count(seq) == 0;
                });
            }
            continue;
        }
        mBusy = next.client;
        mLock.unlock();
        deliver(next.client, next.event);
        mLock.lock();
        mBusy = nullptr;
        mChanged.notify_all();
    }
}

void Transport::reconnectLocked(xal_client_type client) {
    mBusy = client;
    mLock.unlock();
    unique_fd fd;
    const bool up = handshake(fd, Role::kNotifier, 0) == XAL_NO_ERR;
    mLock.lock();
    mBusy = nullptr;
    mChanged.notify_all();
    if (client->released) return;
    if (!up) {
        client->retryAt = Clock::now() + kReconnectInterval;
        return;
    }
    attachLocked(client, std::move(fd));
    if (client->notifyCb != nullptr) {
        sendPacket(client->fd.get(), wire::makeMessage(MessageType::kWatch),
                   Clock::now() + kHandshakeTimeout);
    }
}

void Transport::run() {
    std::vector<uint8_t> buffer(wire::kMaxMessage + 1);
    kiv::MutexLock guard(mLock);
    for (;;) {
        runDeferred();
        // Notifiers whose service is away try again when their time comes.
        int timeout = -1;
        const auto now = Clock::now();
        std::vector<xal_client_type> away;
        for (const auto& [client, handle] : mHandles) {
            if (client->notifier && !client->connected) away.push_back(client);
        }
        for (xal_client_type client : away) {
            if (client->released || client->connected) continue;
            if (client->retryAt <= now) {
                reconnectLocked(client);
                runDeferred();
            }
            if (!client->released && !client->connected) {
                const auto wait = std::chrono::ceil<std::chrono::milliseconds>(client->retryAt -
                                                                               Clock::now());
                const int ms = static_cast<int>(std::max<int64_t>(wait.count(), 0));
                timeout = timeout < 0 ? ms : std::min(timeout, ms);
            }
        }
        guard.unlock();
        epoll_event events[8];
        const int count = epoll_wait(mEpoll.get(), events, 8, timeout);
        guard.lock();
        for (int i = 0; i < count; ++i) {
            auto* client = static_cast<xal_client_type>(events[i].data.ptr);
            if (client == nullptr) {
                mWake.drain();
                continue;
            }
            // Released or reattached since the wait: not this connection's turn.
            if (client->released || !client->connected) continue;
            mBusy = client;
            const int fd = client->fd.get();
            guard.unlock();
            std::vector<Message> messages;
            bool closed = false;
            for (int turn = 0; turn < 32; ++turn) {
                const ssize_t got = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
                if (got < 0 && errno == EINTR) continue;
                if (got <= 0) {
                    closed = true;
                    break;
                }
                auto message = wire::decode(buffer.data(), static_cast<size_t>(got));
                if (!message.ok()) {
                    closed = true;  // a service that speaks nonsense is no service
                    break;
                }
                messages.push_back(std::move(*message));
            }
            guard.lock();
            mBusy = nullptr;
            mChanged.notify_all();
            if (client->released) continue;
            for (auto& message : messages) {
                takeLocked(client, std::move(message), /*readInline=*/false);
            }
            if (closed && client->connected) lostLocked(client);
            runDeferred();
        }
    }
}

xal_client_error_type Transport::probe() {
    unique_fd fd;
    return handshake(fd, Role::kProbe, 0);
}

}  // namespace xalremote
