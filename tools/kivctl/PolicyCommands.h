// The library's policy commands: the profiles for LTE attach, a data call
// and an emergency call found or created, and a carrier's APN list applied;
// each says what it did to the profile it answers with.
#pragma once

#include <map>
#include <memory>
#include <utility>

#include "CommandContext.h"

namespace kivctl {

class PolicyCommands {
  public:
    explicit PolicyCommands(CommandContext& context)
        : mContext(context),
          mSession(context.session()),
          mGlobals(context.globals()),
          mOut(context.out()),
          mErr(context.err()),
          mInShell(context.inShell()) {}

    int attach(const Arguments& args);
    int dataCall(const Arguments& args);
    int emergency(const Arguments& args);
    int applyApns(const Arguments& args);

  private:
    // Every profile as the library sees it, by technology and id.
    using Snapshot = std::map<std::pair<kiv::TechType, int>, kiv::ProfileParams>;

    kiv::Manager& manager() { return mContext.manager(); }
    Snapshot snapshot();
    // A policy command's profile against the table before it and what was
    // asked: created (and whether it is temporary), changed (before and
    // after), or chosen though it does not hold all that was asked.
    CommandContext::Outcome policyOutcome(const std::shared_ptr<kiv::IProfileKey>& key,
                                          const kiv::ProfileParams& asked, const Snapshot& before);

    CommandContext& mContext;
    Session& mSession;
    const Globals& mGlobals;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
};

}  // namespace kivctl
