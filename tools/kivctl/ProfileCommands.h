// The library's profile commands: list, show, add, modify, delete, find,
// dump and reclaim.
#pragma once

#include "CommandContext.h"

namespace kivctl {

class ProfileCommands : private CommandGroup {
  public:
    explicit ProfileCommands(CommandContext& context) : CommandGroup(context) {}

    int list(const Arguments& args);
    int show(const Arguments& args);
    int add(const Arguments& args);
    int modify(const Arguments& args);
    int remove(const Arguments& args);
    int find(const Arguments& args);
    int dump(const Arguments& args);
    int reclaim(const Arguments& args);
};

}  // namespace kivctl
