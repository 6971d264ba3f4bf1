// The transport's event thread: it reads every connection of the process,
// hands each answer to the request waiting for it, runs the callbacks in
// order with the answers, and reconnects notifiers when the service comes
// back. The rest of the transport is in Transport.cpp.

#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "Connection.h"
#include "Transport.h"
#include "wire/ClientContract.h"
#include "xal/wds_v01.h"

namespace xalremote {

using android::base::unique_fd;
using wire::EventKind;
using wire::Message;
using wire::MessageType;
using wire::Role;

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

}  // namespace xalremote
