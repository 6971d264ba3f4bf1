// What kivctl's commands share while one runs: the session and the
// streams, the profile a word names, how a found or made profile is
// reported, how profiles are listed, and the judging of the requests the
// command caused.
#pragma once

#include <functional>
#include <istream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "Output.h"
#include "Session.h"
#include "common/Arguments.h"

namespace kivctl {

struct Command;

// "3 profiles", "1 profile".
std::string plural(size_t count, const std::string& what);

// Runs commands on one session; in the shell, profiles are kept as handles.
class CommandContext {
  public:
    CommandContext(Session& session, std::istream& in, std::ostream& out, std::ostream& err,
                   bool inShell)
        : mSession(session),
          mGlobals(session.globals()),
          mIn(in),
          mOut(out),
          mErr(err),
          mInShell(inShell) {}

    // Runs a parsed command; a change the modem could not store fails it,
    // with the reason, whatever else it reports.
    int execute(const Command& command, const Arguments& args);

    Session& session() { return mSession; }
    const Globals& globals() const { return mGlobals; }
    kiv::Manager& manager() { return mSession.manager(); }
    std::ostream& out() { return mOut; }
    std::ostream& err() { return mErr; }
    bool inShell() const { return mInShell; }
    // The command running ("add").
    const std::string& command() const { return mCommand; }

    // What a policy command did beyond finding its profile, to be said with it.
    struct Outcome {
        std::vector<std::string> lines;
        nlohmann::ordered_json json = nlohmann::ordered_json::object();
    };

    // A profile named by id (with --tech) or, in the shell, by handle.
    std::shared_ptr<kiv::IProfileKey> resolve(const std::string& word,
                                              std::optional<kiv::TechType> tech);
    // A profile the command made or found. A key the library voided meanwhile
    // (it read the table anew) is shown with what was asked, when known.
    int report(const std::string& action, const std::shared_ptr<kiv::IProfileKey>& key,
               const kiv::ProfileParams* asked = nullptr, const Outcome* outcome = nullptr);
    // The profiles matching any of the filters as the library sees them (and
    // `accept`, if given), kept as handles if asked. Keys that a reread voids
    // between finding and reading them are found again.
    std::vector<ProfileView> viewsOf(const std::vector<kiv::FilterProfileParams>& filters,
                                     bool keepHandles,
                                     const std::function<bool(const ProfileView&)>& accept = {});
    int printViews(std::vector<ProfileView> views);
    // A request of the command's own that the modem refused, did not answer
    // or never got fails the command (before it reports success).
    void requireAnswered();
    // A password given on the command line is never printed back.
    void learnSecrets(const kiv::ProfileParams& params);
    // After the modem came back or changed wholesale, the library catches up.
    void resyncLibrary();
    // Lines from the input run as commands on this session.
    int runShell();

  private:
    Session& mSession;
    const Globals& mGlobals;
    std::istream& mIn;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
    std::string mCommand;
};

// What each group of commands (ProfileCommands, PolicyCommands,
// ModemCommands) works with: the running command's context and what it
// holds. A group is made on the context for one command.
class CommandGroup {
  protected:
    explicit CommandGroup(CommandContext& context)
        : mContext(context),
          mSession(context.session()),
          mGlobals(context.globals()),
          mOut(context.out()),
          mErr(context.err()),
          mInShell(context.inShell()) {}

    kiv::Manager& manager() { return mContext.manager(); }

    CommandContext& mContext;
    Session& mSession;
    const Globals& mGlobals;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
};

}  // namespace kivctl
