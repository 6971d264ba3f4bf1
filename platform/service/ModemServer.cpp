#include "ModemServer.h"

#include <android-base/stringprintf.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "ControlCommands.h"
#include "ServiceSocket.h"

namespace xalservice {

using android::base::Result;
using android::base::StringPrintf;
using android::base::unique_fd;
using nlohmann::json;
using wire::Message;
using wire::MessageType;
using wire::Role;
using xalsim::Event;

namespace {

// More than this waiting for a client that does not read, and it is let go.
constexpr size_t kMaxQueuedBytes = 4 * 1024 * 1024;
// Messages read from one connection before the others get their turn.
constexpr int kReadsPerTurn = 32;
// At most this much of a request's time-out is kept for its answer's way back.
constexpr std::chrono::milliseconds kAnswerMargin{100};

wire::EventKind wireKind(Event::Kind kind) {
    switch (kind) {
        case Event::kNotify:
            return wire::EventKind::kNotify;
        case Event::kError:
            return wire::EventKind::kError;
        case Event::kIndication:
            break;
    }
    return wire::EventKind::kIndication;
}

}  // namespace

xalsim::ClientId ModemServer::clientIdOf(uint64_t connection) {
    return reinterpret_cast<xalsim::ClientId>(static_cast<uintptr_t>(connection));
}

uint64_t ModemServer::connectionOf(xalsim::ClientId client) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(client));
}

ModemServer::ModemServer(const Options& options, Log log)
    : mOptions(options),
      mLog(std::move(log)),
      mModem([this](xalsim::ClientId client, Event event, xalsim::Clock::time_point due) {
          {
              kiv::MutexLock guard(mPostedLock);
              mPosted.push_back({client, std::move(event), due});
          }
          // The service thread looks at what was posted after every step;
          // a post from elsewhere has to wake it.
          mWake.signal();
      }),
      mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mStopping(false) {
    mModem.reset(options.config);
    if (mEpoll.get() < 0 || mWake.get() < 0) {
        mLog(StringPrintf("cannot set up the event loop: %s", strerror(errno)));
        abort();
    }
    watch(mWake.get(), kWakeKey, EPOLLIN);
}

ModemServer::~ModemServer() = default;

void ModemServer::watch(int fd, uint64_t key, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        mLog(StringPrintf("cannot watch descriptor %d: %s", fd, strerror(errno)));
    }
}

Result<void> ModemServer::listen(const std::string& path) {
    auto socket = ServiceSocket::listen(path);
    if (!socket.ok()) return socket.error();
    mSocket.emplace(std::move(*socket));
    watch(mSocket->get(), kListenKey, EPOLLIN);
    return {};
}

void ModemServer::adopt(unique_fd connection) {
    {
        kiv::MutexLock guard(mPostedLock);
        mAdopted.push_back(std::move(connection));
    }
    mWake.signal();
}

void ModemServer::stop() {
    {
        kiv::MutexLock guard(mPostedLock);
        mStopping = true;
    }
    mWake.signal();
}

void ModemServer::run(int stopFd) {
    if (stopFd >= 0) watch(stopFd, kStopKey, EPOLLIN);
    for (;;) {
        {
            kiv::MutexLock guard(mPostedLock);
            if (mStopping) break;
        }
        if (step(timeoutUntilNextWork(Clock::now())) == Step::kStop) break;
    }
    if (stopFd >= 0) epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, stopFd, nullptr);
    for (auto& [id, connection] : mConnections) close(connection);
    mConnections.clear();
}

void ModemServer::pump() {
    while (step(0) == Step::kBusy) {
    }
}

