#include "ModemServer.h"

#include <android-base/stringprintf.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "sim/SettingsJson.h"

namespace xalservice {

using android::base::ErrnoError;
using android::base::Error;
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

const char* roleName(Role role) {
    switch (role) {
        case Role::kNotifier:
            return "notifier";
        case Role::kService:
            return "service client";
        case Role::kControl:
            return "control client";
        case Role::kProbe:
            return "probe";
    }
    return "client";
}

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

// A message id given in a control command.
std::optional<unsigned int> messageId(const json& value) {
    if (value.is_number_unsigned() && value.get<uint64_t>() <= 0xFFFF) {
        return value.get<unsigned int>();
    }
    return std::nullopt;
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

ModemServer::~ModemServer() {
    if (!mSocketPath.empty()) unlink(mSocketPath.c_str());
}

void ModemServer::watch(int fd, uint64_t key, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    if (epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        mLog(StringPrintf("cannot watch descriptor %d: %s", fd, strerror(errno)));
    }
}

Result<void> ModemServer::listen(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        return Error() << "socket path '" << path << "' must have 1 to "
                       << sizeof(address.sun_path) - 1 << " characters";
    }
    memcpy(address.sun_path, path.data(), path.size());

    // Whoever holds the lock owns the socket path; a socket found there
    // without a holder was left by a service that died.
    auto lock = kiv::LockFile::tryLock(path + ".lock", nullptr);
    if (!lock.ok()) {
        if (lock.error().code() == EWOULDBLOCK) {
            return Error() << "another kivmodemd serves " << path;
        }
        return android::base::unexpected(lock.error());
    }
    struct stat info;
    if (lstat(path.c_str(), &info) == 0) {
        if (!S_ISSOCK(info.st_mode)) return Error() << path << " exists and is not a socket";
        if (unlink(path.c_str()) != 0) return ErrnoError() << "cannot replace " << path;
    }
    unique_fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (listener.get() < 0) return ErrnoError() << "cannot make a socket";
    // Only the owner may talk to the modem: the table holds passwords.
    const mode_t previous = umask(0177);
    const int bound = bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    const int bindErrno = errno;
    umask(previous);
    if (bound != 0) return Error(bindErrno) << "cannot bind " << path;
    mSocketPath = path;
    if (chmod(path.c_str(), 0600) != 0) return ErrnoError() << "cannot set the mode of " << path;
    if (::listen(listener.get(), SOMAXCONN) != 0)
        return ErrnoError() << "cannot listen on " << path;
    mSocketLock.emplace(std::move(*lock));
    mListener = std::move(listener);
    watch(mListener.get(), kListenKey, EPOLLIN);
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
                        static_cast<int>(connection.pid), roleName(connection.role));
}

