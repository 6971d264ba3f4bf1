// The library's costs against the simulated modem with no added latency.
//
//   B0  raw hand-off: a caller writing an eventfd and waiting on a condition
//       variable, a worker in epoll_wait answering under the same mutex
//   B1  Manager::getProfile of a cached profile, log sink discarding; and its
//       ratio to B0 in interleaved blocks, all threads on one core (pinned)
//       and callers and workers on two (spread)
//   B2  the same with the Android log sink (to /dev/null)
//   B3  1, 2, 4, 8 client threads at once
//   B4  refresh of 24 and 255 profiles
//   B5  filter over 255 cached profiles by APN name and home IP, subset
//   B6  heap bytes per cached profile
//   B7  the largest carrier of apns-conf.xml through the APN-type update
//   B8  Manager::modifyProfile that reaches the modem, in process
//
// KIVR_BENCH_QUICK=1 runs every measurement once, briefly (CI).
//
// `kivr_bench --modify-blocks` serves the modem service's benchmark instead:
// for every number N read from standard input it makes N modifies (as B8)
// and answers with the block's median and 99th percentile in microseconds.

#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <sched.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "Manager.h"
#include "Util.h"
#include "base/EventFd.h"
#include "base/Mutex.h"
#include "diag/diag_host.h"
#include "kivctl/ApnsConf.h"
#include "sim/SimModem.h"
#include "src/AdbWriter.h"
#include "src/LocalLogBuffer.h"
#include "src/LogWrapper.h"

// --- Counting allocator (B6) -------------------------------------------------

namespace {
std::atomic<long long> sLiveBytes{0};
}  // namespace

void* operator new(size_t size) {
    void* p = malloc(size);
    if (p == nullptr) throw std::bad_alloc();
    sLiveBytes += static_cast<long long>(malloc_usable_size(p));
    return p;
}
void operator delete(void* p) noexcept {
    if (p == nullptr) return;
    sLiveBytes -= static_cast<long long>(malloc_usable_size(p));
    free(p);
}
void operator delete(void* p, size_t) noexcept {
    operator delete(p);
}

namespace kiv {
namespace {

using xalsim::SimModem;

// Takes every line and drops it: the cost of formatting all of them.
class DropWriter : public LogWriter {
  public:
    void write(LogLevel, std::string, std::string) override {}
    int convertPrio(LogLevel) override { return 0; }
};

// Counts the Manager calls by their entry lines.
class CountingWriter : public LogWriter {
  public:
    void write(LogLevel, std::string, std::string message) override {
        if (message.rfind("Manager::", 0) == 0 && message.find(" > ") != std::string::npos) {
            ++managerCalls;
        }
    }
    int convertPrio(LogLevel) override { return 0; }
    static inline std::atomic<long> managerCalls{0};
};

SimModem& sim() {
    return SimModem::instance();
}

void seedProfiles(int count) {
    for (int i = 0; i < count; ++i) {
        const std::string name = "apn-" + std::to_string(i) + ".example";
        sim().seedProfile(
                WDS_PROFILE_TYPE_3GPP_V01,
                xalsim::make3gppSettings(
                        name, name, i % 2 ? WDS_PDP_TYPE_PDP_IPV4_V01 : WDS_PDP_TYPE_PDP_IPV4V6_V01,
                        0x1, true));
    }
}

// A fresh modem with `profiles` 3GPP profiles, the library connected and
// its cache read, logging to the given sink.
void startLibrary(int profiles, std::unique_ptr<LogWriter> sink) {
    xalsim::Config config;
    config.capacity3gpp = 255;
    sim().reset(config);
    seedProfiles(profiles);
    diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
    Manager::getInstance().init(0, false);
    LogWrapper::getInstance().setLogWriter(std::move(sink));
    // The previous pipeline's client was released by init: an open client
    // registered for profile events is the new one.
    sim().waitUntil([] {
        for (const auto& client : sim().clients()) {
            if (!client.notifier && !client.released && client.profileEvents) return true;
        }
        return false;
    });
    Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    sim().clearRecordedRequests();
}

std::shared_ptr<IProfileKey> firstKey() {
    FilterProfileParams byId;
    byId.setFilterByProfileId(1);
    auto keys = Manager::getInstance().filter(byId);
    return keys.empty() ? nullptr : keys.front();
}

// --- B0: the raw hand-off ------------------------------------------------------

class RawHandoff {
  public:
    RawHandoff() : mEpoll(epoll_create1(EPOLL_CLOEXEC)) {
        for (const EventFd* fd : {&mFd, &mStop}) {
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.fd = fd->get();
            epoll_ctl(mEpoll.get(), EPOLL_CTL_ADD, fd->get(), &event);
        }
        mWorker = std::thread([this] { serve(); });
    }
    ~RawHandoff() {
        mStop.signal();
        mWorker.join();
    }
    int call(int value) {
        MutexLock lock(mLock);
        mFd.signal();
        mRequest = value;
        lock.wait(mCondition, [this]() REQUIRES(mLock) { return mResponse != 0; });
        const int response = mResponse;
        mResponse = 0;
        return response;
    }

