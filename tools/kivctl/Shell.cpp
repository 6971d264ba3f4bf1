#include "Shell.h"

#include <algorithm>
#include <cctype>
#include <map>

#include "CommandContext.h"
#include "CommandTable.h"
#include "ProfileOptions.h"
#include "common/Errors.h"

namespace kivctl {

std::vector<std::string> Shell::split(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false, quotedText = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            inWord = true;
        } else if (c == '"') {
            quotedText = !quotedText;
            inWord = true;
        } else if (!quotedText && !inWord && c == '#' &&
                   (i + 1 == line.size() || !isdigit(static_cast<unsigned char>(line[i + 1])))) {
            break;  // a comment; #N is a handle
        } else if (!quotedText && (c == ' ' || c == '\t')) {
            if (inWord) words.push_back(word);
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quotedText) throw UsageError("unterminated quote");
    if (inWord) words.push_back(word);
    return words;
}

namespace {

// The shell's own commands, for its help.
constexpr const char* kShellCommands =
        "\nIn the shell also:\n"
        "  handles       the handles kept, #1, #2, ... (one per profile)\n"
        "  drop #N       lets go of a handle (a temporary profile goes with its last)\n"
        "  exit          ends the shell (so does the end of the input)\n";

}  // namespace

int Shell::run() {
    int worst = kOk;
    std::string line;
    // A person at a terminal is asked for each line; what is printed stays
    // the commands' own.
    auto prompt = [this] {
        if (!mInteractive) return;
        mErr << "kivctl> ";
        mErr.flush();
    };
    for (int number = 1; prompt(), std::getline(mIn, line); ++number) {
        // A line from a Windows editor ends in CR LF.
        if (!line.empty() && line.back() == '\r') line.pop_back();
        int status = kOk;
        try {
            const auto words = split(line);
            if (words.empty()) continue;
            if (words[0] == "exit" || words[0] == "quit") break;
            status = runLine(words);
        } catch (const UsageError& e) {
            mErr << "kivctl: line " << number << ": " << e.what() << "\n";
            status = kBadInput;
        } catch (const Refused& e) {
            mErr << "kivctl: line " << number << ": " << e.what() << "\n";
            status = kRefused;
        }
        worst = std::max(worst, status);
        mOut.flush();
    }
    return worst;
}

int Shell::runLine(const std::vector<std::string>& words) {
    const std::string& name = words[0];
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    const Globals& globals = mSession.globals();
    if (name == "handles") {
        if (!rest.empty()) throw UsageError("unexpected argument " + quote(rest[0]));
        // The handles are the shell's own: shown whether or not the modem
        // service is there to add what it holds.
        nlohmann::json table = nlohmann::json::array();
        try {
            table = mSession.modemProfiles();
        } catch (const Refused&) {
        }
        std::vector<ProfileView> views;
        for (const auto& [number, key] : mSession.handles()) {
            views.push_back(mSession.view(key, table, number));
        }
        if (globals.json) {
            nlohmann::ordered_json list = nlohmann::ordered_json::array();
            for (const auto& view : views) list.push_back(profileJson(view));
            printJson(mOut, {{"handles", list}});
        } else {
            printProfiles(mOut, views);
        }
        return kOk;
    }
    if (name == "drop") {
        if (rest.size() != 1 || rest[0].empty() || rest[0][0] != '#') {
            throw UsageError("usage: drop #N");
        }
        const int number = parseNumber(rest[0].substr(1), "a handle", 1, 1 << 30);
        if (!mSession.drop(number)) throw UsageError("no handle #" + std::to_string(number));
        mSession.settle();
        mSession.requireDone("drop");
        if (globals.json) {
            printJson(mOut, {{"dropped", "#" + std::to_string(number)}});
        } else {
            mOut << "dropped #" << number << "\n";
        }
        return kOk;
    }
    if (name == "help" && rest.size() <= 1) {
        static const std::map<std::string, std::string> kOwn = {
                {"handles", "usage: handles\n  the handles kept, with their profiles\n"},
                {"drop",
                 "usage: drop #N\n  lets go of handle #N; a temporary profile goes with "
                 "its last handle\n"},
                {"exit", "usage: exit\n  ends the shell\n"}};
        if (rest.empty()) {
            printHelp(mOut, globals.json, usage() + kShellCommands);
            return kOk;
        }
        if (auto own = kOwn.find(rest[0]); own != kOwn.end()) {
            printHelp(mOut, globals.json, own->second);
            return kOk;
        }
    }
    const Command* command = findCommand(name);
    if (command == nullptr) {
        throw UsageError("unknown command " + quote(name) + " (help lists them)");
    }
    CommandContext commands(mSession, mIn, mOut, mErr, /*inShell=*/true);
    return commands.execute(*command, parseCommand(*command, rest));
}

}  // namespace kivctl
