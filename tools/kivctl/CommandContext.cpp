#include "CommandContext.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "ClientChoice.h"
#include "CommandTable.h"
#include "ProfileOptions.h"
#include "Shell.h"
#include "common/Errors.h"
#include "remote/XalRemote.h"
#include "sim/ModemTable.h"

namespace kivctl {

using kiv::FilterProfileParams;
using kiv::ProfileParams;
using kiv::TechType;
using nlohmann::ordered_json;

std::string plural(size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

int CommandContext::execute(const Command& command, const Arguments& args) {
    if (auto text = helpRequested(command, args)) {
        printHelp(mOut, mGlobals.json, *text);
        return kOk;
    }
    if (mInShell && !command.inShell) throw UsageError("already in the shell");
    mCommand = command.name;
    if (command.needsLibrary) {
        mSession.startLibrary();
        mSession.catchUp(mCommand);
    }
    // Whatever the command asked of the modem is judged, also when it failed
    // for another reason: what the modem refused is said.
    int status;
    try {
        status = command.run(*this, args);
    } catch (const Refused&) {
        if (!command.linesAnswerAlone) mSession.requireDone(mCommand);
        throw;
    }
    // The shell's lines have each answered for themselves.
    if (!command.linesAnswerAlone) mSession.requireDone(mCommand);
    return status;
}

void CommandContext::requireAnswered() {
    mSession.requireDone(mCommand);
}

std::shared_ptr<kiv::IProfileKey> CommandContext::resolve(const std::string& word,
                                                          std::optional<TechType> tech) {
    if (!word.empty() && word[0] == '#') {
        if (!mInShell) throw UsageError("handles (" + quote(word) + ") live in the shell only");
        if (tech) throw UsageError("a handle names its technology: no --tech with " + word);
        return mSession.handle(parseNumber(word.substr(1), "a handle", 1, 1 << 30));
    }
    const int id = parseNumber(word, "a profile id", 1, 255);
    const TechType techType =
            tech ? *tech
                 : (id >= xalsim::kFirst3gpp2Index ? TechType::TECH_3GPP2 : TechType::TECH_3GPP);
    FilterProfileParams byId;
    byId.setFilterByProfileId(id);
    byId.setFilterByTechType(techType);
    auto keys = manager().filter(byId);
    if (keys.empty()) {
        throw UsageError("no profile " + std::to_string(id) + " (" + techName(techType) + ")");
    }
    return keys.front();
}

int CommandContext::report(const std::string& action, const std::shared_ptr<kiv::IProfileKey>& key,
                           const ProfileParams* asked, const Outcome* outcome) {
    requireAnswered();
    if (!key) throw Refused(mCommand + ": the library refused (kivctl --log tells more)");
    const int number = mInShell ? mSession.keep(key) : 0;
    // What the modem adds to the library's view is for JSON only; the change
    // is done whether or not the service can still say it (it may just have
    // gone away).
    nlohmann::json table = nlohmann::json::array();
    if (mGlobals.json) {
        try {
            table = mSession.modemProfiles();
        } catch (const Refused&) {
        }
    }
    ProfileView v = mSession.view(key, table, number);
    if (v.stale && asked != nullptr) {
        // The library read the table anew since (the modem restarted): the
        // profile is as it was made, whether or not it outlived the restart.
        v.params = *asked;
    }
    if (mGlobals.json) {
        ordered_json document = {{"action", action}, {"profile", profileJson(v)}};
        if (outcome != nullptr) document.update(outcome->json);
        printJson(mOut, document);
    } else {
        mOut << action << ": profile " << v.id << " (" << techName(v.tech) << ")";
        if (number) mOut << " as #" << number;
        mOut << "\n";
        if (outcome != nullptr) {
            for (const auto& line : outcome->lines) mOut << "  " << line << "\n";
        }
    }
    return kOk;
}

int CommandContext::printViews(std::vector<ProfileView> views) {
    requireAnswered();
    std::sort(views.begin(), views.end(), [](const ProfileView& a, const ProfileView& b) {
        return std::make_pair(a.tech, a.id) < std::make_pair(b.tech, b.id);
    });
    if (mGlobals.json) {
        ordered_json list = ordered_json::array();
        for (const auto& view : views) list.push_back(profileJson(view));
        printJson(mOut, {{"profiles", list}});
    } else {
        printProfiles(mOut, views);
    }
    return kOk;
}

std::vector<ProfileView> CommandContext::viewsOf(
        const std::vector<FilterProfileParams>& filters, bool keepHandles,
        const std::function<bool(const ProfileView&)>& accept) {
    for (int attempt = 1;; ++attempt) {
        const auto table = mSession.modemProfiles();
        std::vector<std::pair<std::shared_ptr<kiv::IProfileKey>, ProfileView>> found;
        bool reread = false;
        for (const auto& filter : filters) {
            for (const auto& key : manager().filter(filter)) {
                found.emplace_back(key, mSession.view(key, table));
                reread = reread || found.back().second.stale;
            }
        }
        if (!reread) {
            std::vector<ProfileView> views;
            for (auto& [key, view] : found) {
                if (accept && !accept(view)) continue;
                if (keepHandles) view.handle = mSession.keep(key);
                views.push_back(std::move(view));
            }
            return views;
        }
        if (attempt == 3) {
            throw Refused(mCommand +
                          ": the modem's table was read anew each time it was being listed "
                          "(the modem keeps restarting); nothing to show");
        }
    }
}

void CommandContext::learnSecrets(const ProfileParams& params) {
    if (params.hasPassword()) mSession.secrets().learn(params.getPassword());
}

void CommandContext::resyncLibrary() {
    if (!mSession.libraryStarted()) return;
    // The reread the modem asks for is this command's.
    const auto reading = mSession.ledger().reading();
    client::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    mSession.waitForLibrary();
    mSession.settle();
}

int CommandContext::runShell() {
    Shell shell(mSession, mIn, mOut, mErr, &mIn == &std::cin && isatty(STDIN_FILENO));
    return shell.run();
}

}  // namespace kivctl
