// The library on a simulated modem manager (kivmmd on a private bus)
// through libxalmm, against what any D-Bus client pays for the same call.
//
//   M1  Manager::modifyProfile that reaches the modem through libxalmm,
//       against the same write as one profile manager Set made with sd-bus
//       from this process (the floor of a D-Bus round trip) and with busctl
//       (a process per call, as a script makes it)
//   M2  Manager::refresh of a full table (255 profiles)
//
// The daemon keeps its table in memory: what is measured is the bus and the
// client, not a disk.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <fstream>

#include "BenchSupport.h"
#include "Manager.h"
#include "diag/diag_host.h"
#include "mmclient/XalMm.h"
#include "src/LogWrapper.h"
#include "tests/support/Subprocess.h"

namespace kiv {
namespace {

using test::Subprocess;
using namespace std::chrono_literals;

constexpr const char* kProfileManager =
        "org.freedesktop.ModemManager1.Modem.Modem3gpp.ProfileManager";

// A bus and a kivmmd of the benchmark's own.
class ModemManager {
  public:
    explicit ModemManager(const std::vector<std::string>& options) {
        std::string dir = "/tmp/kivr-mm-bench-XXXXXX";
        mDir = mkdtemp(dir.data()) ? dir : "/tmp";
        std::ofstream(mDir + "/bus.conf")
                << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
                   "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
                   "<busconfig><type>session</type><listen>unix:dir="
                << mDir
                << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                   "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                   "<allow own=\"*\"/></policy></busconfig>\n";
        mBus = std::make_unique<Subprocess>(
                std::vector<std::string>{"dbus-daemon", "--config-file=" + mDir + "/bus.conf",
                                         "--nofork", "--print-address=1"},
                Subprocess::Options());
        auto address = mBus->readLine(20s);
        if (!address) return;
        mAddress = *address;
        std::vector<std::string> argv = {KIVMMD_PATH, "--bus", mAddress};
        argv.insert(argv.end(), options.begin(), options.end());
        mDaemon = std::make_unique<Subprocess>(argv, Subprocess::Options());
        mReady = mDaemon->waitForOutput("ready", 20s);
        xalmm::setBusAddress(mAddress);
        xalmm::setStateFolder(mDir + "/records");
    }
    ~ModemManager() {
        if (mDaemon) mDaemon->kill(SIGTERM);
        mDaemon.reset();
        mBus.reset();
        std::filesystem::remove_all(mDir);
    }
    bool ready() const { return mReady; }
    const std::string& address() const { return mAddress; }

  private:
    std::string mDir;
    std::string mAddress;
    std::unique_ptr<Subprocess> mBus;
    std::unique_ptr<Subprocess> mDaemon;
    bool mReady = false;
};

bool startLibrary() {
    diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
    xalmm::setLogSink([](int, const std::string&) {});
    Manager::getInstance().init(0, false);
    LogWrapper::getInstance().setLogWriter(std::make_unique<DiscardWriter>());
    if (!xalmm::waitForRegisteredClients(1, 20s)) return false;
    Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    return true;
}

std::shared_ptr<IProfileKey> firstKey() {
    FilterProfileParams byId;
    byId.setFilterByProfileId(1);
    auto keys = Manager::getInstance().filter(byId);
    return keys.empty() ? nullptr : keys.front();
}

// One Set of profile 1's APN, as a D-Bus client of its own makes it.
bool setApn(sd_bus* bus, const std::string& path, const char* apn) {
    sd_bus_message* m = nullptr;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_call(bus, &m, "org.freedesktop.ModemManager1", path.c_str(),
                                           kProfileManager, "Set");
    if (r >= 0) {
        r = sd_bus_message_append(m, "a{sv}", 4, "profile-id", "i", 1, "apn", "s", apn, "ip-type",
                                  "u", 4u, "apn-type", "u", 2u);
    }
    if (r >= 0) r = sd_bus_call(bus, m, 0, nullptr, &reply);
    sd_bus_message_unref(m);
    sd_bus_message_unref(reply);
    return r >= 0;
}

void M1_ModifyThroughTheModemManager(benchmark::State& state) {
    ModemManager manager({});
    if (!manager.ready() || !startLibrary()) {
        state.SkipWithError("the simulated modem manager did not come up");
        return;
    }
    auto key = firstKey();
    const auto modem = xalmm::currentModem();
    sd_bus* bus = nullptr;
    if (!key || !modem || sd_bus_new(&bus) < 0 ||
        sd_bus_set_address(bus, manager.address().c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        sd_bus_flush_close_unref(bus);
        state.SkipWithError("no modem to write to");
        return;
    }
    const int count = quick() ? 10 : 300;
    Latencies library, floor, busctl;
    bool flip = false;
    for (auto _ : state) {
        for (int i = 0; i < count; ++i) {
            ModifyProfileParams change;
            change.setApnName((flip = !flip) ? "one.example" : "two.example");
            auto start = Clock::now();
            benchmark::DoNotOptimize(Manager::getInstance().modifyProfile(change, key));
            library.add(Clock::now() - start);

            start = Clock::now();
            benchmark::DoNotOptimize(setApn(bus, modem->path, flip ? "three.example" : "internet"));
            floor.add(Clock::now() - start);
        }
        for (int i = 0; i < count / 10 + 1; ++i) {
            const auto start = Clock::now();
            Subprocess::run({"busctl", "--address=" + manager.address(), "call",
                             "org.freedesktop.ModemManager1", modem->path, kProfileManager, "Set",
                             "a{sv}", "2", "profile-id", "i", "1", "apn", "s",
                             i % 2 ? "four.example" : "internet"});
            busctl.add(Clock::now() - start);
        }
    }
    sd_bus_flush_close_unref(bus);
    state.counters["library_p50_us"] = library.percentile(0.5);
    state.counters["library_p99_us"] = library.percentile(0.99);
    state.counters["sdbus_p50_us"] = floor.percentile(0.5);
    state.counters["sdbus_p99_us"] = floor.percentile(0.99);
    state.counters["busctl_p50_us"] = busctl.percentile(0.5);
    state.counters["ratio_to_sdbus"] = library.percentile(0.5) / floor.percentile(0.5);
}

void M2_RefreshFullTable(benchmark::State& state) {
    ModemManager manager({"--capacity", "255"});
    if (!manager.ready() || !startLibrary()) {
        state.SkipWithError("the simulated modem manager did not come up");
        return;
    }
    // The table filled through the library: 252 more beside the factory's.
    for (int i = 0; i < 252; ++i) {
        ProfileParams params;
        params.setApnName("apn" + std::to_string(i) + ".example");
        params.setHomeIPType(IPType::V4V6);
        params.setRoamIPType(IPType::V4V6);
        if (!Manager::getInstance().addProfile(
                    AddProfileParams(params, true, TechType::TECH_3GPP, false))) {
            state.SkipWithError("the table could not be filled");
            return;
        }
    }
    Latencies refresh;
    for (auto _ : state) {
        const auto start = Clock::now();
        Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
        refresh.add(Clock::now() - start);
    }
    state.counters["profiles"] =
            static_cast<double>(Manager::getInstance().filter(FilterProfileParams()).size());
    refresh.report(state, "M2");
}

BENCHMARK(M1_ModifyThroughTheModemManager)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(M2_RefreshFullTable)->Iterations(quick() ? 1 : 5)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();
