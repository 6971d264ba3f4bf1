// The modem's own commands: restart, reset, down, up, status, faults to
// inject and indications to send (the modem service's control commands),
// and watching the profile changes the modem service announces.
#pragma once

#include "CommandContext.h"

namespace kivctl {

class ModemCommands {
  public:
    explicit ModemCommands(CommandContext& context)
        : mContext(context),
          mSession(context.session()),
          mGlobals(context.globals()),
          mOut(context.out()),
          mErr(context.err()),
          mInShell(context.inShell()) {}

    int modem(const Arguments& args);
    int watch(const Arguments& args);

  private:
    CommandContext& mContext;
    Session& mSession;
    const Globals& mGlobals;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
};

}  // namespace kivctl
