// The library on the modem service (kivmodemd), against the library on the
// in-process simulated modem, and several processes on one service.
//
//   S1  Manager::modifyProfile that reaches the modem, through the service,
//       in blocks interleaved with blocks of the same modify on the
//       in-process simulator (a kivr_bench --modify-blocks child): the
//       medians of both and their ratio; with the service's state file on
//       the disk (/tmp) and in memory (/dev/shm), which leaves out the time
//       the disk takes to store each change
//   S2  1, 2, 4 and 8 processes adding and deleting profiles through one
//       service at once: throughput and the 99th percentile of latency
//
// The service saves its table after every change, as it does for users.
//
// `kivr_service_bench --worker N` is one process of S2: on the service named
// by KIVR_MODEM it says "ready", waits for a line, makes N adds each followed
// by a delete, writes every latency (microseconds) on a line of its own, and
// on standard error how often it had to reread the table to find its profile.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "BenchSupport.h"
#include "Manager.h"
#include "diag/diag_host.h"
#include "remote/XalRemote.h"
#include "src/LogWrapper.h"
#include "tests/support/Subprocess.h"

namespace kiv {
namespace {

using test::Subprocess;
using namespace std::chrono_literals;

// A kivmodemd of the benchmark's own, on a fresh state file.
class Service {
  public:
    explicit Service(const std::string& base = "/tmp") {
        std::string dir = base + "/kivr-bench-XXXXXX";
        mDir = mkdtemp(dir.data()) ? dir : base;
        mSocket = mDir + "/modem.sock";
        mDaemon = std::make_unique<Subprocess>(
                std::vector<std::string>{KIVMODEMD_PATH, "--state", mDir + "/modem.state",
                                         "--socket", mSocket, "--capacity-3gpp", "255"},
                Subprocess::Options());
        mReady = mDaemon->waitForOutput("ready", 20s);
        xalremote::setSocketPath(mSocket);
    }
    ~Service() {
        mDaemon->kill(SIGTERM);
        mDaemon->finish(10s);
        std::filesystem::remove_all(mDir);
    }
    bool ready() const { return mReady; }
    const std::string& socket() const { return mSocket; }

