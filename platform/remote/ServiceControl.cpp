#include "ServiceControl.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "XalRemote.h"
#include "wire/ServiceWire.h"

namespace xalremote {

using android::base::Error;
using android::base::Result;
using android::base::ResultError;
using Clock = std::chrono::steady_clock;
using wire::Message;
using wire::MessageType;
using wire::Role;

namespace {

bool sendMessage(int fd, const Message& message) {
    const auto bytes = wire::encode(message);
    return TEMP_FAILURE_RETRY(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) ==
           static_cast<ssize_t>(bytes.size());
}

// What the service says, or why nothing came: a failure of the connection
// carries a system error number; the service's own refusal carries none.
Result<Message> receiveMessage(int fd, Clock::time_point deadline) {
    std::vector<uint8_t> buffer(wire::kMaxMessage + 1);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd in{fd, POLLIN, 0};
        if (left.count() <= 0 ||
            TEMP_FAILURE_RETRY(
                    poll(&in, 1, static_cast<int>(std::min<int64_t>(left.count(), 60000)))) == 0) {
            return ResultError("the modem service did not answer in time", ETIMEDOUT);
        }
        const ssize_t got =
                TEMP_FAILURE_RETRY(recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT));
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        if (got <= 0) return ResultError("the modem service went away", ECONNRESET);
        auto message = wire::decode(buffer.data(), static_cast<size_t>(got));
        if (!message.ok()) {
            return ResultError("the modem service sent nonsense: " + message.error().message(),
                               EPROTO);
        }
        return *message;
    }
}

}  // namespace

Result<ServiceControl> ServiceControl::connect() {
    android::base::unique_fd fd = connectToService();
    if (fd.get() < 0) {
        const int why = errno;  // connect's reason
        const std::string path = socketPath();
        return ResultError("cannot reach the modem service" +
                                   (path.empty() ? std::string() : " at " + path) + ": " +
                                   strerror(why),
                           why);
    }
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    if (!sendMessage(fd.get(), wire::makeMessage(MessageType::kHello, 0,
                                                 {static_cast<uint32_t>(Role::kControl), 0,
                                                  static_cast<uint32_t>(getpid())}))) {
        return ResultError("the modem service went away", ECONNRESET);
    }
    auto welcome = receiveMessage(fd.get(), deadline);
    if (!welcome.ok()) return android::base::unexpected(welcome.error());
    if (welcome->type != MessageType::kWelcome || welcome->words[0] != 0) {
        return ResultError("the modem service refused a control connection", ECONNREFUSED);
    }
    return ServiceControl(std::move(fd));
}

bool ServiceControl::closedByService() const {
    pollfd state{mFd.get(), POLLIN | POLLRDHUP, 0};
    if (TEMP_FAILURE_RETRY(poll(&state, 1, 0)) <= 0) return false;
    if (state.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) return true;
    char byte;
    return TEMP_FAILURE_RETRY(recv(mFd.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT)) == 0;
}

Result<void> ServiceControl::reconnect() {
    auto fresh = connect();
    if (!fresh.ok()) return android::base::unexpected(fresh.error());
    mFd = std::move(fresh->mFd);
    return {};
}

Result<nlohmann::json> ServiceControl::call(const nlohmann::json& command,
                                            std::chrono::milliseconds timeout) {
    // A service that stopped and started again closed this connection; a
    // new one reaches the service as it is now. What was never delivered
    // may be sent again, nothing else.
    if (closedByService()) {
        if (auto reconnected = reconnect(); !reconnected.ok())
            return android::base::unexpected(reconnected.error());
    }
    const uint32_t seq = ++mSeq;
    const Message request = wire::makeText(MessageType::kControl, seq, command.dump());
    if (!sendMessage(mFd.get(), request)) {
        const int why = errno;
        if (why != EPIPE && why != ECONNRESET && why != ENOTCONN) {
            return ResultError(std::string("cannot reach the modem service: ") + strerror(why),
                               why);
        }
        if (auto reconnected = reconnect(); !reconnected.ok())
            return android::base::unexpected(reconnected.error());
        if (!sendMessage(mFd.get(), request)) {
            return ResultError("the modem service went away", ECONNRESET);
        }
    }
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        auto message = receiveMessage(mFd.get(), deadline);
        if (!message.ok()) return android::base::unexpected(message.error());
        // An answer to an earlier command that was given up on is passed over.
        if (message->type != MessageType::kReply || message->seq != seq) continue;
        auto answer = nlohmann::json::parse(message->text(), nullptr, /*allow_exceptions=*/false);
        if (!answer.is_object()) return ResultError("the modem service answered nonsense", EPROTO);
        if (answer.contains("ok") && answer["ok"] == true) return answer;
        if (answer.contains("error") && answer["error"].is_string()) {
            return Error() << answer["error"].get<std::string>();
        }
        return Error() << "the modem service refused";
    }
}

}  // namespace xalremote