  private:
    void serve() {
        epoll_event events[4];
        for (;;) {
            const int n = epoll_wait(mEpoll.get(), events, 4, -1);
            for (int i = 0; i < n; ++i) {
                if (events[i].data.fd == mStop.get()) return;
                mFd.drain();
                MutexLock lock(mLock);
                if (mRequest != 0) {
                    mResponse = mRequest + 1;
                    mRequest = 0;
                }
                mCondition.notify_all();
            }
        }
    }

    android::base::unique_fd mEpoll;
    EventFd mFd, mStop;
    Mutex mLock;
    std::condition_variable mCondition;
    int mRequest GUARDED_BY(mLock) = 0;
    int mResponse GUARDED_BY(mLock) = 0;
    std::thread mWorker;
};

void B0_RawHandoff(benchmark::State& state) {
    RawHandoff handoff;
    Latencies latencies;
    for (auto _ : state) {
        const auto start = Clock::now();
        benchmark::DoNotOptimize(handoff.call(1));
        latencies.add(Clock::now() - start);
    }
    latencies.report(state, "B0");
}

// --- B1, B2: one round trip -----------------------------------------------------

void roundTrips(benchmark::State& state, const std::string& name, std::unique_ptr<LogWriter> sink) {
    startLibrary(24, std::move(sink));
    auto key = firstKey();
    Latencies latencies;
    for (auto _ : state) {
        const auto start = Clock::now();
        benchmark::DoNotOptimize(Manager::getInstance().getProfile(key));
        latencies.add(Clock::now() - start);
    }
    latencies.report(state, name);
    LogWrapper::getInstance().setLogWriter(std::make_unique<DiscardWriter>());
}

void B1_GetProfile(benchmark::State& state) {
    roundTrips(state, "B1", std::make_unique<DiscardWriter>());
}

// Where the threads of a measurement run: all on one core, or the caller
// on one and every thread it starts (the workers) on another.
enum Placement { kPinned = 0, kSpread = 1 };

bool runOn(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0;
}

// B1 and the raw hand-off in alternating blocks, so that both see the same
// machine: the median of the blocks' ratios is the library's own cost.
void B1_VersusRawHandoff(benchmark::State& state) {
    const auto placement = static_cast<Placement>(state.range(0));
    cpu_set_t original;
    sched_getaffinity(0, sizeof(original), &original);
    if (!runOn(placement == kPinned ? 0 : 1)) {
        state.SkipWithError("this machine has one core");
        return;
    }
    startLibrary(24, std::make_unique<DiscardWriter>());
    auto key = firstKey();
    RawHandoff handoff;
    runOn(0);  // the workers stay where they were started
    Latencies raw, library;
    std::vector<double> ratios;
    const int block = 200;
    for (auto _ : state) {
        Latencies rawBlock, libraryBlock;
        for (int i = 0; i < block; ++i) {
            auto start = Clock::now();
            benchmark::DoNotOptimize(handoff.call(1));
            rawBlock.add(Clock::now() - start);
        }
        for (int i = 0; i < block; ++i) {
            auto start = Clock::now();
            benchmark::DoNotOptimize(Manager::getInstance().getProfile(key));
            libraryBlock.add(Clock::now() - start);
        }
        ratios.push_back(libraryBlock.percentile(0.5) / rawBlock.percentile(0.5));
        raw.us.insert(raw.us.end(), rawBlock.us.begin(), rawBlock.us.end());
        library.us.insert(library.us.end(), libraryBlock.us.begin(), libraryBlock.us.end());
    }
    sched_setaffinity(0, sizeof(original), &original);
    std::sort(ratios.begin(), ratios.end());
    const double ratio = ratios[ratios.size() / 2];
    state.counters["raw_p50_us"] = raw.percentile(0.5);
    state.counters["lib_p50_us"] = library.percentile(0.5);
    state.counters["ratio"] = ratio;
    sResults[placement == kPinned ? "B1.ratio.pinned" : "B1.ratio.spread"] = ratio;
}

void B1_GetProfileFormattingAll(benchmark::State& state) {
    roundTrips(state, "B1all", std::make_unique<DropWriter>());
}

void B2_GetProfileAndroidLog(benchmark::State& state) {
    // The host's Android log writes to standard error: send it to /dev/null.
    fflush(stderr);
    const android::base::unique_fd saved(dup(STDERR_FILENO));
    dup2(android::base::unique_fd(open("/dev/null", O_WRONLY | O_CLOEXEC)).get(), STDERR_FILENO);
    roundTrips(state, "B2", std::make_unique<AdbWriter>());
    fflush(stderr);
    dup2(saved.get(), STDERR_FILENO);
}

// --- B3: concurrent clients ---------------------------------------------------

void B3_ConcurrentClients(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    const int perThread = (quick() ? 200 : 8000) / threads;
    startLibrary(24, std::make_unique<DiscardWriter>());
    auto key = firstKey();
    Latencies all;
    double seconds = 0;
    for (auto _ : state) {
        std::vector<Latencies> each(static_cast<size_t>(threads));
        std::vector<std::thread> clients;
        const auto start = Clock::now();
        for (int t = 0; t < threads; ++t) {
            clients.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    const auto begin = Clock::now();
                    benchmark::DoNotOptimize(Manager::getInstance().getProfile(key));
                    each[static_cast<size_t>(t)].add(Clock::now() - begin);
                }
            });
        }
        for (auto& client : clients) client.join();
        seconds += std::chrono::duration<double>(Clock::now() - start).count();
        for (auto& latencies : each) {
            all.us.insert(all.us.end(), latencies.us.begin(), latencies.us.end());
        }
    }
    const double throughput = static_cast<double>(all.us.size()) / seconds;
    state.counters["ops_per_s"] = throughput;
    const std::string name = "B3." + std::to_string(threads);
    sResults[name + ".throughput"] = throughput;
    all.report(state, name);
}

