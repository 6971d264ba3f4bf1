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

#include "Connection.h"
#include "wire/ClientContract.h"
#include "xal/wds_v01.h"

namespace xalremote {

using android::base::unique_fd;
using wire::EventKind;
using wire::Message;
using wire::MessageType;
using wire::Role;

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
    unique_fd fd = connector ? connector() : dial(path);
    if (fd.get() >= 0 && !makeNonBlocking(fd.get())) return unique_fd();
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
    std::optional<xal_client_error_type> early = refusalLocked(client);
    if (!early && mRequestHook) {
        const xalremote::RequestHook hook = mRequestHook;
        guard.unlock();
        auto local = hook(client, msgId, request, requestLength, response, responseLength);
        guard.lock();
        // The client may have been released or lost the service meanwhile.
        early = refusalLocked(client);
        if (!early && local) {
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

std::optional<xal_client_error_type> Transport::refusalLocked(xal_client_type client) const {
    if (!isLiveLocked(client) || client->notifier) return XAL_CLIENT_INVALID_CLNT;
    if (client->lost || !client->connected) return XAL_SERVICE_ERR;  // the service is away
    return std::nullopt;
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

xal_client_error_type Transport::probe() {
    unique_fd fd;
    return handshake(fd, Role::kProbe, 0);
}

}  // namespace xalremote
