// kivmodemd: the simulated modem as a service for many processes.

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <iostream>
#include <string>

#include "ModemServer.h"
#include "StateFile.h"

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

Prints a line with "ready" on standard output once it accepts connections,
logs to standard error, and stops on SIGTERM or SIGINT.
Exit status: 0 stopped, 1 could not start, 2 bad options or state file.
)";

void logLine(const std::string& line) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%T", &local);
    fprintf(stderr, "kivmodemd %s.%03ld: %s\n", stamp, now.tv_nsec / 1000000, line.c_str());
}

int fail(int status, const std::string& why) {
    fprintf(stderr, "kivmodemd: %s\n", why.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::string statePath, socketPath;
    kivmodemd::ModemServer::Options options;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i], value;
        if (option == "--help" || option == "-h") {
            fputs(kUsage, stdout);
            return 0;
        }
        const size_t equals = option.find('=');
        if (equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.resize(equals);
        } else if (i + 1 < argc && !android::base::StartsWith(argv[i + 1], "--")) {
            value = argv[++i];
        } else {
            return fail(kBadInput, "option " + option + " needs a value (kivmodemd --help)");
        }
        auto number = [&](int low, int high, int* out) {
            return android::base::ParseInt(value, out, low, high);
        };
        int n = 0;
        if (option == "--state") {
            statePath = value;
        } else if (option == "--socket") {
            socketPath = value;
        } else if (option == "--capacity-3gpp" && number(0, xalsim::kMaxCapacity3gpp, &n)) {
            options.config.capacity3gpp = n;
        } else if (option == "--capacity-3gpp2" && number(0, xalsim::kMaxCapacity3gpp2, &n)) {
            options.config.capacity3gpp2 = n;
        } else if (option == "--latency" && number(0, 60000, &n)) {
            options.latency = std::chrono::milliseconds(n);
        } else if (option == "--indication-delay" && number(0, 60000, &n)) {
            options.config.indicationDelay = std::chrono::milliseconds(n);
        } else if (option == "--state" || option == "--socket" || option == "--capacity-3gpp" ||
                   option == "--capacity-3gpp2" || option == "--latency" ||
                   option == "--indication-delay") {
            return fail(kBadInput, "bad value '" + value + "' for " + option +
                                           " (kivmodemd --help gives the ranges)");
        } else {
            return fail(kBadInput, "unknown option " + option + " (kivmodemd --help)");
        }
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

    kivmodemd::ModemServer server(options, logLine);
    xalsim::ModemCore& modem = server.modem();
    xalsim::Table table;
    if (state->exists()) {
        auto loaded = state->load();
        if (!loaded.ok()) return fail(kBadInput, loaded.error().message());
        table = std::move(*loaded);
    } else {
        table = xalsim::factoryTable();
    }
    // A modem that powers on keeps only what it stores persistently.
    for (auto it = table.begin(); it != table.end();) {
        it = it->second.persistent_valid && it->second.persistent ? std::next(it) : table.erase(it);
    }
    std::string why;
    if (!modem.replaceTable(table, &why)) return fail(kBadInput, state->path() + ": " + why);
    if (auto listening = server.listen(socketPath); !listening.ok()) {
        return fail(kFailed, listening.error().message());
    }
    if (auto saved = state->save(table); !saved.ok()) {
        return fail(kFailed, saved.error().message());
    }
    modem.setCommitHook([&state](const xalsim::Table& changed, std::string* error) {
        auto saved = state->save(changed);
        if (saved.ok()) return true;
        *error = saved.error().message();
        logLine("change refused: " + *error);
        return false;
    });
    printf("kivmodemd: ready on %s (state %s, %zu profiles)\n", socketPath.c_str(),
           state->path().c_str(), table.size());
    fflush(stdout);

    server.run(signals.get());
    signalfd_siginfo info{};
    if (read(signals.get(), &info, sizeof(info)) == sizeof(info)) {
        logLine(std::string("stopping on ") + strsignal(static_cast<int>(info.ssi_signo)));
    }
    return 0;
}
