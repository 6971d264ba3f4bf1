// Tests with the modem service: kivmodemd and kivctl in processes of their
// own on a socket and a state file of the test's, and this process's
// library on the service (libxalremote).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "CapturingLog.h"
#include "Manager.h"
#include "Subprocess.h"
#include "diag/diag_host.h"
#include "remote/ServiceControl.h"
#include "remote/XalRemote.h"

namespace kiv::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

inline std::string read(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline size_t lines(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// A command line for one of the project's programs, under the emulator the
// tests run under when they were cross-built.
inline std::vector<std::string> command(const std::string& program,
                                        std::vector<std::string> args = {}) {
    std::vector<std::string> argv;
    std::istringstream emulator(KIVR_EMULATOR);
    for (std::string word; emulator >> word;) argv.push_back(word);
    argv.push_back(program);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

class ServiceFixture : public testing::Test {
  protected:
    void SetUp() override {
        // Per process too: two runs of the suite at once keep apart.
        dir = testing::TempDir() + "svc-" + std::to_string(getpid()) + "-" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        state = dir + "/modem.state";
        socket = dir + "/modem.sock";
        xalremote::setSocketPath(socket);
    }
    void TearDown() override {
        daemon.reset();
        fs::permissions(dir, fs::perms::owner_all);
        fs::remove_all(dir);
    }

    // Starts kivmodemd on the fixture's state and socket; returns once it is ready.
    void startDaemon(std::vector<std::string> options = {}) {
        auto argv = command(KIVMODEMD_PATH, {"--state", state, "--socket", socket});
        argv.insert(argv.end(), options.begin(), options.end());
        daemon = std::make_unique<Subprocess>(argv, daemonOptions());
        ASSERT_TRUE(daemon->waitForOutput("ready", 20s)) << daemonLog();
    }
    // The daemon logs a line per client: its log goes to a file, which a
    // pipe nobody reads would fill until the daemon stops.
    Subprocess::Options daemonOptions() const {
        Subprocess::Options options;
        options.errorFile = dir + "/kivmodemd.log";
        return options;
    }
    std::string daemonLog() const { return read(dir + "/kivmodemd.log"); }
    static Subprocess::Result kivctl(std::vector<std::string> args, const std::string& input = "") {
        return Subprocess::run(command(KIVCTL_PATH, args), input);
    }
    Subprocess::Result onService(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), {"--modem", socket, "--timeout", "60000"});
        return kivctl(args, input);
    }
    nlohmann::json control(const nlohmann::json& command) {
        auto connection = xalremote::ServiceControl::connect();
        if (!connection.ok()) {
            ADD_FAILURE() << command.dump() << ": " << connection.error().message();
            return nlohmann::json();
        }
        auto answer = connection->call(command);
        EXPECT_TRUE(answer.ok()) << answer.error().message();
        return answer.ok() ? *answer : nlohmann::json();
    }
    // The APNs of every profile, 3GPP and 3GPP2.
    std::set<std::string> apnsOnTheModem() {
        std::set<std::string> apns;
        const nlohmann::json table = control({{"op", "profiles"}});
        for (const auto& profile : table["profiles"]) {
            for (const char* field : {"apn_name", "apn_string"}) {
                if (profile.contains(field)) apns.insert(profile[field].get<std::string>());
            }
        }
        return apns;
    }

    // This process's library on the service, with its log captured.
    void startLibrary() {
        diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
        Manager::getInstance().init(0, true);
        log = std::make_unique<ScopedLogCapture>();
        ASSERT_TRUE(xalremote::waitForRegisteredClients(1, 20s))
                << "the library did not register with the modem service";
        Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    }
    // Every indication the service sent this process has been handled.
    void settle() {
        ASSERT_TRUE(xalremote::sync(20s)) << "events from the service not delivered";
        Manager::getInstance().match(FilterProfileParams(), nullptr);
        Manager::getInstance().match(FilterProfileParams(), nullptr);
    }
    static std::shared_ptr<IProfileKey> add(const std::string& apn, bool persistent) {
        ProfileParams params;
        params.setApnName(apn);
        return Manager::getInstance().addProfile(
                AddProfileParams(params, persistent, TechType::TECH_3GPP, false));
    }
    static std::list<std::shared_ptr<IProfileKey>> byApn(const std::string& apn) {
        FilterProfileParams filter;
        filter.setApnName(apn);
        return Manager::getInstance().filter(filter);
    }

    std::string dir, state, socket;
    std::unique_ptr<Subprocess> daemon;
    std::unique_ptr<ScopedLogCapture> log;
};

}  // namespace kiv::test
