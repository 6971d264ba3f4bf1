// kivctl's commands, each with its name, help and handler in one table.
#pragma once

#include <functional>
#include <istream>
#include <map>
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

class Commands;

struct Command {
    const char* name;
    const char* synopsis;  // what follows "kivctl" in the usage line
    const char* summary;   // one line, for the list of commands
    const char* details;   // the rest of its help
    std::vector<KnownOption> options;
    size_t minArguments;
    size_t maxArguments;
    bool needsLibrary;                            // the library is brought up on the modem first
    bool inShell;                                 // can be run from the shell
    int (Commands::*run)(const Arguments& args);  // null: help
};

const std::vector<Command>& commandTable();
const Command* findCommand(const std::string& name);
const std::vector<KnownOption>& globalOptions();

// Help texts.
std::string usage();
std::string commandHelp(const Command& command);

// The command's words, parsed against its options (and --help); a wrong
// number of arguments is bad input.
Arguments parseCommand(const Command& command, const std::vector<std::string>& words);
// The help a parsed command line asks for ("COMMAND --help", "help [COMMAND]");
// none when it asks for something else. Help needs no modem.
std::optional<std::string> helpRequested(const Command& command, const Arguments& args);

// Runs commands on one session; in the shell, profiles are kept as handles.
class Commands {
  public:
    Commands(Session& session, std::istream& in, std::ostream& out, std::ostream& err, bool inShell)
        : mSession(session),
          mGlobals(session.globals()),
          mIn(in),
          mOut(out),
          mErr(err),
          mInShell(inShell) {}

    // Runs a parsed command; a change the modem could not store fails it,
    // with the reason, whatever else it reports.
    int execute(const Command& command, const Arguments& args);

    int list(const Arguments& args);
    int show(const Arguments& args);
    int add(const Arguments& args);
    int modify(const Arguments& args);
    int remove(const Arguments& args);
    int find(const Arguments& args);
    int attach(const Arguments& args);
    int dataCall(const Arguments& args);
    int emergency(const Arguments& args);
    int applyApns(const Arguments& args);
    int dump(const Arguments& args);
    int reclaim(const Arguments& args);
    int watch(const Arguments& args);
    int modem(const Arguments& args);
    int shell(const Arguments& args);

  private:
    kiv::Manager& manager() { return mSession.manager(); }
    // A profile named by id (with --tech) or, in the shell, by handle.
    std::shared_ptr<kiv::IProfileKey> resolve(const std::string& word,
                                              std::optional<kiv::TechType> tech);
    // What a policy command did beyond finding its profile, to be said with it.
    struct Outcome {
        std::vector<std::string> lines;
        nlohmann::ordered_json json = nlohmann::ordered_json::object();
    };
    // Every profile as the library sees it, by technology and id.
    using Snapshot = std::map<std::pair<kiv::TechType, int>, kiv::ProfileParams>;

    // A profile the command made or found. A key the library voided meanwhile
    // (it read the table anew) is shown with what was asked, when known.
    int report(const std::string& action, const std::shared_ptr<kiv::IProfileKey>& key,
               const kiv::ProfileParams* asked = nullptr, const Outcome* outcome = nullptr);
    Snapshot snapshot();
    // A policy command's profile against the table before it and what was
    // asked: created (and whether it is temporary), changed (before and
    // after), or chosen though it does not hold all that was asked.
    Outcome policyOutcome(const std::shared_ptr<kiv::IProfileKey>& key,
                          const kiv::ProfileParams& asked, const Snapshot& before);
    // The profiles matching any of the filters as the library sees them (and
    // `accept`, if given), kept as handles if asked. Keys that a reread voids between finding and
    // reading them are found again.
    std::vector<ProfileView> viewsOf(const std::vector<kiv::FilterProfileParams>& filters,
                                     bool keepHandles,
                                     const std::function<bool(const ProfileView&)>& accept = {});
    // A request of the command's own that the modem refused, did not answer
    // or never got fails the command (before it reports success).
    void requireAnswered();
    int printViews(std::vector<ProfileView> views);
    // A password given on the command line is never printed back.
    void learnSecrets(const kiv::ProfileParams& params);
    // After the modem came back or changed wholesale, the library catches up.
    void resyncLibrary();

    Session& mSession;
    const Globals& mGlobals;
    std::istream& mIn;
    std::ostream& mOut;
    std::ostream& mErr;
    const bool mInShell;
    std::string mCommand;
};

}  // namespace kivctl