// --- B4: refresh -------------------------------------------------------------------

void B4_Refresh(benchmark::State& state) {
    const int profiles = static_cast<int>(state.range(0));
    startLibrary(profiles, std::make_unique<DiscardWriter>());
    uint64_t requests = 0;
    long refreshes = 0;
    Latencies latencies;
    for (auto _ : state) {
        const uint64_t before = sim().counters().requests;
        const auto start = Clock::now();
        Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
        latencies.add(Clock::now() - start);
        requests += sim().counters().requests - before;
        ++refreshes;
        state.PauseTiming();
        sim().clearRecordedRequests();
        LocalLogBuffer::getInstance().flush();
        state.ResumeTiming();
    }
    state.counters["modem_requests"] =
            static_cast<double>(requests) / static_cast<double>(refreshes);
    state.counters["us_per_profile"] = latencies.percentile(0.5) / profiles;
    sResults["B4." + std::to_string(profiles) + ".requests"] =
            static_cast<double>(requests) / static_cast<double>(refreshes);
}

// --- B5: filter ----------------------------------------------------------------------

void B5_Filter(benchmark::State& state) {
    startLibrary(255, std::make_unique<DiscardWriter>());
    FilterProfileParams filter;
    filter.setApnName("APN-17.");
    filter.setHomeIPType(IPType::V4);
    filter.addFilterMatchCriteria(ApnNameSubset | HomeIPSubset | HomeIPSuperset);
    Latencies latencies;
    size_t matched = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        auto keys = Manager::getInstance().filter(filter);
        latencies.add(Clock::now() - start);
        matched = keys.size();
        keys.clear();  // their releases are not part of the filter
    }
    state.counters["matched"] = static_cast<double>(matched);
    latencies.report(state, "B5");
}

