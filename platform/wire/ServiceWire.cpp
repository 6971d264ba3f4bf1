#include "ServiceWire.h"

#include <cstring>

namespace wire {

namespace {

void put32(std::vector<uint8_t>& out, uint32_t value) {
    const size_t at = out.size();
    out.resize(at + 4);
    memcpy(out.data() + at, &value, 4);
}

uint32_t get32(const uint8_t* in) {
    uint32_t value;
    memcpy(&value, in, 4);
    return value;
}

}  // namespace

size_t wordCount(MessageType type) {
    switch (type) {
        case MessageType::kHello:
        case MessageType::kRequest:
        case MessageType::kEvent:
            return 3;
        case MessageType::kWelcome:
        case MessageType::kResponse:
            return 1;
        case MessageType::kWatch:
        case MessageType::kPing:
        case MessageType::kPong:
        case MessageType::kControl:
        case MessageType::kReply:
            return 0;
    }
    return 0;
}

const char* typeName(MessageType type) {
    switch (type) {
        case MessageType::kHello:
            return "hello";
        case MessageType::kWelcome:
            return "welcome";
        case MessageType::kWatch:
            return "watch";
        case MessageType::kRequest:
            return "request";
        case MessageType::kResponse:
            return "response";
        case MessageType::kEvent:
            return "event";
        case MessageType::kPing:
            return "ping";
        case MessageType::kPong:
            return "pong";
        case MessageType::kControl:
            return "control";
        case MessageType::kReply:
            return "reply";
    }
    return "unknown";
}

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

std::vector<uint8_t> encode(const Message& message) {
    std::vector<uint8_t> out;
    const size_t words = wordCount(message.type);
    out.reserve(kHeaderSize + 4 * words + message.body.size());
    put32(out, kMagic);
    const uint32_t type = static_cast<uint16_t>(message.type);
    put32(out, type);  // type, then 16 reserved bits
    put32(out, message.seq);
    for (size_t i = 0; i < words; ++i) put32(out, message.words[i]);
    out.insert(out.end(), message.body.begin(), message.body.end());
    return out;
}

android::base::Result<Message> decode(const uint8_t* bytes, size_t length) {
    auto fail = [](const std::string& why) -> android::base::Result<Message> {
        return android::base::Error() << why;
    };
    if (length < kHeaderSize) return fail("message of " + std::to_string(length) + " bytes");
    if (length > kMaxMessage) return fail("message of " + std::to_string(length) + " bytes");
    if (get32(bytes) != kMagic) return fail("not a modem service message");
    const uint32_t typeWord = get32(bytes + 4);
    const uint32_t type = typeWord & 0xFFFF;
    if (type < static_cast<uint16_t>(MessageType::kHello) ||
        type > static_cast<uint16_t>(MessageType::kReply) || (typeWord >> 16) != 0) {
        return fail("unknown message type " + std::to_string(typeWord));
    }
    Message message;
    message.type = static_cast<MessageType>(type);
    message.seq = get32(bytes + 8);
    const size_t words = wordCount(message.type);
    if (length < kHeaderSize + 4 * words) {
        return fail(std::string(typeName(message.type)) + " message cut short");
    }
    for (size_t i = 0; i < words; ++i) message.words[i] = get32(bytes + kHeaderSize + 4 * i);
    message.body.assign(bytes + kHeaderSize + 4 * words, bytes + length);
    return message;
}

Message makeMessage(MessageType type, uint32_t seq, std::vector<uint32_t> words,
                    std::vector<uint8_t> body) {
    Message message;
    message.type = type;
    message.seq = seq;
    for (size_t i = 0; i < words.size() && i < 3; ++i) message.words[i] = words[i];
    message.body = std::move(body);
    return message;
}

Message makeText(MessageType type, uint32_t seq, const std::string& text) {
    return makeMessage(type, seq, {}, std::vector<uint8_t>(text.begin(), text.end()));
}

}  // namespace wire
