#include "Connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "XalRemote.h"

namespace xalremote {

using android::base::unique_fd;
using Clock = std::chrono::steady_clock;
using wire::Message;
using wire::MessageType;
using wire::Role;

unique_fd dial(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        errno = path.empty() ? EDESTADDRREQ : ENAMETOOLONG;
        return unique_fd();
    }
    memcpy(address.sun_path, path.data(), path.size());
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (fd.get() < 0 || TEMP_FAILURE_RETRY(connect(fd.get(), reinterpret_cast<sockaddr*>(&address),
                                                   sizeof(address))) != 0) {
        return unique_fd();
    }
    return fd;
}

bool makeNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

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

}  // namespace xalremote
