// Several processes on one simulated modem manager: kivctl runs in
// processes of their own (each with libxalmm inside), the daemon killed and
// started again under them and under this process's library, and the
// record of temporaries kept as carefully as any state file.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <set>
#include <thread>

#include "support/ModemManagerFixture.h"

namespace kiv {
namespace {

using namespace test;

class ModemManagerProcessesTest : public ModemManagerFixture {
  protected:
    Subprocess::Options kivctlOptions() const {
        Subprocess::Options options;
        options.environment = {"KIVR_MM_BUS=" + address, "KIVR_MM_STATE_DIR=" + dir + "/records"};
        return options;
    }
    Subprocess::Result kivctl(std::vector<std::string> args) {
        args.insert(args.begin(), {"--modem-manager", "--timeout", "20000"});
        return Subprocess::run(program(KIVCTL_PATH, args), "", kivctlOptions());
    }
};

TEST_F(ModemManagerProcessesTest, ConcurrentKivctlRunsLoseNothing) {
    startDaemon({"--capacity", "40"});
    std::vector<std::unique_ptr<Subprocess>> runs;
    for (int i = 1; i <= 12; ++i) {
        auto argv = program(KIVCTL_PATH, {"--modem-manager", "--timeout", "20000", "--log", "add",
                                          "--apn", "p" + std::to_string(i)});
        runs.push_back(std::make_unique<Subprocess>(argv, kivctlOptions()));
    }
    std::set<std::string> told;
    for (auto& run : runs) {
        const auto result = run->finish();
        EXPECT_EQ(result.status, 0) << result.err;
        told.insert(result.out);
    }
    EXPECT_EQ(told.size(), 12u) << "two processes were told the same profile";
    const auto listed = kivctl({"--json", "list"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    for (int i = 1; i <= 12; ++i) {
        EXPECT_NE(listed.out.find("\"p" + std::to_string(i) + "\""), std::string::npos) << i;
    }
}

TEST_F(ModemManagerProcessesTest, DaemonKilledAndStartedAgainUnderARunningLibrary) {
    startDaemon({"--state", dir + "/modem.state"});
    startLibrary();
    auto kept = add("kept.apn", true);
    ASSERT_TRUE(kept) << clientLogText();
    settle();

    daemon->kill(SIGKILL);
    daemon->finish();
    ASSERT_TRUE(eventually([] { return xalmm::registeredClients() == 0; })) << clientLogText();
    EXPECT_TRUE(
            eventually([&] { return log->count(LogLevel::Warning, "Handling modem down") == 1; }));
    // A kivctl run meanwhile says why it cannot work.
    const auto refused = kivctl({"list"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("no modem"), std::string::npos) << refused.err;

    startDaemon({"--state", dir + "/modem.state"});
    ASSERT_TRUE(xalmm::waitForRegisteredClients(1, 20s)) << clientLogText();
    settle();
    EXPECT_EQ(byApn("kept.apn").size(), 1u);  // stored by the daemon, reread by the library
    const auto listed = kivctl({"list"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("kept.apn"), std::string::npos);
}

TEST_F(ModemManagerProcessesTest, RecordOfTemporariesWrittenWholeThroughItsSymlinkKeepingItsMode) {
    startDaemon();
    fs::create_directories(dir + "/records");
    fs::create_directories(dir + "/elsewhere");
    // The record of the first modem lives elsewhere, behind a symlink, with
    // a mode of its own.
    const std::string target = dir + "/elsewhere/record.json";
    const std::string record = dir + "/records/temporaries-356938035643800.json";
    std::ofstream(target) << "{\"format\": \"kivr-modem-manager-temporaries\", \"profiles\": []}\n";
    fs::permissions(target, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    fs::create_symlink(target, record);
    startLibrary();
    auto temporary = add("temporary.apn", false);
    ASSERT_TRUE(temporary) << clientLogText();
    EXPECT_TRUE(fs::is_symlink(record));
    EXPECT_NE(read(target).find("temporary.apn"), std::string::npos);
    EXPECT_EQ(fs::status(target).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    temporary.reset();
    settle();
    EXPECT_EQ(read(target).find("temporary.apn"), std::string::npos);

    // A record that cannot be written: the temporary is not made (it would
    // be taken for a persistent one later), and the modem is as it was.
    fs::remove(record);
    fs::remove_all(dir + "/records");
    std::ofstream(dir + "/records") << "not a folder\n";
    EXPECT_FALSE(add("unrecorded.apn", false));
    EXPECT_EQ(clientLogged("create: cannot read " + record +
                           ": Not a directory (profile 4 deleted "
                           "again)"),
              1u)
            << clientLogText();
    settle();
    EXPECT_TRUE(byApn("unrecorded.apn").empty());
    // A persistent profile needs no record.
    EXPECT_TRUE(add("persistent.apn", true));
}

TEST_F(ModemManagerProcessesTest, KivctlEveryCommandOnTheModemManager) {
    startDaemon();
    const std::string apns = dir + "/apns-conf.xml";
    std::ofstream(apns) << "<apns version=\"8\">\n"
                           "<apn carrier=\"Test\" mcc=\"001\" mnc=\"01\" apn=\"internet\" "
                           "type=\"default,supl,dun\" />\n"
                           "<apn carrier=\"Test IMS\" mcc=\"001\" mnc=\"01\" apn=\"ims\" "
                           "type=\"ims,xcap\" />\n"
                           "</apns>\n";
    auto result = kivctl({"apply-apns", apns, "--mcc", "001", "--mnc", "01"});
    // supl has no place on a modem manager's profile: said, and the rest done.
    EXPECT_NE(result.err.find("apn_type_mask (supl)"), std::string::npos) << result.err;
    result = kivctl({"show", "2"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("xcap"), std::string::npos) << result.out;

    auto watch = std::make_unique<Subprocess>(
            program(KIVCTL_PATH, {"--modem-manager", "--json", "watch", "--count", "3"}),
            kivctlOptions());
    ASSERT_TRUE(watch->waitForOutput("watching modem", 20s, /*fromError=*/true));
    result = kivctl({"add", "--apn", "watched.apn", "--ip", "v4"});
    ASSERT_EQ(result.status, 0) << result.err;
    result = kivctl({"delete", "4"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto seen = watch->finish(20s);
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(lines(seen.out), 3u) << seen.out;  // create, modify, delete
    EXPECT_NE(seen.out.find("watched.apn"), std::string::npos);

    result = kivctl({"modem", "swap-sim", "8900100000000000555"});
    EXPECT_EQ(result.status, 0) << result.err;
    result = kivctl({"modem", "status"});
    EXPECT_NE(result.out.find("8900100000000000555"), std::string::npos) << result.out;
    result = kivctl({"modem", "restart"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("on a modem manager"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace kiv
