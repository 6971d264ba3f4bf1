// The library's profile commands: list, show, add, modify, delete, find,
// dump and reclaim.
#pragma once

#include "CommandContext.h"

namespace kivctl {

class ProfileCommands {
  public:
    explicit ProfileCommands(CommandContext& context)
        : mContext(context),
          mSession(context.session()),
          mGlobals(context.globals()),
          mOut(context.out()),
          mErr(context.err()),
          mInShell(context.inShell()) {}

    int list(const Arguments& args);
    int show(const Arguments& args);
    int add(const Arguments& args);
    int modify(const Arguments& args);
    int remove(const Arguments& args);
    int find(const Arguments& args);
    int dump(const Arguments& args);
    int reclaim(const Arguments& args);

  private:
    kiv::Manager& manager() { return mContext.manager(); }

    CommandContext& mContext;
    Session& mSession;
    const Globals& mGlobals;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
};

}  // namespace kivctl
