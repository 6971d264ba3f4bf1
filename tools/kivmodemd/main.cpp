// kivmodemd: the simulated modem as a service for many processes.

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <iostream>
#include <string>

#include "common/Arguments.h"
#include "common/DaemonLog.h"
#include "common/Errors.h"
#include "service/ModemServer.h"
#include "sim/StateFile.h"

namespace {

constexpr int kFailed = 1;    // could not start: the state or the socket is in use, a save failed
constexpr int kBadInput = 2;  // bad options, or a state file that cannot be loaded

const char* const kUsage = R"(usage: kivmodemd --state FILE --socket PATH [options]

Serves a simulated modem with a wireless data service to any number of
processes over a Unix socket. Its profile table is kept in FILE, saved after
every change; starting the service is a modem power-on: profiles not stored
persistently are gone.

Options:
  --state FILE              the profile table (created with the factory table)
  --socket PATH             the socket clients connect to (mode 0600)
  --capacity-3gpp N         3GPP profiles the modem holds, 0 to 255 (default 24)
  --capacity-3gpp2 N        3GPP2 profiles, 0 to 155 (default 24)
  --latency MS              time the modem takes per request (default 0)
  --indication-delay MS     delay of every indication (default 0)
  --help                    this text
  --version                 the version

Prints a line with "ready" on standard output once it accepts connections,
logs to standard error, and stops on SIGTERM or SIGINT.
Exit status: 0 stopped, 1 could not start, 2 bad options or state file.
)";

void logLine(const std::string& line) {
    kivctl::logLine("kivmodemd", line);
}

int fail(int status, const std::string& why) {
    return kivctl::fail("kivmodemd", status, why);
}

}  // namespace

int main(int argc, char** argv) {
    std::string statePath, socketPath;
    xalservice::ModemServer::Options options;
    const std::vector<kivctl::KnownOption> known = {
            {"--state", "FILE", ""},      {"--socket", "PATH", ""},
            {"--capacity-3gpp", "N", ""}, {"--capacity-3gpp2", "N", ""},
            {"--latency", "MS", ""},      {"--indication-delay", "MS", ""},
            {"--help", nullptr, ""},      {"--version", nullptr, ""}};
    const auto args =
            kivctl::Arguments::read(std::vector<std::string>(argv + 1, argv + argc), known);
    if (!args.ok()) return fail(kBadInput, args.error().message() + " (kivmodemd --help)");
    if (args->has("--help")) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (args->has("--version")) {
        printf("kivmodemd %s\n", KIVMODEMD_VERSION);
        return 0;
    }
    if (!args->positionals().empty()) {
        return fail(kBadInput, "unexpected argument " + kivctl::quote(args->positionals()[0]) +
                                       " (kivmodemd --help)");
    }
    statePath = args->value("--state").value_or("");
    socketPath = args->value("--socket").value_or("");
    // Each number within its range, else bad input.
    const struct {
        const char* option;
        int low, high;
        std::function<void(int)> set;
    } kNumbers[] = {
            {"--capacity-3gpp", 0, xalsim::kMaxCapacity3gpp,
             [&](int n) { options.config.capacity3gpp = n; }},
            {"--capacity-3gpp2", 0, xalsim::kMaxCapacity3gpp2,
             [&](int n) { options.config.capacity3gpp2 = n; }},
            {"--latency", 0, 60000, [&](int n) { options.latency = std::chrono::milliseconds(n); }},
            {"--indication-delay", 0, 60000,
             [&](int n) { options.config.indicationDelay = std::chrono::milliseconds(n); }},
    };
    for (const auto& number : kNumbers) {
        const auto text = args->value(number.option);
        if (!text) continue;
        const auto value = kivctl::readNumber(*text, number.option, number.low, number.high);
        if (!value.ok()) return fail(kBadInput, value.error().message() + " (kivmodemd --help)");
        number.set(*value);
    }
    if (statePath.empty() || socketPath.empty()) {
        return fail(kBadInput, "--state FILE and --socket PATH are needed (kivmodemd --help)");
    }

    // Signals arrive as readable data on the service thread, never as handlers.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    android::base::unique_fd signals(signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (signals.get() < 0) return fail(kFailed, std::string("signalfd: ") + strerror(errno));
    // A client gone, or a file too large, is an error to report, not a death.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);

    auto state = xalsim::StateFile::open(statePath, "kivmodemd", std::chrono::milliseconds(0));
    if (!state.ok()) return fail(kFailed, state.error().message());

    xalservice::ModemServer server(options, logLine);
    xalsim::ModemCore& modem = server.modem();
    if (auto listening = server.listen(socketPath); !listening.ok()) {
        return fail(kFailed, listening.error().message());
    }
    // Saved at once: a service that cannot store what it serves does not start.
    auto powered = state->powerOn(modem, /*mustSave=*/true);
    if (!powered.ok()) {
        return fail(powered.error().code() == 0 ? kBadInput : kFailed, powered.error().message());
    }
    if (powered->factoryLeftOut > 0) {
        logLine("a new modem with room for " + std::to_string(powered->profiles) + " of the " +
                std::to_string(powered->profiles + powered->factoryLeftOut) +
                " factory profiles starts with those");
    }
    modem.setCommitHook([&state](const xalsim::Table& changed) {
        auto saved = state->save(changed);
        if (!saved.ok()) logLine("change refused: " + saved.error().message());
        return saved;
    });
    if (options.latency >= std::chrono::milliseconds(900)) {
        logLine("--latency " + std::to_string(options.latency.count()) +
                " ms: a request is answered only with a tenth of its time-out left, so the "
                "library's requests (1000 ms) go unanswered");
    }
    printf("kivmodemd: ready on %s (state %s, %zu profiles)\n", socketPath.c_str(),
           state->path().c_str(), powered->profiles);
    fflush(stdout);

    server.run(signals.get());
    signalfd_siginfo info{};
    if (read(signals.get(), &info, sizeof(info)) == sizeof(info)) {
        logLine(std::string("stopping on ") + strsignal(static_cast<int>(info.ssi_signo)));
    }
    return 0;
}