// --- B6: heap per cached profile -------------------------------------------------------

long long settledLiveBytes() {
    sim().clearRecordedRequests();
    LocalLogBuffer::getInstance().flush();
    return sLiveBytes.load();
}

void B6_HeapPerProfile(benchmark::State& state) {
    const int profiles = 255;
    double perProfile = 0;
    for (auto _ : state) {
        startLibrary(0, std::make_unique<DiscardWriter>());
        seedProfiles(profiles);
        const long long before = settledLiveBytes();
        Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
        const long long after = settledLiveBytes();
        perProfile = static_cast<double>(after - before) / profiles;
    }
    state.counters["bytes_per_profile"] = perProfile;
    sResults["B6.bytes"] = perProfile;
}

// --- B7: a real carrier ------------------------------------------------------------------

void B7_LargestCarrier(benchmark::State& state) {
    const std::string path = KIVR_SOURCE_DIR "/../shared/data/apns-conf.xml";
    if (!std::ifstream(path)) {
        state.SkipWithError("apns-conf.xml not present");
        return;
    }
    const auto all = kivctl::ApnsConf::read(path, std::nullopt);
    std::map<std::string, std::list<ProfileParams>> carriers;
    for (const auto& entry : all.entries) {
        carriers[entry.mcc + "/" + entry.mnc].push_back(entry.params);
    }
    auto largest = std::max_element(carriers.begin(), carriers.end(), [](auto& a, auto& b) {
        return a.second.size() < b.second.size();
    });
    startLibrary(0, std::make_unique<CountingWriter>());
    // One modem profile per APN name of the carrier, so that every update lands.
    std::map<std::string, bool> names;
    for (const auto& params : largest->second) names[params.getApnName()] = true;
    for (const auto& [name, unused] : names) {
        sim().seedProfile(
                WDS_PROFILE_TYPE_3GPP_V01,
                xalsim::make3gppSettings(name, name, WDS_PDP_TYPE_PDP_IPV4V6_V01, 0, true));
    }
    Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    Util util;
    // The first application changes the modem; later ones find it in line.
    long calls = -1;
    uint64_t requests = 0;
    for (auto _ : state) {
        CountingWriter::managerCalls = 0;
        const uint64_t before = sim().counters().requests;
        util.updateAPNTypeBitmaskOnModemProfile(largest->second);
        if (calls < 0) {
            calls = CountingWriter::managerCalls;
            requests = sim().counters().requests - before;
        }
        state.PauseTiming();
        sim().clearRecordedRequests();
        LocalLogBuffer::getInstance().flush();
        state.ResumeTiming();
    }
    state.SetLabel(largest->first + ", " + std::to_string(largest->second.size()) + " entries");
    state.counters["manager_calls"] = static_cast<double>(calls);
    state.counters["modem_requests"] = static_cast<double>(requests);
}

// --- B8: a modify that reaches the modem ---------------------------------------------

// One modify that changes the profile, so that it always goes to the modem.
void modifyOnce(const std::shared_ptr<IProfileKey>& key, bool& flip) {
    ModifyProfileParams change;
    change.setApnName((flip = !flip) ? "one.example" : "two.example");
    benchmark::DoNotOptimize(Manager::getInstance().modifyProfile(change, key));
}

