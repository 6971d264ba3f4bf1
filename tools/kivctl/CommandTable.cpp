#include "CommandTable.h"

#include "CommandContext.h"
#include "ModemCommands.h"
#include "PolicyCommands.h"
#include "ProfileCommands.h"
#include "ProfileOptions.h"
#include "common/Errors.h"

namespace kivctl {

namespace {

const std::vector<KnownOption> kTech = {{"--tech", "3gpp|3gpp2", "the profile's technology"}};
const std::vector<KnownOption> kAllowUpdate = {
        {"--allow-update", nullptr, "existing profiles may be rewritten more freely"}};

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
            {"--modem-manager", "ID",
             "a modem of the modem manager (D-Bus), by its equipment or device\n"
             "                        identifier; without =ID the one --instance picks\n"
             "                        (default $KIVR_MODEM_MANAGER; \"any\": by instance)",
             true},
            {"--mm-bus", "ADDRESS",
             "the modem manager's bus (default $KIVR_MM_BUS, else the system bus)"},
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
            CommandRow("list", "list", "the profiles on the modem").runs(&ProfileCommands::list),
            CommandRow("show", "show PROFILE [--tech 3gpp|3gpp2]",
                       "one profile in full, and what the modem holds")
                    .details(kProfileWord)
                    .options(kTech)
                    .arguments(1, 1)
                    .runs(&ProfileCommands::show),
            CommandRow("add", "add [--temporary] [--tech 3gpp|3gpp2] [--attach] [profile options]",
                       "create a profile (persistent unless --temporary)")
                    .details("A temporary profile is deleted when its last handle goes: at the "
                             "end of the\n"
                             "command, or on drop in the shell. --attach makes the LTE attach "
                             "profile\n"
                             "(3GPP only).\n")
                    .options(optionsOf(
                            {profileOptions(),
                             kTech,
                             {{"--temporary", nullptr, "deleted when its last handle goes"},
                              {"--attach", nullptr, "the library's LTE attach profile (3GPP)"}}}))
                    .runs(&ProfileCommands::add),
            CommandRow("modify", "modify PROFILE [--tech 3gpp|3gpp2] [profile options]",
                       "change the given fields of a profile")
                    .details(kProfileWord)
                    .options(optionsOf({profileOptions(), kTech}))
                    .arguments(1, 1)
                    .runs(&ProfileCommands::modify),
            CommandRow("delete", "delete PROFILE [--tech 3gpp|3gpp2]",
                       "delete a profile from the modem")
                    .details(kProfileWord)
                    .options(kTech)
                    .arguments(1, 1)
                    .runs(&ProfileCommands::remove),
            CommandRow("find", "find [filter options]", "the profiles matching a filter")
                    .details("The profile options name values the profiles must hold; the filter "
                             "options\n"
                             "add more. In the shell every profile found is kept as a handle.\n")
                    .options(optionsOf({profileOptions(), filterOptions()}))
                    .runs(&ProfileCommands::find),
            CommandRow("attach", "attach [--allow-update] [profile options]",
                       "find or create the LTE attach profile")
                    .options(optionsOf({profileOptions(), kAllowUpdate}))
                    .runs(&PolicyCommands::attach),
            CommandRow("data-call",
                       "data-call [--tech 3gpp|3gpp2] [--allow-update] [profile options]",
                       "find or create a data-call profile (a created one is temporary)")
                    .options(optionsOf({profileOptions(), kTech, kAllowUpdate}))
                    .runs(&PolicyCommands::dataCall),
            CommandRow("emergency", "emergency [--allow-update] [profile options]",
                       "find or create the emergency profile")
                    .options(optionsOf({profileOptions(), kAllowUpdate}))
                    .runs(&PolicyCommands::emergency),
            CommandRow("apply-apns",
                       "apply-apns FILE --mcc MCC --mnc MNC [--imsi IMSI] [--gid1 HEX] [--spn "
                       "NAME]\n"
                       "                  [--iccid ICCID] [--allow-update] [--dry-run]",
                       "update modem profiles' APN types from a carrier's apns-conf.xml entries")
                    .details("The carrier's entries are those a device with the SIM uses: the "
                             "entries of the\n"
                             "SIM's MVNO when it has any (an imsi pattern, x for any digit, "
                             "against --imsi; a\n"
                             "gid as a prefix of --gid1, any case; an spn as --spn, any case; an "
                             "iccid as a\n"
                             "prefix of --iccid), else the entries without an MVNO type.\n"
                             "\n"
                             "The modem profiles are then updated by the library's APN-type "
                             "update: for each\n"
                             "APN name of the entries, the APN types of the entries of each IP "
                             "family (IP,\n"
                             "IPV6, IPV4V6; none given counts as IPV4V6) are written onto the "
                             "modem profiles\n"
                             "with that APN name and home IP type, per technology. A profile's APN "
                             "types are\n"
                             "replaced, not merged. Types meant for an IP family that has no such "
                             "profile\n"
                             "fall back onto the dual-stack profiles, and dual-stack types onto "
                             "single-stack\n"
                             "ones. With --allow-update the union of all the name's types is "
                             "written onto\n"
                             "every profile with that APN name, whatever its technology and IP "
                             "type.\n"
                             "\n"
                             "Prints, per modem profile, its APN types before and after. --dry-run "
                             "changes\n"
                             "nothing on the modem (the library rereads the table afterwards).\n")
                    .options({{"--mcc", "MCC", "the carrier's mobile country code"},
                              {"--mnc", "MNC", "the carrier's mobile network code"},
                              {"--imsi", "IMSI", "the SIM's IMSI, for imsi MVNO entries"},
                              {"--gid1", "HEX", "the SIM's group identifier, for gid MVNO entries"},
                              {"--spn", "NAME",
                               "the SIM's service provider name, for spn MVNO entries"},
                              {"--iccid", "ICCID", "the SIM's ICCID, for iccid MVNO entries"},
                              {"--allow-update", nullptr,
                               "every profile with the APN name takes every type"},
                              {"--dry-run", nullptr, "print what would change, change nothing"}})
                    .arguments(1, 1)
                    .runs(&PolicyCommands::applyApns),
            CommandRow("dump", "dump", "the library's cache and recent log")
                    .runs(&ProfileCommands::dump),
            CommandRow("reclaim", "reclaim [--dry-run] [--force]",
                       "delete the library's temporary profiles that nobody holds")
                    .details("Deletes every non-persistent profile of the library (named "
                             "kiv_profile or\n"
                             "kiv_profile_ia) that this kivctl holds no handle on: what processes "
                             "that died,\n"
                             "rereads, and refused or failed releases leave on the modem. On the "
                             "modem\n"
                             "service that includes the temporaries of every other client, live "
                             "ones too:\n"
                             "only the process that owns the library's profiles on a modem should "
                             "reclaim\n"
                             "them, and there it takes --force.\n")
                    .options({{"--dry-run", nullptr, "list them, delete nothing"},
                              {"--force", nullptr,
                               "on the modem service: delete other clients' too"}})
                    .runs(&ProfileCommands::reclaim),
            CommandRow("watch", "watch [--count N]",
                       "print the profile changes the modem service announces")
                    .details("Prints every profile change as it arrives: the profile, the event "
                             "and, after a\n"
                             "create or modify, the modem's settings; one line (or JSON object) "
                             "per change,\n"
                             "until interrupted or N changes. Says \"watching\" on standard error "
                             "once it\n"
                             "listens. Needs the modem service (--modem PATH or KIVR_MODEM).\n")
                    .options({{"--count", "N", "stop after N changes"}})
                    .withoutLibrary()
                    .runs(&ModemCommands::watch),
            CommandRow("modem", "modem ACTION",
                       "restart, reset, down, up, status; fault injection and clear")
                    .details(
                            "  restart              the modem restarts: temporary profiles are "
                            "lost, clients\n"
                            "                       reconnect and reread (faults to come stay)\n"
                            "  reset                the factory table back, no faults to come; "
                            "every client\n"
                            "                       rereads\n"
                            "  down | up            the modem's data service goes down, or comes "
                            "back\n"
                            "  status               service, capacity, latency, clients, requests\n"
                            "  fail KIND [N]        the next N requests of a kind fail (KIND: "
                            "create, modify,\n"
                            "                       delete, list, get, bind, register, events or a "
                            "message id;\n"
                            "                       service: finding the service; connect: opening "
                            "a client)\n"
                            "  timeout KIND [N]     the next N requests of a kind get no answer\n"
                            "  clear                forgets every fault still to come (status "
                            "lists them)\n"
                            "  send subscription-change | profile-ready\n"
                            "  send changed 3gpp|3gpp2|all INDEX EVENT   a profile-changed "
                            "indication\n"
                            "                       (EVENT: create, delete, modify, "
                            "subscription-change,\n"
                            "                       profile-ready or a number)\n"
                            "  send raw MESSAGE-ID HEX   any bytes as an indication\n"
                            "Faults and indications reach every client of the modem service; on "
                            "kivctl's\n"
                            "own modem they last for the command (or the shell).\n"
                            "With --modem-manager: status, and on the simulated modem manager "
                            "(kivmmd)\n"
                            "daemon-gone, daemon-back, reexport, swap-sim ICCID, state N,\n"
                            "connected ID on|off, fail METHOD [COUNT [ERROR]], delay METHOD MS "
                            "[COUNT]\n"
                            "(tools/kivmmd/README.md).\n")
                    .arguments(1, 5)
                    .withoutLibrary()
                    .runs(&ModemCommands::modem),
            CommandRow("shell", "shell", "read commands from standard input, one per line")
                    .details("Profiles returned by add, find and the policy commands are kept as "
                             "handles #1,\n"
                             "#2, ... (one per profile); handles lists them, drop #N releases one, "
                             "exit ends.\n"
                             "A handle no longer names a profile once the modem was restarted, "
                             "reset or\n"
                             "reread. Errors name their line; the exit status is the worst of the "
                             "lines'.\n")
                    .withoutLibrary()
                    .notInShell()
                    .linesAnswerAlone()
                    .runs([](CommandContext& context, const Arguments&) {
                        return context.runShell();
                    }),
            CommandRow("help", "help [COMMAND]", "this text, or a command's")
                    .arguments(0, 1)
                    .withoutLibrary(),
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

}  // namespace kivctl
