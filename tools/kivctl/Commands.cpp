#include "Commands.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <list>
#include <map>

#include "ApnsConf.h"
#include "ProfileOptions.h"
#include "Rehearsal.h"
#include "Shell.h"
#include "Watcher.h"
#include "common/Errors.h"
#include "remote/XalRemote.h"
#include "xal/wds_v01.h"

namespace kivctl {

using kiv::FilterProfileParams;
using kiv::ProfileParams;
using kiv::TechType;
using nlohmann::ordered_json;

namespace {

const std::vector<KnownOption> kTech = {{"--tech", "3gpp|3gpp2", "the profile's technology"}};
const std::vector<KnownOption> kAllowUpdate = {
        {"--allow-update", nullptr, "existing profiles may be rewritten more freely"}};

std::string plural(size_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

constexpr const char* kProfileWord =
        "PROFILE is a modem profile id (3GPP below 101, 3GPP2 from 101, or say --tech),\n"
        "or a handle #N in the shell.\n";

}  // namespace

const std::vector<KnownOption>& globalOptions() {
    static const std::vector<KnownOption> kOptions = {
            {"--modem", "PATH", "the modem service's socket (default $KIVR_MODEM)"},
            {"--modem-state", "FILE",
             "without a service: the modem's table (default\n"
             "                        $XDG_STATE_HOME/kivr/modem.state, else\n"
             "                        ~/.local/state/kivr/modem.state)"},
            {"--instance", "N", "modem instance the library binds to, 0 to 255 (default 0)"},
            {"--json", nullptr, "machine-readable output: one JSON document per result"},
            {"--log", nullptr, "the library's log lines on standard error"},
            {"--timeout", "MS", "how long to wait for the modem (default 5000)"},
            {"--no-service", nullptr, "kivctl's own modem starts with its data service down"},
            {"--help", nullptr, "this text; COMMAND --help for a command's"},
            {"--version", nullptr, "kivctl's version"},
    };
    return kOptions;
}

const std::vector<Command>& commandTable() {
    static const std::vector<Command> kCommands = {
            {"list",
             "list",
             "the profiles on the modem",
             "",
             {},
             0,
             0,
             true,
             true,
             &Commands::list},
            {"show", "show PROFILE [--tech 3gpp|3gpp2]",
             "one profile in full, and what the modem holds", kProfileWord, kTech, 1, 1, true, true,
             &Commands::show},
            {"add", "add [--temporary] [--tech 3gpp|3gpp2] [--attach] [profile options]",
             "create a profile (persistent unless --temporary)",
             "A temporary profile is deleted when its last handle goes: at the end of the\n"
             "command, or on drop in the shell. --attach makes the LTE attach profile\n"
             "(3GPP only).\n",
             optionsOf({profileOptions(),
                        kTech,
                        {{"--temporary", nullptr, "deleted when its last handle goes"},
                         {"--attach", nullptr, "the library's LTE attach profile (3GPP)"}}}),
             0, 0, true, true, &Commands::add},
            {"modify", "modify PROFILE [--tech 3gpp|3gpp2] [profile options]",
             "change the given fields of a profile", kProfileWord,
             optionsOf({profileOptions(), kTech}), 1, 1, true, true, &Commands::modify},
            {"delete", "delete PROFILE [--tech 3gpp|3gpp2]", "delete a profile from the modem",
             kProfileWord, kTech, 1, 1, true, true, &Commands::remove},
            {"find", "find [filter options]", "the profiles matching a filter",
             "The profile options name values the profiles must hold; the filter options\n"
             "add more. In the shell every profile found is kept as a handle.\n",
             optionsOf({profileOptions(), filterOptions()}), 0, 0, true, true, &Commands::find},
            {"attach", "attach [--allow-update] [profile options]",
             "find or create the LTE attach profile", "",
             optionsOf({profileOptions(), kAllowUpdate}), 0, 0, true, true, &Commands::attach},
            {"data-call", "data-call [--tech 3gpp|3gpp2] [--allow-update] [profile options]",
             "find or create a data-call profile (a created one is temporary)", "",
             optionsOf({profileOptions(), kTech, kAllowUpdate}), 0, 0, true, true,
             &Commands::dataCall},
            {"emergency", "emergency [--allow-update] [profile options]",
             "find or create the emergency profile", "",
             optionsOf({profileOptions(), kAllowUpdate}), 0, 0, true, true, &Commands::emergency},
            {"apply-apns",
             "apply-apns FILE --mcc MCC --mnc MNC [--imsi IMSI] [--gid1 HEX] [--spn NAME]\n"
             "                  [--iccid ICCID] [--allow-update] [--dry-run]",
             "update modem profiles' APN types from a carrier's apns-conf.xml entries",
             "The carrier's entries are those a device with the SIM uses: the entries of the\n"
             "SIM's MVNO when it has any (an imsi pattern, x for any digit, against --imsi; a\n"
             "gid as a prefix of --gid1, any case; an spn as --spn, any case; an iccid as a\n"
             "prefix of --iccid), else the entries without an MVNO type.\n"
             "\n"
             "The modem profiles are then updated by the library's APN-type update: for each\n"
             "APN name of the entries, the APN types of the entries of each IP family (IP,\n"
             "IPV6, IPV4V6; none given counts as IPV4V6) are written onto the modem profiles\n"
             "with that APN name and home IP type, per technology. A profile's APN types are\n"
             "replaced, not merged. Types meant for an IP family that has no such profile\n"
             "fall back onto the dual-stack profiles, and dual-stack types onto single-stack\n"
             "ones. With --allow-update the union of all the name's types is written onto\n"
             "every profile with that APN name, whatever its technology and IP type.\n"
             "\n"
             "Prints, per modem profile, its APN types before and after. --dry-run changes\n"
             "nothing on the modem (the library rereads the table afterwards).\n",
             {{"--mcc", "MCC", "the carrier's mobile country code"},
              {"--mnc", "MNC", "the carrier's mobile network code"},
              {"--imsi", "IMSI", "the SIM's IMSI, for imsi MVNO entries"},
              {"--gid1", "HEX", "the SIM's group identifier, for gid MVNO entries"},
              {"--spn", "NAME", "the SIM's service provider name, for spn MVNO entries"},
              {"--iccid", "ICCID", "the SIM's ICCID, for iccid MVNO entries"},
              {"--allow-update", nullptr, "every profile with the APN name takes every type"},
              {"--dry-run", nullptr, "print what would change, change nothing"}},
             1,
             1,
             true,
             true,
             &Commands::applyApns},
            {"dump",
             "dump",
             "the library's cache and recent log",
             "",
             {},
             0,
             0,
             true,
             true,
             &Commands::dump},
            {"reclaim",
             "reclaim [--dry-run] [--force]",
             "delete the library's temporary profiles that nobody holds",
             "Deletes every non-persistent profile of the library (named kiv_profile or\n"
             "kiv_profile_ia) that this kivctl holds no handle on: what processes that died,\n"
             "rereads, and refused or failed releases leave on the modem. On the modem\n"
             "service that includes the temporaries of every other client, live ones too:\n"
             "only the process that owns the library's profiles on a modem should reclaim\n"
             "them, and there it takes --force.\n",
             {{"--dry-run", nullptr, "list them, delete nothing"},
              {"--force", nullptr, "on the modem service: delete other clients' too"}},
             0,
             0,
             true,
             true,
             &Commands::reclaim},
            {"watch",
             "watch [--count N]",
             "print the profile changes the modem service announces",
             "Prints every profile change as it arrives: the profile, the event and, after a\n"
             "create or modify, the modem's settings; one line (or JSON object) per change,\n"
             "until interrupted or N changes. Says \"watching\" on standard error once it\n"
             "listens. Needs the modem service (--modem PATH or KIVR_MODEM).\n",
             {{"--count", "N", "stop after N changes"}},
             0,
             0,
             false,
             true,
             &Commands::watch},
            {"modem",
             "modem ACTION",
             "restart, reset, down, up, status; fault injection and clear",
             "  restart              the modem restarts: temporary profiles are lost, clients\n"
             "                       reconnect and reread (faults to come stay)\n"
             "  reset                the factory table back, no faults to come; every client\n"
             "                       rereads\n"
             "  down | up            the modem's data service goes down, or comes back\n"
             "  status               service, capacity, latency, clients, requests\n"
             "  fail KIND [N]        the next N requests of a kind fail (KIND: create, modify,\n"
             "                       delete, list, get, bind, register, events or a message id;\n"
             "                       service: finding the service; connect: opening a client)\n"
             "  timeout KIND [N]     the next N requests of a kind get no answer\n"
             "  clear                forgets every fault still to come (status lists them)\n"
             "  send subscription-change | profile-ready\n"
             "  send changed 3gpp|3gpp2|all INDEX EVENT   a profile-changed indication\n"
             "                       (EVENT: create, delete, modify, subscription-change,\n"
             "                       profile-ready or a number)\n"
             "  send raw MESSAGE-ID HEX   any bytes as an indication\n"
             "Faults and indications reach every client of the modem service; on kivctl's\n"
             "own modem they last for the command (or the shell).\n",
             {},
             1,
             5,
             false,
             true,
             &Commands::modem},
            {"shell",
             "shell",
             "read commands from standard input, one per line",
             "Profiles returned by add, find and the policy commands are kept as handles #1,\n"
             "#2, ... (one per profile); handles lists them, drop #N releases one, exit ends.\n"
             "A handle no longer names a profile once the modem was restarted, reset or\n"
             "reread. Errors name their line; the exit status is the worst of the lines'.\n",
             {},
             0,
             0,
             false,
             false,
             &Commands::shell},
            {"help",
             "help [COMMAND]",
             "this text, or a command's",
             "",
             {},
             0,
             1,
             false,
             true,
             nullptr},
    };
    return kCommands;
}

const Command* findCommand(const std::string& name) {
    for (const auto& command : commandTable()) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

namespace {

std::string optionLines(const std::vector<KnownOption>& options) {
    std::string text;
    for (const auto& option : options) {
        std::string left = std::string("  ") + option.name;
        if (option.value) left += std::string(" ") + option.value;
        if (left.size() < 24)
            left.resize(24, ' ');
        else
            left += "\n" + std::string(24, ' ');
        text += left + option.help + "\n";
    }
    return text;
}

}  // namespace

std::string usage() {
    std::string text =
            "usage: kivctl [global options] COMMAND [options]\n"
            "\n"
            "Runs libkivr against a simulated modem: the modem service (kivmodemd) named\n"
            "by --modem or KIVR_MODEM, shared with other processes, or else a modem of\n"
            "its own whose profile table persists in a file between runs.\n"
            "\n"
            "Global options (before or after the command):\n" +
            optionLines(globalOptions()) + "\nCommands:\n";
    for (const auto& command : commandTable()) {
        std::string name = std::string("  ") + command.name;
        name.resize(14, ' ');
        text += name + command.summary + "\n";
    }
    text += "\nkivctl help COMMAND (or COMMAND --help) tells more.\n"
            "Exit status: 0 done, 1 refused by the modem or the library (or not stored),\n"
            "2 bad input.\n";
    return text;
}

std::string commandHelp(const Command& command) {
    std::string text =
            std::string("usage: kivctl ") + command.synopsis + "\n  " + command.summary + "\n";
    if (command.details[0] != '\0') text += "\n" + std::string(command.details);
    if (!command.options.empty()) text += "\nOptions:\n" + optionLines(command.options);
    return text;
}

Arguments parseCommand(const Command& command, const std::vector<std::string>& words) {
    Arguments args =
            Arguments::parse(words, optionsOf({command.options, {{"--help", nullptr, ""}}}));
    if (args.has("--help")) return args;
    const size_t given = args.positionals().size();
    if (given < command.minArguments) {
        const std::string synopsis = command.synopsis;
        throw UsageError(std::string(command.name) + " needs more (usage: kivctl " +
                         synopsis.substr(0, synopsis.find('\n')) +
                         (synopsis.find('\n') == std::string::npos ? "" : " ...") + ")");
    }
    if (given > command.maxArguments) {
        throw UsageError("unexpected argument " + quote(args.positionals()[command.maxArguments]));
    }
    return args;
}

std::optional<std::string> helpRequested(const Command& command, const Arguments& args) {
    if (args.has("--help")) return commandHelp(command);
    if (command.run != nullptr) return std::nullopt;
    if (args.positionals().empty()) return usage();
    const Command* about = findCommand(args.positionals()[0]);
    if (about == nullptr) {
        throw UsageError("unknown command " + quote(args.positionals()[0]) + " (help lists them)");
    }
    return commandHelp(*about);
}

int Commands::execute(const Command& command, const Arguments& args) {
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
        status = (this->*command.run)(args);
    } catch (const Refused&) {
        if (command.run != &Commands::shell) mSession.requireDone(mCommand);
        throw;
    }
    // The shell's lines have each answered for themselves.
    if (command.run != &Commands::shell) mSession.requireDone(mCommand);
    return status;
}

void Commands::requireAnswered() {
    mSession.requireDone(mCommand);
}

std::shared_ptr<kiv::IProfileKey> Commands::resolve(const std::string& word,
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

int Commands::report(const std::string& action, const std::shared_ptr<kiv::IProfileKey>& key,
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

Commands::Snapshot Commands::snapshot() {
    Snapshot all;
    for (const auto& key : manager().filter(FilterProfileParams())) {
        if (auto params = manager().getProfile(key)) {
            all[{key->getTechType(), key->getProfileId()}] = *params;
        }
    }
    return all;
}

Commands::Outcome Commands::policyOutcome(const std::shared_ptr<kiv::IProfileKey>& key,
                                          const ProfileParams& asked, const Snapshot& before) {
    Outcome outcome;
    if (!key) return outcome;
    const auto now = manager().getProfile(key);
    if (!now) return outcome;
    auto shown = [](const ShownField& field, const ProfileParams& params) {
        return field.text(params).value_or("-");
    };
    const auto was = before.find({key->getTechType(), key->getProfileId()});
    const bool created = was == before.end();
    outcome.json["created"] = created;
    outcome.json["changed"] = ordered_json::array();
    outcome.json["notAsAsked"] = ordered_json::array();
    if (created) {
        const bool temporary = !now->getIsIAProfile() && mCommand == "data-call";
        outcome.json["temporary"] = temporary;
        outcome.lines.push_back(std::string("created") +
                                (!temporary ? ", persistent"
                                 : mInShell ? ", temporary: it goes when its handle is dropped"
                                            : ", temporary: it goes when this command ends"));
    } else {
        std::string changes;
        for (const auto& field : shownFields()) {
            if (field.same(was->second, *now)) continue;
            outcome.json["changed"].push_back({{"field", field.name},
                                               {"before", shown(field, was->second)},
                                               {"after", shown(field, *now)}});
            changes += std::string(changes.empty() ? "" : ", ") + field.name + " " +
                       shown(field, was->second) + " -> " + shown(field, *now);
        }
        if (!changes.empty()) outcome.lines.push_back("changed: " + changes);
    }
    // What was asked for and the profile does not hold: the library's rules
    // chose it all the same.
    ProfileParams wanted = asked;
    if (wanted.hasApnName()) wanted.setApnName(normalizedApn(wanted.getApnName()));
    std::string unmet;
    bool anything = false;
    for (const auto& field : shownFields()) {
        if (!field.text(wanted)) continue;
        anything = true;
        if (field.same(wanted, *now)) continue;
        outcome.json["notAsAsked"].push_back({{"field", field.name},
                                              {"asked", shown(field, wanted)},
                                              {"holds", shown(field, *now)}});
        unmet += std::string(unmet.empty() ? "" : ", ") + field.name + " " + shown(field, wanted) +
                 " (it holds " + shown(field, *now) + ")";
    }
    if (!unmet.empty()) {
        outcome.lines.push_back("not as asked: " + unmet + "; the library's rules chose it");
    }
    if (!anything && !created) {
        outcome.lines.push_back(
                "no profile options given: the first profile the library's rules accept");
    }
    return outcome;
}

int Commands::printViews(std::vector<ProfileView> views) {
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

std::vector<ProfileView> Commands::viewsOf(const std::vector<FilterProfileParams>& filters,
                                           bool keepHandles,
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

int Commands::list(const Arguments&) {
    return printViews(viewsOf({FilterProfileParams()}, /*keepHandles=*/false));
}

int Commands::show(const Arguments& args) {
    const ProfileView v = mSession.view(resolve(args.positionals()[0], techOption(args)),
                                        mSession.modemProfiles());
    nlohmann::json held = nlohmann::json::object();
    for (const auto& profile : mSession.modemProfiles()) {
        if (profile.value("type", "") == techName(v.tech) && profile.value("index", 0) == v.id) {
            held = profile;
        }
    }
    held.erase("type");
    held.erase("index");
    held = withoutSecrets(held);
    if (mGlobals.json) {
        printJson(mOut, {{"profile", profileJson(v)}, {"modem", held}});
    } else {
        printProfile(mOut, v, held);
    }
    return kOk;
}

int Commands::add(const Arguments& args) {
    const TechType tech = techOption(args).value_or(TechType::TECH_3GPP);
    if (tech == TechType::TECH_3GPP2 && args.has("--attach")) {
        throw UsageError("option --attach is not for 3GPP2 profiles");
    }
    ProfileParams params;
    readProfileOptions(args, params, tech);
    learnSecrets(params);
    const kiv::AddProfileParams add(params, !args.has("--temporary"), tech, args.has("--attach"));
    return report("added", manager().addProfile(add), &params);
}

int Commands::modify(const Arguments& args) {
    auto key = resolve(args.positionals()[0], techOption(args));
    kiv::ModifyProfileParams params;
    readProfileOptions(args, params, key->getTechType());
    learnSecrets(params);
    if (!manager().modifyProfile(params, key)) {
        throw Refused("modify: the library no longer knows profile " +
                      std::to_string(key->getProfileId()));
    }
    return report("modified", key);
}

int Commands::remove(const Arguments& args) {
    auto key = resolve(args.positionals()[0], techOption(args));
    const int id = key->getProfileId();
    const TechType tech = key->getTechType();
    if (!manager().deleteProfile(key)) {
        throw Refused("delete: the modem refused to delete profile " + std::to_string(id) +
                      " (or the library no longer knows it)");
    }
    if (mGlobals.json) {
        printJson(mOut, {{"action", "deleted"}, {"id", id}, {"tech", techName(tech)}});
    } else {
        mOut << "deleted: profile " << id << " (" << techName(tech) << ")\n";
    }
    return kOk;
}

int Commands::find(const Arguments& args) {
    FilterProfileParams filter;
    readFilterOptions(args, filter);
    learnSecrets(filter);
    std::vector<FilterProfileParams> filters = {filter};
    // 3GPP2 profiles carry no names: none is the library's by its name, nor
    // an attach profile, so "no" to either is every 3GPP2 profile that
    // matches the rest (the library's own rule leaves them all out).
    const bool notNamed = args.value("--kiv") == std::optional<std::string>("no") ||
                          args.value("--attach-profile") == std::optional<std::string>("no");
    const auto tech = techOption(args);
    if (notNamed && tech != TechType::TECH_3GPP) {
        FilterProfileParams threeGpp2;
        readFilterOptions(args, threeGpp2, /*ignoreNames=*/true);
        threeGpp2.setFilterByTechType(TechType::TECH_3GPP2);
        filter.setFilterByTechType(TechType::TECH_3GPP);
        filters = tech ? std::vector<FilterProfileParams>{threeGpp2}
                       : std::vector<FilterProfileParams>{filter, threeGpp2};
    }
    return printViews(viewsOf(filters, /*keepHandles=*/mInShell,
                              [&](const ProfileView& view) { return heldOff(args, view.params); }));
}

int Commands::attach(const Arguments& args) {
    mSession.util().setProfileUpdateAllowed(args.has("--allow-update"));
    ProfileParams params;
    readProfileOptions(args, params, TechType::TECH_3GPP);
    learnSecrets(params);
    const Snapshot before = snapshot();
    const auto key = mSession.util().findOrCreateProfileForLteAttach(params);
    const Outcome outcome = policyOutcome(key, params, before);
    return report("attach profile", key, nullptr, &outcome);
}

int Commands::dataCall(const Arguments& args) {
    const TechType tech = techOption(args).value_or(TechType::TECH_3GPP);
    mSession.util().setProfileUpdateAllowed(args.has("--allow-update"));
    ProfileParams params;
    readProfileOptions(args, params, tech);
    learnSecrets(params);
    const Snapshot before = snapshot();
    const auto key = mSession.util().findOrCreateProfileForSetupDataCall(tech, params);
    const Outcome outcome = policyOutcome(key, params, before);
    return report("data-call profile", key, nullptr, &outcome);
}

int Commands::emergency(const Arguments& args) {
    mSession.util().setProfileUpdateAllowed(args.has("--allow-update"));
    ProfileParams params;
    readProfileOptions(args, params, TechType::TECH_3GPP);
    learnSecrets(params);
    const Snapshot before = snapshot();
    const auto key = mSession.util().findOrCreateProfileForEmergencyDataCall(params);
    const Outcome outcome = policyOutcome(key, params, before);
    return report("emergency profile", key, nullptr, &outcome);
}

namespace {

// Each profile's APN types as the library sees them, by (tech, id).
struct TypesBefore {
    int id;
    TechType tech;
    std::string apn;
    std::optional<uint32_t> types;
};

std::vector<TypesBefore> typesOfEveryProfile(kiv::Manager& manager) {
    std::vector<TypesBefore> all;
    for (const auto& key : manager.filter(FilterProfileParams())) {
        TypesBefore entry{key->getProfileId(), key->getTechType(), "", std::nullopt};
        if (auto params = manager.getProfile(key)) {
            entry.apn = params->getApnName();
            if (params->hasApnTypesMask()) entry.types = params->getApnTypesMask();
        }
        all.push_back(entry);
    }
    std::sort(all.begin(), all.end(), [](const TypesBefore& a, const TypesBefore& b) {
        return std::make_pair(a.tech, a.id) < std::make_pair(b.tech, b.id);
    });
    return all;
}

}  // namespace

int Commands::applyApns(const Arguments& args) {
    const auto mcc = args.value("--mcc");
    const auto mnc = args.value("--mnc");
    if (!mcc || !mnc) throw UsageError("apply-apns needs --mcc and --mnc");
    const std::string& path = args.positionals()[0];
    CarrierSelection selection{*mcc, *mnc, {}};
    // What a SIM can report: digits for the IMSI (at most 15) and ICCID (at
    // most 22), hex digits for GID1.
    auto sim = [&](const char* option, const char* digits, size_t most) {
        auto value = args.value(option);
        if (value &&
            (value->size() > most || value->find_first_not_of(digits) != std::string::npos)) {
            throw UsageError("bad value " + quote(*value) + " for " + option + " (at most " +
                             std::to_string(most) +
                             (std::string(digits).size() > 10 ? " hex digits)" : " digits)"));
        }
        return value;
    };
    selection.sim.imsi = sim("--imsi", "0123456789", 15);
    selection.sim.gid1 = sim("--gid1", "0123456789abcdefABCDEF", 32);
    selection.sim.iccid = sim("--iccid", "0123456789", 22);
    if (auto spn = args.value("--spn")) {
        selection.sim.spn = spn;
        readTextOption(*spn, "--spn", 16 * 4);  // 16 characters of UTF-8 at most
    }
    const bool dryRun = args.has("--dry-run");
    mSession.util().setProfileUpdateAllowed(args.has("--allow-update"));

    const ApnsConfResult read = ApnsConf::read(path, selection);
    if (!read.ok) throw UsageError(read.error);
    for (const auto& warning : read.warnings)
        mErr << "kivctl: warning: " << printable(warning) << "\n";
    const std::string carrier = *mcc + "/" + *mnc;
    if (read.entries.empty()) {
        if (!read.mvnoTypes.empty() && selection.sim.empty()) {
            static const std::map<std::string, std::string> kOptionFor = {
                    {"spn", "--spn NAME"},
                    {"imsi", "--imsi IMSI"},
                    {"gid", "--gid1 HEX"},
                    {"iccid", "--iccid ICCID"}};
            std::string needed;
            for (const auto& type : read.mvnoTypes) {
                auto it = kOptionFor.find(type);
                needed += (needed.empty() ? "" : ", ") +
                          (it != kOptionFor.end() ? it->second : "(mvno_type " + quote(type) + ")");
            }
            throw UsageError("carrier " + carrier + " has only MVNO entries in " + path +
                             ": name the SIM with " + needed);
        }
        throw UsageError("no entries for carrier " + carrier + " in " + path +
                         (read.mvnoTypes.empty() ? "" : " that match the SIM"));
    }
    std::list<ProfileParams> records;
    for (const auto& entry : read.entries) records.push_back(entry.params);

    const auto before = typesOfEveryProfile(manager());
    auto& ledger = mSession.ledger();
    const size_t accepted = ledger.accepted(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
    std::optional<Rehearsal> rehearsal;
    if (dryRun) rehearsal.emplace();
    mSession.util().updateAPNTypeBitmaskOnModemProfile(records);
    const size_t updates = ledger.accepted(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01) - accepted;
    auto after = typesOfEveryProfile(manager());
    if (dryRun) {
        rehearsal.reset();
        // The library took the rehearsed changes for done: it reads the table again.
        mSession.settle();
        const auto reading = ledger.reading();
        manager().refresh(kiv::PDC_REFRESH_COMPLETED);
    }

    requireAnswered();
    int skipped = 0;
    for (const auto& [reason, count] : read.skipped) skipped += count;
    const size_t anyType = static_cast<size_t>(std::count_if(
            read.entries.begin(), read.entries.end(), [](const ApnEntry& e) { return e.anyType; }));
    if (mGlobals.json) {
        ordered_json profiles = ordered_json::array();
        for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
            auto types = [](const std::optional<uint32_t>& mask) {
                return mask ? ordered_json(typeNames(*mask)) : ordered_json();
            };
            profiles.push_back({{"id", before[i].id},
                                {"tech", techName(before[i].tech)},
                                {"apn", before[i].apn},
                                {"typesBefore", types(before[i].types)},
                                {"typesAfter", types(after[i].types)}});
        }
        printJson(mOut, {{"carrier", carrier},
                         {"used", read.entries.size()},
                         {"skipped", read.skipped},
                         {"warnings", read.warnings.size()},
                         {"anyType", anyType},
                         {"profilesUpdated", updates},
                         {"dryRun", dryRun},
                         {"profiles", profiles}});
        return kOk;
    }
    mOut << "carrier " << carrier << ": used " << read.entries.size() << " of " << read.total
         << " entries, skipped " << skipped;
    bool first = true;
    for (const auto& [reason, count] : read.skipped) {
        mOut << (first ? " (" : ", ") << count << " " << reason;
        first = false;
    }
    mOut << (read.skipped.empty() ? "" : ")") << "; " << plural(read.warnings.size(), "warning")
         << "\n";
    if (anyType != 0) {
        mOut << anyType << (anyType == 1 ? " entry" : " entries")
             << " with the type * or none, read as every type but "
             << "ia and emergency (as Android does)\n";
    }
    mOut << "modem profiles " << (dryRun ? "that would be updated: " : "updated: ") << updates
         << "\n";
    std::vector<std::vector<std::string>> rows = {
            {"ID", "TECH", "APN", "TYPES BEFORE", "TYPES AFTER"}};
    for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
        auto names = [](const std::optional<uint32_t>& mask) {
            if (!mask) return std::string("-");
            const auto list = typeNames(*mask);
            return list.empty() ? std::string("-") : android::base::Join(list, ',');
        };
        rows.push_back({std::to_string(before[i].id), techName(before[i].tech),
                        printable(before[i].apn), names(before[i].types), names(after[i].types)});
    }
    printTable(mOut, rows);
    if (dryRun) mOut << "(a dry run: nothing was written to the modem)\n";
    return kOk;
}

int Commands::dump(const Arguments&) {
    // The library's lines carry passwords (unless it was built secret-free).
    std::vector<std::string> lines;
    for (const auto& line : manager().dump()) lines.push_back(mSession.secrets().hide(line));
    if (mGlobals.json) {
        printJson(mOut, {{"dump", lines}});
    } else {
        for (const auto& line : lines) mOut << printable(line) << "\n";
    }
    return kOk;
}

void Commands::learnSecrets(const ProfileParams& params) {
    if (params.hasPassword()) mSession.secrets().learn(params.getPassword());
}

int Commands::watch(const Arguments& args) {
    const auto countText = args.value("--count");
    const int limit = countText ? parseNumber(*countText, "--count", 1, 1 << 30) : 0;
    if (mGlobals.modemSocket.empty()) {
        throw UsageError(
                "watch needs the modem service: start kivmodemd and name its socket "
                "with --modem PATH or KIVR_MODEM");
    }
    ChangeWatcher watcher(std::chrono::milliseconds(mGlobals.timeoutMs), mSession.ledger());
    mErr << "kivctl: watching the modem at " << xalremote::socketPath() << "\n";
    mErr.flush();
    // The service going away and coming back is said, and not counted.
    for (int seen = 0; limit == 0 || seen < limit;) {
        const auto next = watcher.next();
        const auto change = watcher.describe(next);
        if (mGlobals.json) {
            printJson(mOut, change);
        } else {
            mOut << changeLine(change) << "\n";
        }
        mOut.flush();
        if (next.kind == ChangeWatcher::Change::kIndication) ++seen;
    }
    return kOk;
}

int Commands::reclaim(const Arguments& args) {
    const bool dryRun = args.has("--dry-run");
    if (!mGlobals.modemSocket.empty()) {
        // Other processes on the service may still hold what it would take.
        if (!dryRun && !args.has("--force")) {
            throw UsageError(
                    "reclaim on the modem service deletes every client's temporary profiles, "
                    "those of processes that still hold them too: --dry-run lists them, --force "
                    "deletes them");
        }
        mErr << "kivctl: warning: on the modem service this reclaims every client's temporary "
                "profiles, not only kivctl's\n";
    }
    // Handles kept in the shell are live keys: their profiles stay.
    const auto reclaimed = mSession.util().reclaimTemporaryProfiles(dryRun);
    std::vector<ProfileView> views;
    for (const auto& profile : reclaimed) {
        ProfileView view;
        view.id = profile.profileId;
        view.tech = profile.techType;
        view.params = profile.params;
        views.push_back(view);
    }
    if (mGlobals.json) {
        ordered_json list = ordered_json::array();
        for (const auto& view : views) list.push_back(profileJson(view));
        printJson(mOut, {{"reclaimed", list}, {"dryRun", dryRun}});
        return kOk;
    }
    mOut << plural(views.size(), "temporary profile") << (dryRun ? " would be deleted" : " deleted")
         << (views.empty() ? "\n" : ":\n");
    if (!views.empty()) printProfiles(mOut, views);
    return kOk;
}

void Commands::resyncLibrary() {
    if (!mSession.libraryStarted()) return;
    // The reread the modem asks for is this command's.
    const auto reading = mSession.ledger().reading();
    xalremote::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    mSession.waitForLibrary();
    mSession.settle();
}

namespace {

const std::map<std::string, unsigned int> kKinds = {
        {"create", XAL_WDS_CREATE_PROFILE_REQ_V01},
        {"modify", XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01},
        {"delete", XAL_WDS_DELETE_PROFILE_REQ_V01},
        {"list", XAL_WDS_GET_PROFILE_LIST_REQ_V01},
        {"get", XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01},
        {"bind", XAL_WDS_BIND_SUBSCRIPTION_REQ_V01},
        {"register", XAL_WDS_INDICATION_REGISTER_REQ_V01},
        {"events", XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01}};

// A request kind by its name, as "modem fail" takes it, and back.
std::string kindOf(unsigned int msgId) {
    for (const auto& [name, id] : kKinds) {
        if (id == msgId) return name;
    }
    char hex[16];
    snprintf(hex, sizeof(hex), "0x%02X", msgId);
    return hex;
}

// One fault still to come, as "modem status" says it.
std::string faultText(const nlohmann::json& fault) {
    const std::string kind = fault.value("kind", "");
    const int count = fault.value("count", 0);
    const int skip = fault.value("skip", 0);
    const std::string what = kindOf(fault.value("msgId", 0u));
    const std::string next =
            "the next " + (count == 1 ? std::string() : std::to_string(count) + " ");
    std::string text;
    if (kind == "fail") {
        text = next + what + (count == 1 ? " fails" : " fail");
    } else if (kind == "timeout") {
        text = "no answer to " + next + what;
    } else if (kind == "transport") {
        text = next + what + " lost on the way";
    } else if (kind == "service") {
        text = "finding the service fails " + std::to_string(count) + "x";
    } else if (kind == "connect") {
        text = "opening a client fails " + std::to_string(count) + "x";
    } else if (kind == "response") {
        text = "the next " + what + " gets a response of its own";
    } else {
        text = kind + " " + std::to_string(count) + "x";
    }
    if (skip > 0) text += " after " + std::to_string(skip) + " more";
    return text;
}

unsigned int messageIdOf(const std::string& kind) {
    auto it = kKinds.find(kind);
    if (it != kKinds.end()) return it->second;
    unsigned int id = 0;
    if (android::base::ParseUint(kind, &id, 0xFFFFu)) return id;
    throw UsageError("unknown request kind " + quote(kind) +
                     " (create|modify|delete|list|get|bind|register|events, a message id from 0 "
                     "to 0xFFFF, or for fail: service|connect)");
}

nlohmann::json indication(const std::vector<std::string>& words) {
    if (words.empty()) throw UsageError("modem send needs an indication (kivctl modem --help)");
    const std::string& kind = words[0];
    if (kind == "subscription-change" || kind == "profile-ready") {
        if (words.size() > 1) throw UsageError("unexpected argument " + quote(words[1]));
        return {{"op", "indicate"}, {"kind", kind}};
    }
    if (kind == "changed") {
        if (words.size() != 4)
            throw UsageError("usage: modem send changed 3gpp|3gpp2|all INDEX EVENT");
        static const std::map<std::string, int> kTypes = {{"3gpp", WDS_PROFILE_TYPE_3GPP_V01},
                                                          {"3gpp2", WDS_PROFILE_TYPE_3GPP2_V01},
                                                          {"all", WDS_PROFILE_TYPE_ALL_V01}};
        static const std::map<std::string, int> kEvents = {
                {"create", WDS_PROFILE_EVENT_CREATE_V01},
                {"delete", WDS_PROFILE_EVENT_DELETE_V01},
                {"modify", WDS_PROFILE_EVENT_MODIFY_V01},
                {"subscription-change", WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01},
                {"profile-ready", WDS_PROFILE_EVENT_PROFILE_READY_V01}};
        auto type = kTypes.find(words[1]);
        if (type == kTypes.end()) {
            throw UsageError("bad profile type " + quote(words[1]) + " (3gpp|3gpp2|all)");
        }
        auto event = kEvents.find(words[3]);
        return {{"op", "indicate"},
                {"kind", "changed"},
                {"type", type->second},
                {"index", parseNumber(words[2], "an index", 0, 255)},
                {"event", event != kEvents.end() ? event->second
                                                 : parseNumber(words[3], "an event", 0, 1000000)}};
    }
    if (kind == "raw") {
        if (words.size() != 3) throw UsageError("usage: modem send raw MESSAGE-ID HEX-BYTES");
        const std::string& hex = words[2];
        auto digit = [](char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; };
        if (hex.size() % 2 != 0 || hex.size() > 2 * 16384 ||
            !std::all_of(hex.begin(), hex.end(), digit)) {
            throw UsageError("bad bytes " + quote(hex) +
                             " (pairs of hex digits, at most 16384 bytes)");
        }
        nlohmann::json bytes = nlohmann::json::array();
        for (size_t i = 0; i < hex.size(); i += 2) {
            bytes.push_back(std::stoi(hex.substr(i, 2), nullptr, 16));
        }
        return {{"op", "indicate"},
                {"kind", "raw"},
                {"msgId", messageIdOf(words[1])},
                {"bytes", bytes}};
    }
    throw UsageError("unknown indication " + quote(kind) +
                     " (subscription-change|profile-ready|changed|raw)");
}

}  // namespace

int Commands::modem(const Arguments& args) {
    std::vector<std::string> words = args.positionals();
    const std::string action = words[0];
    words.erase(words.begin());
    auto noMore = [&](size_t most) {
        if (words.size() > most) throw UsageError("unexpected argument " + quote(words[most]));
    };
    nlohmann::json command;
    std::string done;
    // kivctl's own modem lives for one command: a fault or a service state
    // set by a command of its own would be gone before anything met it.
    const bool transient =
            action == "fail" || action == "timeout" || action == "down" || action == "up";
    if (transient && mGlobals.modemSocket.empty() && !mInShell) {
        throw UsageError("modem " + action +
                         " on kivctl's own modem lasts for one command only: use it in kivctl "
                         "shell, or on kivmodemd (--modem PATH)");
    }
    if (action == "status") {
        noMore(0);
        auto status = mSession.status();
        status.erase("ok");
        if (mGlobals.json) {
            printJson(mOut, ordered_json(status));
            return kOk;
        }
        mOut << "service:   " << (status.value("serviceUp", false) ? "up" : "down") << "\n"
             << "profiles:  " << status.value("profiles", 0) << " (room for "
             << status.value("capacity3gpp", 0) << " 3gpp, " << status.value("capacity3gpp2", 0)
             << " 3gpp2)\n"
             << "latency:   " << status.value("latencyMs", 0) << " ms per request\n"
             << "clients:   " << status.value("clients", 0) << "\n"
             << "requests:  " << status.value("requests", 0) << " ("
             << status.value("failedRequests", 0) << " failed)\n";
        const std::string error = status.value("commitError", std::string());
        if (!error.empty()) mOut << "last save: failed: " << error << "\n";
        std::string faults;
        for (const auto& fault : status.value("faults", nlohmann::json::array())) {
            faults += (faults.empty() ? "" : "; ") + faultText(fault);
        }
        mOut << "faults:    " << (faults.empty() ? "none to come" : faults) << "\n";
        return kOk;
    }
    if (action == "clear") {
        noMore(0);
        command = {{"op", "clearFaults"}};
        done = "no faults to come";
    } else if (action == "restart" || action == "reset" || action == "down" || action == "up") {
        noMore(0);
        command = {{"op", action}};
        done = action == "restart" ? "restarted" : action == "reset" ? "reset" : action;
    } else if (action == "fail" || action == "timeout") {
        noMore(2);
        if (words.empty())
            throw UsageError("modem " + action + " needs a kind (kivctl modem --help)");
        const int count = words.size() > 1 ? parseNumber(words[1], "a count", 1, 1000000) : 1;
        if (action == "fail" && (words[0] == "service" || words[0] == "connect")) {
            command = {{"op", words[0] == "service" ? "failService" : "failConnect"},
                       {"count", count}};
        } else {
            command = {{"op", action}, {"msgId", messageIdOf(words[0])}, {"count", count}};
        }
        done = (action == "fail" ? "the next " : "no answer to the next ") + std::to_string(count) +
               " " + words[0] + (action == "fail" ? " will fail" : "");
    } else if (action == "send") {
        command = indication(words);
        done = "sent " + words[0];
    } else {
        throw UsageError("unknown modem action " + quote(action) +
                         " (restart|reset|down|up|status|fail|timeout|clear|send)");
    }
    mSession.call(command);
    if (action == "restart" || action == "reset" || action == "up") resyncLibrary();
    if (action == "down" && mSession.libraryStarted()) {
        xalremote::sync(std::chrono::milliseconds(mGlobals.timeoutMs));
    }
    const auto status = mSession.status();
    const int profiles = status.value("profiles", 0);
    if (mGlobals.json) {
        printJson(mOut, {{"modem", action},
                         {"serviceUp", status.value("serviceUp", false)},
                         {"profiles", profiles}});
    } else if (action == "restart" || action == "reset") {
        mOut << "modem " << done << ": " << profiles << " profiles on the modem\n";
    } else {
        mOut << "modem: " << done << "\n";
    }
    return kOk;
}

int Commands::shell(const Arguments&) {
    Shell shell(mSession, mIn, mOut, mErr, &mIn == &std::cin && isatty(STDIN_FILENO));
    return shell.run();
}

}  // namespace kivctl