ModemServer::Step ModemServer::step(int timeoutMs) {
    epoll_event events[16];
    const int count = epoll_wait(mEpoll.get(), events, std::size(events), timeoutMs);
    if (count < 0 && errno != EINTR) {
        mLog(StringPrintf("epoll_wait failed: %s", strerror(errno)));
        return Step::kStop;
    }
    Step result = count > 0 ? Step::kBusy : Step::kIdle;
    for (int i = 0; i < count; ++i) {
        const uint64_t key = events[i].data.u64;
        if (key == kWakeKey) {
            mWake.drain();
            std::vector<unique_fd> adopted;
            {
                kiv::MutexLock guard(mPostedLock);
                adopted.swap(mAdopted);
            }
            for (auto& fd : adopted) addConnection(std::move(fd));
        } else if (key == kListenKey) {
            accept();
        } else if (key == kStopKey) {
            result = Step::kStop;
        } else if (auto it = mConnections.find(key); it != mConnections.end()) {
            Connection& connection = it->second;
            if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) readFrom(connection);
            if (!connection.dead && (events[i].events & EPOLLOUT)) {
                connection.waitingToWrite = false;
                epoll_event interest{};
                interest.events = EPOLLIN;
                interest.data.u64 = key;
                epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, connection.fd.get(), &interest);
            }
        }
        takePosted();
    }
    const auto now = Clock::now();
    serveDue(now);
    takePosted();
    checkWaiters(now);
    for (auto it = mConnections.begin(); it != mConnections.end();) {
        if (!it->second.dead) flush(it->second, Clock::now());
        if (it->second.dead) {
            close(it->second);
            it = mConnections.erase(it);
        } else {
            ++it;
        }
    }
    return result;
}

int ModemServer::timeoutUntilNextWork(Clock::time_point now) {
    std::optional<Clock::time_point> next;
    auto consider = [&](Clock::time_point when) {
        if (!next || when < *next) next = when;
    };
    if (!mPending.empty()) {
        const auto& head = mPending.front();
        consider(std::max(head.arrival, mBusyUntil) + mOptions.latency);
    }
    for (const auto& [id, connection] : mConnections) {
        if (!connection.outgoing.empty() && !connection.waitingToWrite && !heldBack(connection)) {
            consider(connection.outgoing.front().due);
        }
    }
    for (const auto& waiter : mWaiters) consider(waiter.deadline);
    if (!next) return -1;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - now).count();
    return static_cast<int>(std::clamp<int64_t>(wait, 0, 60000));
}

bool ModemServer::heldBack(const Connection& connection) const {
    return mHolding && (connection.role == Role::kService || connection.role == Role::kNotifier);
}

std::string ModemServer::describe(const Connection& connection) const {
    return StringPrintf("client %llu (pid %d, %s)", static_cast<unsigned long long>(connection.id),
                        static_cast<int>(connection.pid), wire::roleName(connection.role));
}

void ModemServer::accept() {
    for (;;) {
        unique_fd fd(accept4(mSocket->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (fd.get() < 0) {
            if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                mLog(StringPrintf("cannot accept a client: %s", strerror(errno)));
            }
            return;
        }
        addConnection(std::move(fd));
    }
}

void ModemServer::addConnection(unique_fd fd) {
    Connection connection;
    connection.id = mNextId++;
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        connection.pid = credentials.pid;
        connection.uid = credentials.uid;
    }
    const int flags = fcntl(fd.get(), F_GETFL);
    if (flags >= 0) fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
    connection.fd = std::move(fd);
    watch(connection.fd.get(), connection.id, EPOLLIN);
    mLog(StringPrintf("client %llu connected: pid %d, uid %d, gid %d",
                      static_cast<unsigned long long>(connection.id), credentials.pid,
                      static_cast<int>(credentials.uid), static_cast<int>(credentials.gid)));
    const uint64_t id = connection.id;
    mConnections.emplace(id, std::move(connection));
}

void ModemServer::readFrom(Connection& connection) {
    static thread_local std::vector<uint8_t> buffer(wire::kMaxMessage + 1);
    for (int turn = 0; turn < kReadsPerTurn && !connection.dead; ++turn) {
        iovec part{buffer.data(), buffer.size()};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        const ssize_t got = TEMP_FAILURE_RETRY(recvmsg(connection.fd.get(), &header, MSG_DONTWAIT));
        if (got < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return;
            drop(connection, std::string("read failed: ") + strerror(errno));
            return;
        }
        if (got == 0) {
            mLog(describe(connection) + " left");
            connection.dead = true;
            return;
        }
        if (header.msg_flags & MSG_TRUNC) {
            drop(connection, "message too long");
            return;
        }
        auto message = wire::decode(buffer.data(), static_cast<size_t>(got));
        if (!message.ok()) {
            drop(connection, message.error().message());
            return;
        }
        handle(connection, *message);
    }
}

void ModemServer::drop(Connection& connection, const std::string& why) {
    mLog(describe(connection) + " dropped: " + why);
    connection.dead = true;
}

