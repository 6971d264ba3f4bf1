// One connection to the modem service, as the transport uses it: made to a
// socket path, packets sent and read with a deadline, and the hello that
// opens it.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <optional>
#include <string>

#include "wire/ServiceWire.h"
#include "xal/xal_client.h"

namespace xalremote {

// How long a notifier waits between attempts to reach a service that is away.
inline constexpr auto kReconnectInterval = std::chrono::milliseconds(100);
// How long the service has to answer a hello.
inline constexpr auto kHandshakeTimeout = std::chrono::milliseconds(2000);

// A connection to the socket at `path`; not open (-1) when it cannot be
// made, errno saying why.
android::base::unique_fd dial(const std::string& path);
// Non-blocking from now on: false when it cannot be made so.
bool makeNonBlocking(int fd);

// Sends one packet, waiting for room until the deadline.
xal_client_error_type sendPacket(int fd, const wire::Message& message,
                                 std::chrono::steady_clock::time_point deadline);
// Reads one packet, waiting until the deadline. None on time-out, end or
// error; `closed` is set at the end of the connection or on an error.
std::optional<wire::Message> receivePacket(int fd, std::chrono::steady_clock::time_point deadline,
                                           bool* closed);
// Opens a connection (xalremote::connectToService) and says hello; the
// service's answer, or why not.
xal_client_error_type handshake(android::base::unique_fd& fd, wire::Role role, uint32_t flags);

}  // namespace xalremote
