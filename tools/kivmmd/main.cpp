// kivmmd: a simulated modem manager on a D-Bus bus, for tests and for
// integrators of a modem manager's profile interface.

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <string>

#include "common/Arguments.h"
#include "common/DaemonLog.h"
#include "common/Errors.h"
#include "mmsim/ModemManagerSim.h"
#include "sim/StateFile.h"

namespace {

constexpr int kFailed = 1;    // could not start: no bus, a name taken, the state in use
constexpr int kBadInput = 2;  // bad options, or a state file that cannot be loaded

const char* const kUsage = R"(usage: kivmmd [options]

Serves simulated modems as a modem manager does on D-Bus: the bus name
org.freedesktop.ModemManager1 with its object manager, modems with their
identifiers, state and SIM, the initial EPS bearer settings, and the profile
manager (List, Set, Delete, Updated). A control object on the bus name
org.kivr.ModemManagerSim makes the daemon leave and come back, re-exports a
modem, swaps its SIM, changes its state or its profiles behind the daemon's
back, and injects failures (see its README).

Options:
  --bus ADDRESS          the bus to serve on (default: the system bus, or the
                         one DBUS_SYSTEM_BUS_ADDRESS names)
  --state FILE           the first modem's profile table, saved after every
                         change (default: the factory table, kept in memory)
  --behaviour NAME       1.20 (Updated after every change, its own writes
                         included; the default), 1.24 (Updated held back
                         around its own writes and at most one per 2 s), or at
                         (a modem driven by AT commands: no Updated, a profile
                         keeps only its APN and IP type)
  --delete-clears-slot   a delete leaves the slot listed with an empty APN
  --reply-delay MS       every profile manager answer comes this late
  --modems N             modems to serve, 1 to 8 (default 1)
  --capacity N           profiles each modem holds, 1 to 255 (default 24)
  --help                 this text
  --version              the version

Prints a line with "ready" on standard output once it serves, logs to
standard error, and stops on SIGTERM or SIGINT.
Exit status: 0 stopped, 1 could not start, 2 bad options or state file.
)";

void logLine(const std::string& line) {
    kivctl::logLine("kivmmd", line);
}

int fail(int status, const std::string& why) {
    return kivctl::fail("kivmmd", status, why);
}

std::optional<mmsim::Behaviour> behaviourNamed(const std::string& name) {
    if (name == "1.20") return mmsim::Behaviour::kV120;
    if (name == "1.24") return mmsim::Behaviour::kV124;
    if (name == "at") return mmsim::Behaviour::kAtModem;
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<kivctl::KnownOption> known = {
            {"--bus", "ADDRESS", ""},    {"--state", "FILE", ""},
            {"--behaviour", "NAME", ""}, {"--delete-clears-slot", nullptr, ""},
            {"--reply-delay", "MS", ""}, {"--modems", "N", ""},
            {"--capacity", "N", ""},     {"--help", nullptr, ""},
            {"--version", nullptr, ""}};
    const auto args =
            kivctl::Arguments::read(std::vector<std::string>(argv + 1, argv + argc), known);
    if (!args.ok()) return fail(kBadInput, args.error().message() + " (kivmmd --help)");
    if (args->has("--help")) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (args->has("--version")) {
        printf("kivmmd %s\n", KIVMMD_VERSION);
        return 0;
    }
    if (!args->positionals().empty()) {
        return fail(kBadInput, "unexpected argument " + kivctl::quote(args->positionals()[0]) +
                                       " (kivmmd --help)");
    }
    mmsim::Options options;
    if (auto name = args->value("--behaviour")) {
        auto behaviour = behaviourNamed(*name);
        if (!behaviour) {
            return fail(kBadInput, "--behaviour takes 1.20, 1.24 or at, not " +
                                           kivctl::quote(*name) + " (kivmmd --help)");
        }
        options.behaviour = *behaviour;
    }
    options.deleteClearsSlot = args->has("--delete-clears-slot");
    const struct {
        const char* option;
        int low, high;
        std::function<void(int)> set;
    } kNumbers[] = {
            {"--reply-delay", 0, 60000,
             [&](int n) { options.replyDelay = std::chrono::milliseconds(n); }},
            {"--modems", 1, 8, [&](int n) { options.modems = n; }},
            {"--capacity", 1, xalsim::kMaxCapacity3gpp,
             [&](int n) { options.config.capacity3gpp = n; }},
    };
    for (const auto& number : kNumbers) {
        const auto text = args->value(number.option);
        if (!text) continue;
        const auto value = kivctl::readNumber(*text, number.option, number.low, number.high);
        if (!value.ok()) return fail(kBadInput, value.error().message() + " (kivmmd --help)");
        number.set(*value);
    }

    // Signals arrive in the event loop, never as handlers.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);

    mmsim::ModemManagerSim sim(options, logLine);
    xalsim::ModemCore& modem = sim.modem(0);
    std::optional<xalsim::StateFile> state;
    if (auto path = args->value("--state")) {
        auto opened = xalsim::StateFile::open(*path, "kivmmd", std::chrono::milliseconds(0));
        if (!opened.ok()) return fail(kFailed, opened.error().message());
        state.emplace(std::move(*opened));
        auto powered = state->powerOn(modem, /*mustSave=*/true);
        if (!powered.ok()) {
            return fail(powered.error().code() == 0 ? kBadInput : kFailed,
                        powered.error().message());
        }
        modem.setCommitHook([&state](const xalsim::Table& changed) {
            auto saved = state->save(changed);
            if (!saved.ok()) logLine("change refused: " + saved.error().message());
            return saved;
        });
    }
    for (int n = state ? 1 : 0; n < options.modems; ++n) {
        auto loaded =
                sim.modem(static_cast<size_t>(n))
                        .replaceTable(
                                sim.modem(static_cast<size_t>(n)).fitting(xalsim::factoryTable()));
        if (!loaded.ok()) return fail(kFailed, loaded.error().message());
    }
    const std::string bus = args->value("--bus").value_or("");
    if (auto started = sim.start(bus); !started.ok()) {
        return fail(kFailed, started.error().message());
    }
    printf("kivmmd: ready on %s (%d modem%s%s)\n", bus.empty() ? "the system bus" : bus.c_str(),
           options.modems, options.modems == 1 ? "" : "s",
           state ? (", state " + state->path()).c_str() : "");
    fflush(stdout);
    const int r = sim.run();
    if (r < 0) return fail(kFailed, std::string("event loop: ") + strerror(-r));
    logLine("stopping");
    return 0;
}