void ModemServer::close(Connection& connection) {
    if (connection.clientOpen) {
        mModem.releaseClient(clientIdOf(connection.id), /*forget=*/true);
        connection.clientOpen = false;
    }
    epoll_ctl(mEpoll.get(), EPOLL_CTL_DEL, connection.fd.get(), nullptr);
    connection.fd.reset();
}

void ModemServer::handle(Connection& connection, const Message& message) {
    const xalsim::ClientId client = clientIdOf(connection.id);
    if (!connection.greeted) {
        if (message.type != MessageType::kHello || message.words[0] > 3) {
            drop(connection, std::string("expected hello, got ") + wire::typeName(message.type));
            return;
        }
        connection.greeted = true;
        connection.role = static_cast<Role>(message.words[0]);
        xal_client_error_type result = XAL_NO_ERR;
        switch (connection.role) {
            case Role::kNotifier:
            case Role::kService: {
                const bool service = connection.role == Role::kService;
                result = mModem.openClient(
                        client,
                        service ? xalsim::ClientRole::kService : xalsim::ClientRole::kNotifier,
                        (message.words[1] & wire::kReturning) != 0);
                connection.clientOpen = result == XAL_NO_ERR;
                break;
            }
            case Role::kProbe:
                result = mModem.probeService();
                break;
            case Role::kControl:
                break;
        }
        mLog(StringPrintf("%s: %s", describe(connection).c_str(),
                          result == XAL_NO_ERR ? "welcome" : "refused"));
        reply(connection, wire::makeMessage(MessageType::kWelcome, message.seq,
                                            {static_cast<uint32_t>(result)}));
        return;
    }
    switch (message.type) {
        case MessageType::kWatch:
            if (connection.role != Role::kNotifier) break;
            if (connection.clientOpen) mModem.notifierRegistered(client);
            return;
        case MessageType::kRequest: {
            if (connection.role != Role::kService) break;
            const unsigned int msgId = message.words[0];
            ++mArrivals[msgId];
            const uint32_t responseLength = message.words[2];
            if (responseLength > wire::kMaxMessage - wire::kHeaderSize - 4) {
                reply(connection, wire::makeMessage(MessageType::kResponse, message.seq,
                                                    {static_cast<uint32_t>(XAL_CLIENT_PARAM_ERR)}));
                return;
            }
            mPending.push_back({connection.id, message.seq, msgId, message.words[1], responseLength,
                                message.body, Clock::now()});
            return;
        }
        case MessageType::kPing:
            // After every event sent before it: the client then has them all.
            reply(connection, wire::makeMessage(MessageType::kPong, message.seq));
            return;
        case MessageType::kControl:
            if (connection.role != Role::kControl) break;
            handleControl(connection, message);
            return;
        default:
            break;
    }
    drop(connection, std::string("unexpected ") + wire::typeName(message.type) + " from a " +
                             wire::roleName(connection.role));
}

void ModemServer::reply(Connection& connection, const Message& message) {
    queue(connection, {Clock::now(), wire::encode(message), std::nullopt});
}

void ModemServer::queue(Connection& connection, Outgoing outgoing) {
    connection.queuedBytes += outgoing.bytes.size();
    connection.outgoing.push_back(std::move(outgoing));
    if (connection.queuedBytes > kMaxQueuedBytes) {
        drop(connection, "it does not read its messages");
    }
}

void ModemServer::takePosted() {
    std::vector<Posted> posted;
    {
        kiv::MutexLock guard(mPostedLock);
        posted.swap(mPosted);
    }
    for (auto& [client, event, due] : posted) {
        auto it = mConnections.find(connectionOf(client));
        if (it == mConnections.end() || it->second.dead) continue;
        const Message message = wire::makeMessage(MessageType::kEvent, 0,
                                                  {static_cast<uint32_t>(wireKind(event.kind)),
                                                   static_cast<uint32_t>(event.code), event.msgId},
                                                  std::move(event.payload));
        queue(it->second, {due, wire::encode(message), event.kind});
    }
}