void B8_ModifyRoundTrip(benchmark::State& state) {
    startLibrary(24, std::make_unique<DiscardWriter>());
    auto key = firstKey();
    bool flip = false;
    Latencies latencies;
    for (auto _ : state) {
        const auto start = Clock::now();
        modifyOnce(key, flip);
        latencies.add(Clock::now() - start);
        state.PauseTiming();
        sim().clearRecordedRequests();
        LocalLogBuffer::getInstance().flush();
        state.ResumeTiming();
    }
    latencies.report(state, "B8");
}

// --- B9: reclaim over a full table -------------------------------------------------

// A full 3GPP table (255 profiles), every other one a library temporary that
// nobody holds; the reclaim deletes them (or, in a dry run, lists them).
void B9_Reclaim(benchmark::State& state) {
    const bool dryRun = state.range(0) != 0;
    startLibrary(0, std::make_unique<DiscardWriter>());
    Util util;
    size_t reclaimed = 0;
    uint64_t requests = 0;
    Latencies latencies;
    for (auto _ : state) {
        state.PauseTiming();
        sim().clearProfiles();
        for (int i = 0; i < 255; ++i) {
            const std::string apn = "apn-" + std::to_string(i) + ".example";
            const bool temporary = i % 2 == 0;
            sim().seedProfile(
                    WDS_PROFILE_TYPE_3GPP_V01,
                    xalsim::make3gppSettings(temporary ? "kiv_profile" : apn, apn,
                                             WDS_PDP_TYPE_PDP_IPV4V6_V01, 0x1, !temporary));
        }
        Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
        const uint64_t before = sim().counters().requests;
        state.ResumeTiming();
        const auto start = Clock::now();
        reclaimed = util.reclaimTemporaryProfiles(dryRun).size();
        latencies.add(Clock::now() - start);
        state.PauseTiming();
        requests = sim().counters().requests - before;
        sim().waitForCallbacks();
        Manager::getInstance().match(FilterProfileParams(), nullptr);  // the echoes, handled
        sim().clearRecordedRequests();
        LocalLogBuffer::getInstance().flush();
        state.ResumeTiming();
    }
    state.counters["reclaimed"] = static_cast<double>(reclaimed);
    state.counters["modem_requests"] = static_cast<double>(requests);
    state.counters["us_per_profile"] = latencies.percentile(0.5) / 255;
    latencies.report(state, dryRun ? "B9.dry" : "B9");
}

// Blocks of modifies on request, for the modem service's benchmark to
// interleave with its own: one line "P50 P99" (microseconds) per block.
int serveModifyBlocks() {
    startLibrary(24, std::make_unique<DiscardWriter>());
    auto key = firstKey();
    bool flip = false;
    int count;
    while (std::cin >> count && count > 0) {
        Latencies block;
        for (int i = 0; i < count; ++i) {
            const auto start = Clock::now();
            modifyOnce(key, flip);
            block.add(Clock::now() - start);
        }
        sim().clearRecordedRequests();
        LocalLogBuffer::getInstance().flush();
        std::cout << block.percentile(0.5) << " " << block.percentile(0.99) << std::endl;
    }
    return 0;
}

