// The modem's own commands: restart, reset, down, up, status, faults to
// inject and indications to send (the modem service's control commands),
// and watching the profile changes the modem service announces.
#pragma once

#include "CommandContext.h"

namespace kivctl {

class ModemCommands : private CommandGroup {
  public:
    explicit ModemCommands(CommandContext& context) : CommandGroup(context) {}

    int modem(const Arguments& args);
    int watch(const Arguments& args);

  private:
    // `modem` on a modem manager's modem.
    int managerModem(const std::vector<std::string>& words);
};

}  // namespace kivctl
