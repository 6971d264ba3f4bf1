#include "Kivctl.h"

#include <cstdlib>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ClientChoice.h"
#include "CommandContext.h"
#include "CommandTable.h"
#include "Session.h"
#include "common/Arguments.h"

#ifndef KIVCTL_VERSION
#define KIVCTL_VERSION "unknown"
#endif

namespace kivctl {

namespace {

// The global options may stand before or after the command; whatever else
// is the command's. The first word that is not a global option (nor the
// value of one) names the command.
struct CommandLine {
    Globals globals;
    bool help = false;
    bool version = false;
    std::string command;
    std::vector<std::string> words;  // the command's own
};

bool isGlobal(const std::string& word, const KnownOption** known) {
    const std::string name = word.substr(0, word.find('='));
    for (const auto& option : globalOptions()) {
        if (name == option.name) {
            *known = &option;
            return true;
        }
    }
    return false;
}

CommandLine split(const std::vector<std::string>& words) {
    CommandLine line;
    std::vector<std::string> global;
    bool rest = false;  // after "--", everything is the command's
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        const KnownOption* known = nullptr;
        if (!rest && word == "--") {
            rest = true;
            line.words.push_back(word);
        } else if (!rest && (word == "-h" || word == "--help") && line.command.empty()) {
            line.help = true;
        } else if (!rest && word == "--modem-manager") {
            // The modem manager without an identifier: the modem by --instance.
            global.push_back("--modem-manager=");
        } else if (!rest && isGlobal(word, &known) && std::string(known->name) != "--help") {
            global.push_back(word);
            // A value given as the next word travels with its option.
            if (known->value != nullptr && word.find('=') == std::string::npos &&
                i + 1 < words.size()) {
                global.push_back(words[++i]);
            }
        } else if (line.command.empty() && !rest) {
            if (!word.empty() && word[0] == '-') {
                throw UsageError("unknown option " + quote(word) + " (kivctl --help lists them)");
            }
            line.command = word;
        } else {
            line.words.push_back(word);
        }
    }

    const Arguments args = Arguments::parse(global, globalOptions());
    line.version = args.has("--version");
    Globals& g = line.globals;
    if (args.has("--modem") && args.has("--modem-state")) {
        throw UsageError(
                "--modem-state is for kivctl's own modem; the service named by "
                "--modem keeps its own state");
    }
    const char* manager = getenv("KIVR_MODEM_MANAGER");
    if (auto id = args.value("--modem-manager")) {
        g.modemManager = true;
        g.modemManagerId = *id == "any" ? "" : *id;
    } else if (manager != nullptr && manager[0] != '\0' && !args.has("--modem") &&
               !args.has("--modem-state")) {
        g.modemManager = true;
        g.modemManagerId = std::string(manager) == "any" ? "" : manager;
    }
    if (g.modemManager && (args.has("--modem") || args.has("--modem-state"))) {
        throw UsageError(
                "--modem-manager names the modem; --modem and --modem-state are for "
                "the simulated modem and its service");
    }
    g.modemManagerBus = args.value("--mm-bus").value_or("");
    if (g.modemManager) {
        // Neither the service nor kivctl's own modem.
    } else if (auto socket = args.value("--modem")) {
        g.modemSocket = *socket;
    } else if (auto state = args.value("--modem-state")) {
        // Named on the command line, kivctl's own modem wins over KIVR_MODEM.
        g.statePath = *state;
    } else if (const char* named = getenv("KIVR_MODEM"); named != nullptr && named[0] != '\0') {
        g.modemSocket = named;
    }
    if (auto instance = args.value("--instance")) {
        g.instance = parseNumber(*instance, "--instance", 0, 255);
    }
    if (auto timeout = args.value("--timeout")) {
        g.timeoutMs = parseNumber(*timeout, "--timeout", 1, 3600000);
    }
    g.json = args.has("--json");
    g.log = args.has("--log");
    g.noService = args.has("--no-service");
    return line;
}

}  // namespace

int run(const std::vector<std::string>& words, std::istream& in, std::ostream& out,
        std::ostream& err) {
    try {
        CommandLine line = split(words);
        Globals& globals = line.globals;
        if (line.version) {
            if (globals.json) {
                printJson(out, {{"version", KIVCTL_VERSION}});
            } else {
                out << "kivctl " << KIVCTL_VERSION << "\n";
            }
            return kOk;
        }
        if (line.help) {
            const Command* about = line.command.empty() ? nullptr : findCommand(line.command);
            printHelp(out, globals.json, about ? commandHelp(*about) : usage());
            return kOk;
        }
        if (line.command.empty()) throw UsageError("no command (kivctl --help lists them)");
        const Command* command = findCommand(line.command);
        if (command == nullptr) {
            throw UsageError("unknown command " + quote(line.command) +
                             " (kivctl --help lists them)");
        }
        const Arguments args = parseCommand(*command, line.words);
        // Help needs no modem.
        if (auto text = helpRequested(*command, args)) {
            printHelp(out, globals.json, *text);
            return kOk;
        }
        if (globals.modemSocket.empty() && globals.statePath.empty() && !globals.modemManager) {
            auto path = defaultStatePath();
            if (!path) {
                throw UsageError(
                        "no place for the modem's table: set HOME or XDG_STATE_HOME, or "
                        "give --modem-state FILE (or --modem PATH for a modem service)");
            }
            globals.statePath = *path;
        }

        // The messaging client, before anything of the session watches it.
        client::use(globals.modemManager ? client::Kind::kModemManager : client::Kind::kService);
        Session session(globals);
        CommandContext commands(session, in, out, err, /*inShell=*/false);
        const int status = commands.execute(*command, args);
        session.finish(line.command);
        return status;
    } catch (const UsageError& e) {
        err << "kivctl: " << e.what() << "\n";
        return kBadInput;
    } catch (const Refused& e) {
        err << "kivctl: " << e.what() << "\n";
        return kRefused;
    } catch (const nlohmann::json::exception& e) {
        err << "kivctl: the modem service answered something unexpected: " << e.what() << "\n";
        return kRefused;
    }
}

}  // namespace kivctl