void ModemServer::flush(Connection& connection, Clock::time_point now) {
    if (connection.waitingToWrite || heldBack(connection)) return;
    auto send = [&](const std::vector<uint8_t>& bytes) {
        const ssize_t sent = TEMP_FAILURE_RETRY(::send(connection.fd.get(), bytes.data(),
                                                       bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL));
        if (sent == static_cast<ssize_t>(bytes.size())) {
            connection.queuedBytes -= bytes.size();
            return true;
        }
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            connection.waitingToWrite = true;
            epoll_event interest{};
            interest.events = EPOLLIN | EPOLLOUT;
            interest.data.u64 = connection.id;
            epoll_ctl(mEpoll.get(), EPOLL_CTL_MOD, connection.fd.get(), &interest);
        } else {
            // The client went away; its end is read as closed next.
            connection.dead = true;
            mLog(describe(connection) + " gone: " + (sent < 0 ? strerror(errno) : "short write"));
        }
        return false;
    };
    while (!connection.outgoing.empty() && connection.outgoing.front().due <= now) {
        Outgoing& head = connection.outgoing.front();
        if (!send(head.bytes)) return;
        if (head.event) mModem.noteDelivered(*head.event);
        connection.outgoing.pop_front();
    }
}

std::optional<ModemServer::Clock::time_point> ModemServer::serveDue(Clock::time_point now) {
    while (!mPending.empty()) {
        PendingRequest& head = mPending.front();
        const auto start = std::max(head.arrival, mBusyUntil);
        const auto finish = start + mOptions.latency;
        // Answered with room to spare for the way back: an answer that
        // reached its client after it gave up would be a change made and
        // reported not answered.
        const auto timeout = std::chrono::milliseconds(head.timeoutMs);
        const auto deadline = head.arrival + timeout -
                              std::min<std::chrono::milliseconds>(timeout / 10, kAnswerMargin);
        auto it = mConnections.find(head.connection);
        const bool gone = it == mConnections.end() || it->second.dead;
        if (gone || finish > deadline) {
            // The modem never gets to it; its client sees the time-out.
            if (!gone) {
                mLog(StringPrintf("%s: request 0x%02X not served within its %u ms",
                                  describe(it->second).c_str(), head.msgId, head.timeoutMs));
            }
            mPending.pop_front();
            continue;
        }
        if (now < finish) return finish;
        mBusyUntil = finish;
        // What the modem raised before this request goes out before its answer.
        takePosted();
        if (it->second.dead) {
            mPending.pop_front();
            continue;
        }
        std::vector<uint8_t> response(std::max<uint32_t>(head.responseLength, 1));
        const xal_client_error_type result =
                mModem.serve(clientIdOf(head.connection), head.msgId,
                             head.request.empty() ? nullptr : head.request.data(),
                             static_cast<unsigned int>(head.request.size()), response.data(),
                             head.responseLength, head.timeoutMs);
        response.resize(head.responseLength);
        if (result != XAL_TIMEOUT_ERR) {
            // A time-out is no answer at all: the client's own clock tells it.
            reply(it->second,
                  wire::makeMessage(
                          MessageType::kResponse, head.seq, {static_cast<uint32_t>(result)},
                          result == XAL_NO_ERR ? std::move(response) : std::vector<uint8_t>()));
        }
        // And what this request raised, after it.
        takePosted();
        mPending.pop_front();
    }
    return std::nullopt;
}

void ModemServer::checkWaiters(Clock::time_point now) {
    for (auto it = mWaiters.begin(); it != mWaiters.end();) {
        const uint64_t arrived = mArrivals[it->msgId];
        const bool met = arrived >= it->count;
        if (!met && now < it->deadline) {
            ++it;
            continue;
        }
        auto connection = mConnections.find(it->connection);
        if (connection != mConnections.end() && !connection->second.dead) {
            json answer = {{"ok", met}, {"count", arrived}};
            if (!met) answer["error"] = "time-out";
            reply(connection->second, wire::makeText(MessageType::kReply, it->seq, answer.dump()));
        }
        it = mWaiters.erase(it);
    }
}

void ModemServer::handleControl(Connection& connection, const Message& message) {
    ControlCommands commands(mModem, mOptions.latency, mHolding, mArrivals);
    const auto outcome = commands.run(message.text());
    if (outcome.wait) {
        mWaiters.push_back({connection.id, message.seq, outcome.wait->msgId, outcome.wait->count,
                            Clock::now() + outcome.wait->timeout});
        return;  // answered by checkWaiters
    }
    reply(connection, wire::makeText(MessageType::kReply, message.seq, outcome.answer.dump()));
}

}  // namespace xalservice
