// kivctl's commands: each with its name, help, options, how many arguments
// it takes, what it needs, and the handler that runs it, in one table.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/Arguments.h"

namespace kivctl {

class CommandContext;

struct Command {
    using Handler = std::function<int(CommandContext& context, const Arguments& args)>;

    const char* name = "";
    const char* synopsis = "";  // what follows "kivctl" in the usage line
    const char* summary = "";   // one line, for the list of commands
    const char* details = "";   // the rest of its help
    std::vector<KnownOption> options;
    size_t minArguments = 0;
    size_t maxArguments = 0;
    bool needsLibrary = true;       // the library is brought up on the modem first
    bool inShell = true;            // can be run from the shell
    bool linesAnswerAlone = false;  // its lines are each judged on their own (the shell)
    Handler run;                    // none: help
};

// One row of the table, its columns named as they are filled in.
class CommandRow {
  public:
    CommandRow(const char* name, const char* synopsis, const char* summary) {
        mCommand.name = name;
        mCommand.synopsis = synopsis;
        mCommand.summary = summary;
    }
    CommandRow& details(const char* text) {
        mCommand.details = text;
        return *this;
    }
    CommandRow& options(std::vector<KnownOption> options) {
        mCommand.options = std::move(options);
        return *this;
    }
    CommandRow& arguments(size_t least, size_t most) {
        mCommand.minArguments = least;
        mCommand.maxArguments = most;
        return *this;
    }
    CommandRow& withoutLibrary() {
        mCommand.needsLibrary = false;
        return *this;
    }
    CommandRow& notInShell() {
        mCommand.inShell = false;
        return *this;
    }
    CommandRow& linesAnswerAlone() {
        mCommand.linesAnswerAlone = true;
        return *this;
    }
    // A member of a command class, which is made on the context for the run.
    template <typename Commands>
    CommandRow& runs(int (Commands::*handler)(const Arguments& args)) {
        mCommand.run = [handler](CommandContext& context, const Arguments& args) {
            Commands commands(context);
            return (commands.*handler)(args);
        };
        return *this;
    }
    CommandRow& runs(Command::Handler handler) {
        mCommand.run = std::move(handler);
        return *this;
    }
    operator Command() const { return mCommand; }

  private:
    Command mCommand;
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

}  // namespace kivctl