void configure() {
    const bool brief = quick();
    auto latency = [brief](benchmark::internal::Benchmark* b) {
        b->Unit(benchmark::kMicrosecond);
        if (brief) b->Iterations(1);
    };
    latency(benchmark::RegisterBenchmark("B0_RawHandoff", B0_RawHandoff)
                    ->Iterations(brief ? 1 : 20000));
    latency(benchmark::RegisterBenchmark("B1_GetProfile", B1_GetProfile)
                    ->Iterations(brief ? 1 : 20000));
    latency(benchmark::RegisterBenchmark("B1_VersusRawHandoff", B1_VersusRawHandoff)
                    ->ArgName("spread")
                    ->Arg(kPinned)
                    ->Arg(kSpread)
                    ->Iterations(brief ? 1 : 25));
    latency(benchmark::RegisterBenchmark("B1_GetProfileFormattingAll", B1_GetProfileFormattingAll)
                    ->Iterations(brief ? 1 : 20000));
    latency(benchmark::RegisterBenchmark("B2_GetProfileAndroidLog", B2_GetProfileAndroidLog)
                    ->Iterations(brief ? 1 : 20000));
    latency(benchmark::RegisterBenchmark("B3_ConcurrentClients", B3_ConcurrentClients)
                    ->Arg(1)
                    ->Arg(2)
                    ->Arg(4)
                    ->Arg(8)
                    ->Iterations(1)
                    ->UseRealTime());
    latency(benchmark::RegisterBenchmark("B4_Refresh", B4_Refresh)
                    ->Arg(24)
                    ->Arg(255)
                    ->Iterations(brief ? 1 : 50));
    latency(benchmark::RegisterBenchmark("B5_Filter", B5_Filter)->Iterations(brief ? 1 : 2000));
    latency(benchmark::RegisterBenchmark("B6_HeapPerProfile", B6_HeapPerProfile)->Iterations(1));
    latency(benchmark::RegisterBenchmark("B7_LargestCarrier", B7_LargestCarrier)
                    ->Iterations(brief ? 1 : 20));
    latency(benchmark::RegisterBenchmark("B8_ModifyRoundTrip", B8_ModifyRoundTrip)
                    ->Iterations(brief ? 1 : 5000));
    latency(benchmark::RegisterBenchmark("B9_Reclaim", B9_Reclaim)
                    ->ArgName("dryRun")
                    ->Arg(0)
                    ->Arg(1)
                    ->Iterations(brief ? 1 : 50));
}

void printTargets() {
    auto get = [](const std::string& key) {
        auto it = sResults.find(key);
        return it == sResults.end() ? 0.0 : it->second;
    };
    auto line = [](const char* what, double value, const char* target, bool met) {
        printf("  %-46s %10.2f   %-12s %s\n", what, value, target, met ? "met" : "MISSED");
    };
    printf("\nTargets (ratios from this run):\n");
    const double b1 = get("B1.p50"), b0 = get("B0.p50");
    if (b0 > 0)
        line("B1 p50 / raw hand-off p50 (separate runs)", b1 / b0, "<= 1.3", b1 / b0 <= 1.3);
    for (const char* placement : {"pinned", "spread"}) {
        const double interleaved = get(std::string("B1.ratio.") + placement);
        const std::string what = std::string("B1 / raw hand-off, interleaved, ") + placement;
        if (interleaved > 0) line(what.c_str(), interleaved, "<= 1.3", interleaved <= 1.3);
    }
    const double t1 = get("B3.1.throughput"), t4 = get("B3.4.throughput");
    if (t1 > 0) line("B3 4-thread / 1-thread throughput", t4 / t1, ">= 0.8", t4 / t1 >= 0.8);
    const double p50 = get("B3.4.p50"), max = get("B3.4.max");
    if (p50 > 0) line("B3 4-thread max / p50 latency", max / p50, "<= 100", max / p50 <= 100);
    const double b5 = get("B5.p50");
    if (b1 > 0) line("B5 p50 / B1 p50", b5 / b1, "<= 3", b5 / b1 <= 3);
    line("B6 heap bytes per cached profile", get("B6.bytes"), "<= 1024", get("B6.bytes") <= 1024);
    printf("  %-46s %10.0f   %-12s %s\n", "B4 modem requests, 24 profiles", get("B4.24.requests"),
           "= 26", get("B4.24.requests") == 26 ? "met" : "MISSED");
    printf("  %-46s %10.0f   %-12s %s\n", "B4 modem requests, 255 profiles", get("B4.255.requests"),
           "= 257", get("B4.255.requests") == 257 ? "met" : "MISSED");
}

}  // namespace
}  // namespace kiv

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--modify-blocks") return kiv::serveModifyBlocks();
    kiv::configure();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    kiv::printTargets();
    benchmark::Shutdown();
    return 0;
}
