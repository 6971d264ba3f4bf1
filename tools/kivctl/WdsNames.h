// The names kivctl gives the modem's requests and profile events, on the
// command line and in what it prints, and back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kivctl {

// A request by its kind ("create", "modify", "delete", "list", "get",
// "bind", "register", "events"); none for another word.
std::optional<unsigned int> requestByName(const std::string& name);
// A request's kind, or its message id in hex ("0x2F") when it has none.
std::string requestName(unsigned int msgId);

// A profile-changed event by its name ("create", "delete", "modify",
// "subscription-change", "profile-ready"); none for another word.
std::optional<int32_t> eventByName(const std::string& name);
// An event's name, or its number when it has none.
std::string eventName(int32_t event);

}  // namespace kivctl
