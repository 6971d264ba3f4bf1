#include "ServiceControl.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "ServiceWire.h"
#include "XalRemote.h"

namespace xalremote {

using android::base::Error;
using android::base::Result;
using Clock = std::chrono::steady_clock;

namespace {

bool sendMessage(int fd, const Message& message) {
    const auto bytes = encode(message);
    return TEMP_FAILURE_RETRY(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL)) ==
           static_cast<ssize_t>(bytes.size());
}

std::optional<Message> receiveMessage(int fd, Clock::time_point deadline, std::string* error) {
    std::vector<uint8_t> buffer(kMaxMessage + 1);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd in{fd, POLLIN, 0};
        if (left.count() <= 0 ||
            TEMP_FAILURE_RETRY(
                    poll(&in, 1, static_cast<int>(std::min<int64_t>(left.count(), 60000)))) == 0) {
            *error = "the modem service did not answer in time";
            return std::nullopt;
        }
        const ssize_t got =
                TEMP_FAILURE_RETRY(recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT));
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        if (got <= 0) {
            *error = "the modem service went away";
            return std::nullopt;
        }
        return decode(buffer.data(), static_cast<size_t>(got), error);
    }
}

}  // namespace

Result<ServiceControl> ServiceControl::connect() {
    android::base::unique_fd fd = connectToService();
    if (fd.get() < 0) {
        const int why = errno;  // connect's reason
        const std::string path = socketPath();
        return Error() << "cannot reach the modem service"
                       << (path.empty() ? std::string() : " at " + path) << ": " << strerror(why);
    }
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    std::string error;
    if (!sendMessage(fd.get(), makeMessage(MessageType::kHello, 0,
                                           {static_cast<uint32_t>(Role::kControl), 0,
                                            static_cast<uint32_t>(getpid())}))) {
        return Error() << "the modem service went away";
    }
    auto welcome = receiveMessage(fd.get(), deadline, &error);
    if (!welcome) return Error() << error;
    if (welcome->type != MessageType::kWelcome || welcome->words[0] != 0) {
        return Error() << "the modem service refused a control connection";
    }
    return ServiceControl(std::move(fd));
}

Result<nlohmann::json> ServiceControl::call(const nlohmann::json& command,
                                            std::chrono::milliseconds timeout) {
    const uint32_t seq = ++mSeq;
    if (!sendMessage(mFd.get(), makeText(MessageType::kControl, seq, command.dump()))) {
        return Error() << "the modem service went away";
    }
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        std::string error;
        auto message = receiveMessage(mFd.get(), deadline, &error);
        if (!message) return Error() << error;
        if (message->type != MessageType::kReply || message->seq != seq) continue;
        auto answer = nlohmann::json::parse(message->text(), nullptr, /*allow_exceptions=*/false);
        if (!answer.is_object()) return Error() << "the modem service answered nonsense";
        if (answer.contains("ok") && answer["ok"] == true) return answer;
        if (answer.contains("error") && answer["error"].is_string()) {
            return Error() << answer["error"].get<std::string>();
        }
        return Error() << "the modem service refused";
    }
}

}  // namespace xalremote