void ModemServer::accept() {
    for (;;) {
        unique_fd fd(accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
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
                             roleName(connection.role));
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
    nlohmann::ordered_json answer = {{"ok", true}};
    auto refuse = [&](const std::string& why) { answer = {{"ok", false}, {"error", why}}; };
    json command = json::parse(message.text(), nullptr, /*allow_exceptions=*/false);
    const std::string op =
            command.is_object() && command.contains("op") && command["op"].is_string()
                    ? command["op"].get<std::string>()
                    : "";
    auto count = [&](const char* name, int fallback) {
        const json& value = command.is_object() && command.contains(name) ? command[name] : json();
        return value.is_number_integer()
                       ? static_cast<int>(std::clamp<int64_t>(value.get<int64_t>(), 0, 1000000))
                       : fallback;
    };
    auto storeError = [&](uint64_t failedBefore) {
        if (mModem.counters().failedCommits != failedBefore) refuse(mModem.lastCommitError());
    };
    const uint64_t failedBefore = mModem.counters().failedCommits;

    if (op == "status") {
        const auto config = mModem.config();
        const auto counters = mModem.counters();
        size_t clients = 0;
        for (const auto& info : mModem.clients()) clients += !info.released;
        answer["serviceUp"] = mModem.isServiceUp();
        answer["capacity3gpp"] = config.capacity3gpp;
        answer["capacity3gpp2"] = config.capacity3gpp2;
        answer["latencyMs"] = mOptions.latency.count();
        answer["clients"] = clients;
        answer["profiles"] = mModem.profiles().size();
        answer["requests"] = counters.requests;
        answer["failedRequests"] = counters.failedRequests;
        answer["failedCommits"] = counters.failedCommits;
        answer["commitError"] = mModem.lastCommitError();
        json faults = json::array();
        for (const auto& fault : mModem.pendingFaults()) {
            faults.push_back({{"kind", fault.kind},
                              {"msgId", fault.msgId},
                              {"count", fault.count},
                              {"skip", fault.skip}});
        }
        answer["faults"] = std::move(faults);
    } else if (op == "profiles") {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& [slot, settings] : mModem.table()) {
            list.push_back(xalsim::profileToJson(slot, settings));
        }
        answer["profiles"] = std::move(list);
    } else if (op == "restart") {
        mModem.restart();
        storeError(failedBefore);
    } else if (op == "down" || op == "up") {
        mModem.setServiceUp(op == "up");
        storeError(failedBefore);
    } else if (op == "clearFaults") {
        mModem.clearFaults();
    } else if (op == "reset") {
        // The whole table changed: every client is told to read it again. A
        // fresh modem has no faults to come either.
        mModem.clearFaults();
        if (auto restored = mModem.restoreTable(xalsim::factoryTable()); restored.ok()) {
            mModem.sendProfileReady();
        } else {
            refuse(restored.error().message());
        }
    } else if (op == "fail" || op == "timeout") {
        const auto id = messageId(command.value("msgId", json()));
        if (!id) {
            refuse("a message id is needed");
        } else if (op == "fail") {
            mModem.failNext(*id, count("count", 1), count("skip", 0));
        } else {
            mModem.timeoutNext(*id, count("count", 1));
        }
    } else if (op == "hold") {
        const json on = command.contains("on") ? command["on"] : json(true);
        if (on.is_boolean()) {
            mHolding = on.get<bool>();
        } else {
            refuse("hold needs on: true or false");
        }
    } else if (op == "externalDelete") {
        // A profile deleted by another party: every registered client is told.
        if (!mModem.externalDelete(static_cast<wds_profile_type_enum_v01>(count("type", 0)),
                                   static_cast<uint8_t>(count("index", 0)))) {
            refuse(mModem.counters().failedCommits != failedBefore ? mModem.lastCommitError()
                                                                   : "no such profile");
        }
    } else if (op == "failService") {
        mModem.failGetAnyService(count("count", 1));
    } else if (op == "failConnect") {
        mModem.failClientInit(count("count", 1));
    } else if (op == "indicate") {
        const json named = command.contains("kind") ? command["kind"] : json();
        const std::string kind = named.is_string() ? named.get<std::string>() : "";
        if (kind == "subscription-change") {
            mModem.sendSubscriptionChange();
        } else if (kind == "profile-ready") {
            mModem.sendProfileReady();
        } else if (kind == "changed") {
            mModem.sendProfileChanged(static_cast<int32_t>(count("type", 0)),
                                      static_cast<uint8_t>(count("index", 0)),
                                      static_cast<int32_t>(count("event", 0)));
        } else if (kind == "raw") {
            const auto id = messageId(command.value("msgId", json()));
            const json bytes = command.value("bytes", json::array());
            std::vector<uint8_t> payload;
            bool good = id && bytes.is_array() && bytes.size() <= 16384;
            for (const auto& byte : bytes) {
                good = good && byte.is_number_unsigned() && byte.get<uint64_t>() <= 0xFF;
                if (good) payload.push_back(byte.get<uint8_t>());
            }
            if (good) {
                mModem.sendRawIndication(*id, std::move(payload));
            } else {
                refuse("a raw indication needs a message id and at most 16384 bytes");
            }
        } else {
            refuse("unknown indication '" + kind + "'");
        }
    } else if (op == "requestCount") {
        const auto id = messageId(command.value("msgId", json()));
        answer["count"] = id ? mArrivals[*id] : 0;
    } else if (op == "waitRequests") {
        const auto id = messageId(command.value("msgId", json()));
        if (!id) {
            refuse("a message id is needed");
        } else {
            mWaiters.push_back(
                    {connection.id, message.seq, *id, static_cast<uint64_t>(count("count", 1)),
                     Clock::now() + std::chrono::milliseconds(count("timeoutMs", 10000))});
            return;  // answered by checkWaiters
        }
    } else {
        refuse("unknown command '" + op + "'");
    }
    reply(connection, wire::makeText(MessageType::kReply, message.seq, answer.dump()));
}

}  // namespace xalservice