  private:
    std::string mDir;
    std::string mSocket;
    std::unique_ptr<Subprocess> mDaemon;
    bool mReady = false;
};

// The library of this process on the service, its cache read.
bool startLibrary() {
    diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
    Manager::getInstance().init(0, false);
    LogWrapper::getInstance().setLogWriter(std::make_unique<DiscardWriter>());
    if (!xalremote::waitForRegisteredClients(1, 20s)) return false;
    Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    return true;
}

std::shared_ptr<IProfileKey> firstKey() {
    FilterProfileParams byId;
    byId.setFilterByProfileId(1);
    auto keys = Manager::getInstance().filter(byId);
    return keys.empty() ? nullptr : keys.front();
}

void modifyOnce(const std::shared_ptr<IProfileKey>& key, bool& flip) {
    ModifyProfileParams change;
    change.setApnName((flip = !flip) ? "one.example" : "two.example");
    benchmark::DoNotOptimize(Manager::getInstance().modifyProfile(change, key));
}

void S1_ModifyServiceVersusInProcess(benchmark::State& state) {
    Service service(state.range(0) ? "/dev/shm" : "/tmp");
    if (!service.ready() || !startLibrary()) {
        state.SkipWithError("the modem service did not come up");
        return;
    }
    auto key = firstKey();
    Subprocess inProcess({KIVR_BENCH_PATH, "--modify-blocks"}, Subprocess::Options());
    const int block = quick() ? 20 : 200;
    std::vector<double> serviceP50, serviceP99, localP50, localP99;
    bool flip = false;
    for (auto _ : state) {
        Latencies mine;
        for (int i = 0; i < block; ++i) {
            const auto start = Clock::now();
            modifyOnce(key, flip);
            mine.add(Clock::now() - start);
        }
        serviceP50.push_back(mine.percentile(0.5));
        serviceP99.push_back(mine.percentile(0.99));
        inProcess.write(std::to_string(block) + "\n");
        auto line = inProcess.readLine(60s);
        if (!line) {
            state.SkipWithError("the in-process benchmark did not answer");
            return;
        }
        std::istringstream numbers(*line);
        double p50 = 0, p99 = 0;
        numbers >> p50 >> p99;
        localP50.push_back(p50);
        localP99.push_back(p99);
    }
    inProcess.finish(10s);
    state.counters["service_p50_us"] = median(serviceP50);
    state.counters["service_p99_us"] = median(serviceP99);
    state.counters["inprocess_p50_us"] = median(localP50);
    state.counters["inprocess_p99_us"] = median(localP99);
    state.counters["ratio"] = median(serviceP50) / median(localP50);
}

void S2_ProcessesAddDelete(benchmark::State& state) {
    const int processes = static_cast<int>(state.range(0));
    const int each = (quick() ? 40 : 800) / processes;
    Service service;
    if (!service.ready()) {
        state.SkipWithError("the modem service did not come up");
        return;
    }
    Latencies all;
    double seconds = 0;
    double rereads = 0;
    for (auto _ : state) {
        Subprocess::Options options;
        options.environment = {"KIVR_MODEM=" + service.socket()};
        std::vector<std::unique_ptr<Subprocess>> workers;
        for (int i = 0; i < processes; ++i) {
            workers.push_back(std::make_unique<Subprocess>(
                    std::vector<std::string>{SELF_PATH, "--worker", std::to_string(each)},
                    options));
        }
        for (auto& worker : workers) {
            if (worker->readLine(60s) != std::optional<std::string>("ready")) {
                state.SkipWithError("a worker did not start");
                return;
            }
        }
        const auto start = Clock::now();
        for (auto& worker : workers) worker->write("go\n");
        std::vector<Subprocess::Result> results;
        for (auto& worker : workers) results.push_back(worker->finish(600s));
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
        for (const auto& result : results) {
            if (result.status != 0) {
                state.SkipWithError(("a worker failed: " + result.err).c_str());
                return;
            }
            std::istringstream lines(result.out);
            double us;
            while (lines >> us) all.us.push_back(us);
            rereads += atof(result.err.c_str());
        }
    }
    state.counters["ops_per_s"] = static_cast<double>(all.us.size()) / seconds;
    state.counters["rereads"] = rereads;
    all.report(state, "S2." + std::to_string(processes));
}

// One process of S2. When several libraries churn the same indexes, one
// may take another's echo for its own (echoes are told by their triple of
// technology, index and event) and lose sight of its own profile, whose key
// is then void: it rereads the table and deletes the profile through a key
// found afresh, as a client would.
int worker(int count) {
    if (!startLibrary()) return 1;
    std::cout << "ready" << std::endl;
    std::string go;
    if (!std::getline(std::cin, go)) return 1;
    ProfileParams params;
    params.setApnName("bench-" + std::to_string(getpid()));
    const AddProfileParams add(params, true, TechType::TECH_3GPP, false);
    FilterProfileParams mine;
    mine.setApnName(params.getApnName());
    std::vector<double> latencies;
    int rereads = 0;
    for (int i = 0; i < count; ++i) {
        auto start = Clock::now();
        auto key = Manager::getInstance().addProfile(add);
        latencies.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        if (!key) {
            std::cerr << "worker " << getpid() << ": add refused\n";
            return 1;
        }
        start = Clock::now();
        bool deleted = Manager::getInstance().deleteProfile(key);
        if (!deleted) {
            ++rereads;
            Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
            for (const auto& again : Manager::getInstance().filter(mine)) {
                deleted = Manager::getInstance().deleteProfile(again) || deleted;
            }
        }
        latencies.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        if (!deleted) {
            std::cerr << "worker " << getpid() << ": delete of profile " << key->getProfileId()
                      << " refused\n";
            return 1;
        }
    }
    for (double us : latencies) std::cout << us << "\n";
    std::cerr << rereads << "\n";
    return 0;
}

void configure() {
    const bool brief = quick();
    benchmark::RegisterBenchmark("S1_ModifyServiceVersusInProcess", S1_ModifyServiceVersusInProcess)
            ->ArgName("state_in_memory")
            ->Arg(0)
            ->Arg(1)
            ->Unit(benchmark::kMicrosecond)
            ->Iterations(brief ? 1 : 15);
    benchmark::RegisterBenchmark("S2_ProcessesAddDelete", S2_ProcessesAddDelete)
            ->Arg(1)
            ->Arg(2)
            ->Arg(4)
            ->Arg(8)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
}

}  // namespace
}  // namespace kiv

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--worker") return kiv::worker(atoi(argv[2]));
    kiv::configure();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
