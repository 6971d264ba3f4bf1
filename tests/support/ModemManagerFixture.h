// Tests on a simulated modem manager: a private D-Bus bus of the test's
// (dbus-daemon), kivmmd serving simulated modems on it, busctl as an
// independent client of the bus, and this process's library on the modem
// manager (libxalmm).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CapturingLog.h"
#include "Manager.h"
#include "Subprocess.h"
#include "diag/diag_host.h"
#include "mmclient/XalMm.h"

namespace kiv::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Waits until the condition holds (true) or 20 s have passed.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

inline size_t lines(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// A command line for one of the project's programs, under the emulator the
// tests run under when they were cross-built.
inline std::vector<std::string> program(const std::string& path,
                                        std::vector<std::string> args = {}) {
    std::vector<std::string> argv;
    std::istringstream emulator(KIVR_EMULATOR);
    for (std::string word; emulator >> word;) argv.push_back(word);
    argv.push_back(path);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

class ModemManagerFixture : public testing::Test {
  protected:
    static constexpr const char* kProfileManager =
            "org.freedesktop.ModemManager1.Modem.Modem3gpp.ProfileManager";

    void SetUp() override {
        dir = testing::TempDir() + "mm-" + std::to_string(getpid()) + "-" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        std::ofstream(dir + "/bus.conf") << busConfig();
        bus = std::make_unique<Subprocess>(
                std::vector<std::string>{"dbus-daemon", "--config-file=" + dir + "/bus.conf",
                                         "--nofork", "--print-address=1"},
                Subprocess::Options());
        auto line = bus->readLine(20s);
        ASSERT_TRUE(line && !line->empty()) << "dbus-daemon did not start";
        address = *line;
        xalmm::setBusAddress(address);
        xalmm::setStateFolder(dir + "/records");
        xalmm::setLogSink([this](int, const std::string& text) {
            std::lock_guard<std::mutex> hold(clientLogLock);
            clientLog.push_back(text);
        });
    }
    void TearDown() override {
        daemon.reset();
        bus.reset();
        xalmm::setLogSink(nullptr);
        fs::remove_all(dir);
    }

    // A session bus of the test's own, listening in the test's folder.
    std::string busConfig() const {
        return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration "
               "1.0//EN\" \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>session</type><listen>unix:dir=" +
               dir +
               "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
               "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
               "<allow own=\"*\"/></policy></busconfig>\n";
    }

    // Starts kivmmd on the bus; returns once it serves.
    void startDaemon(std::vector<std::string> options = {}) {
        auto argv = program(KIVMMD_PATH, {"--bus", address});
        argv.insert(argv.end(), options.begin(), options.end());
        daemonOptions = options;
        Subprocess::Options run;
        run.errorFile = dir + "/kivmmd.log";
        daemon = std::make_unique<Subprocess>(argv, run);
        ASSERT_TRUE(daemon->waitForOutput("ready", 20s)) << read(dir + "/kivmmd.log");
    }

    // busctl on the test's bus: an independent client of the interface.
    Subprocess::Result busctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"busctl", "--address=" + address});
        return Subprocess::run(args);
    }
    // A call to the simulated modem manager's control object.
    void control(const std::string& method, std::vector<std::string> args = {}) {
        std::vector<std::string> call = {"call", "org.kivr.ModemManagerSim",
                                         "/org/kivr/ModemManagerSim", "org.kivr.ModemManagerSim",
                                         method};
        call.insert(call.end(), args.begin(), args.end());
        const auto result = busctl(call);
        ASSERT_EQ(result.status, 0) << method << ": " << result.err;
    }
    // The modem's current object path, as its object manager lists it.
    std::string modemPath() {
        const auto result = busctl({"--list", "tree", "org.freedesktop.ModemManager1"});
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("/org/freedesktop/ModemManager1/Modem/", 0) == 0) return line;
        }
        return "";
    }

    // This process's library on the modem manager, its log captured.
    void startLibrary() {
        diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
        Manager::getInstance().init(0, true);
        log = std::make_unique<ScopedLogCapture>();
        ASSERT_TRUE(xalmm::waitForRegisteredClients(1, 20s))
                << "the library did not register with the modem manager";
        Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    }
    // The modem's table compared, and every event handled by the library.
    void settle() {
        ASSERT_TRUE(xalmm::sync(20s)) << "events not delivered";
        Manager::getInstance().match(FilterProfileParams(), nullptr);
        Manager::getInstance().match(FilterProfileParams(), nullptr);
    }
    static std::shared_ptr<IProfileKey> add(const ProfileParams& params, bool persistent) {
        return Manager::getInstance().addProfile(
                AddProfileParams(params, persistent, TechType::TECH_3GPP, false));
    }
    static std::shared_ptr<IProfileKey> add(const std::string& apn, bool persistent) {
        ProfileParams params;
        params.setApnName(apn);
        return add(params, persistent);
    }
    static std::list<std::shared_ptr<IProfileKey>> byApn(const std::string& apn) {
        FilterProfileParams filter;
        filter.setApnName(apn);
        return Manager::getInstance().filter(filter);
    }
    // Lines of the messaging client's log holding the fragment.
    size_t clientLogged(const std::string& fragment) {
        std::lock_guard<std::mutex> hold(clientLogLock);
        size_t n = 0;
        for (const auto& line : clientLog) n += line.find(fragment) != std::string::npos;
        return n;
    }
    std::string clientLogText() {
        std::lock_guard<std::mutex> hold(clientLogLock);
        std::string text;
        for (const auto& line : clientLog) text += line + "\n";
        return text;
    }
    static std::string read(const std::string& path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string dir, address;
    std::vector<std::string> daemonOptions;
    std::unique_ptr<Subprocess> bus;
    std::unique_ptr<Subprocess> daemon;
    std::unique_ptr<ScopedLogCapture> log;
    std::mutex clientLogLock;
    std::vector<std::string> clientLog;
};

}  // namespace kiv::test
