// The library's policy commands: the profiles for LTE attach, a data call
// and an emergency call found or created, and a carrier's APN list applied;
// each says what it did to the profile it answers with.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "CommandContext.h"

namespace kivctl {

class PolicyCommands : private CommandGroup {
  public:
    explicit PolicyCommands(CommandContext& context) : CommandGroup(context) {}

    int attach(const Arguments& args);
    int dataCall(const Arguments& args);
    int emergency(const Arguments& args);
    int applyApns(const Arguments& args);

  private:
    // Every profile as the library sees it, by technology and id.
    using Snapshot = std::map<std::pair<kiv::TechType, int>, kiv::ProfileParams>;

    Snapshot snapshot();
    // A policy command: its options read, the library's policy run on them
    // (the update rule as --allow-update says), and what it did reported.
    int runPolicy(const Arguments& args, kiv::TechType tech, const std::string& action,
                  const std::function<std::shared_ptr<kiv::IProfileKey>(
                          const kiv::ProfileParams& params)>& findOrCreate);
    // A policy command's profile against the table before it and what was
    // asked: created (and whether it is temporary), changed (before and
    // after), or chosen though it does not hold all that was asked.
    CommandContext::Outcome policyOutcome(const std::shared_ptr<kiv::IProfileKey>& key,
                                          const kiv::ProfileParams& asked, const Snapshot& before);
};

}  // namespace kivctl
