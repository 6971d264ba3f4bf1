// The messages between the modem service (kivmodemd) and its clients, one
// per packet of a SOCK_SEQPACKET Unix socket. Every connection is one
// client of the modem: a notifier, a service client, a control client, or
// a probe that asks once whether the service is up.
//
// A message is a 12-byte header (magic, type, sequence number), up to three
// 32-bit words whose meaning depends on the type, and a body of bytes:
//
//   type         from     words                               body
//   kHello       client   role, flags (kReturning), pid       -
//   kWelcome     service  xal result of opening the client    -
//   kWatch       client   - (a notifier registered its callback)
//   kRequest     client   message id, time-out (ms), response length   request record
//   kResponse    service  xal result                          response record
//   kEvent       service  EventKind, code, message id         indication bytes
//   kPing/kPong  both     -  (a pong follows every event sent before it)
//   kControl     client   -                                   JSON command
//   kReply       service  -                                   JSON answer
//
// Requests and pings carry a sequence number that their answer repeats.
// Integers are in the host's byte order: both ends are on one machine.
#pragma once

#include <android-base/result.h>

#include <cstdint>
#include <string>
#include <vector>

namespace wire {

inline constexpr uint32_t kMagic = 0x314D564B;  // "KVM1"
inline constexpr size_t kHeaderSize = 12;
// The largest message: a list response (14300 bytes) fits with room.
inline constexpr size_t kMaxMessage = 64 * 1024;

enum class MessageType : uint16_t {
    kHello = 1,
    kWelcome,
    kWatch,
    kRequest,
    kResponse,
    kEvent,
    kPing,
    kPong,
    kControl,
    kReply,
};

enum class Role : uint32_t { kNotifier = 0, kService = 1, kControl = 2, kProbe = 3 };

// What a kEvent tells a client: its notify, error or indication callback.
enum class EventKind : uint32_t { kNotify = 0, kError = 1, kIndication = 2 };

// kHello flags.
inline constexpr uint32_t kReturning = 1;  // this side lost the service since it last registered

struct Message {
    MessageType type;
    uint32_t seq = 0;
    uint32_t words[3] = {0, 0, 0};
    std::vector<uint8_t> body;

    std::string text() const { return std::string(body.begin(), body.end()); }
};

// How many words a message type carries.
size_t wordCount(MessageType type);
const char* typeName(MessageType type);
// What a connection of the role is called in the service's log.
const char* roleName(Role role);

std::vector<uint8_t> encode(const Message& message);
// An error, with the reason, for bytes that are not one well-formed message.
android::base::Result<Message> decode(const uint8_t* bytes, size_t length);

Message makeMessage(MessageType type, uint32_t seq = 0, std::vector<uint32_t> words = {},
                    std::vector<uint8_t> body = {});
Message makeText(MessageType type, uint32_t seq, const std::string& text);

}  // namespace wire
