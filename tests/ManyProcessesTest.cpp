// Many processes on one modem service at once: each is told the truth about
// its own commands, none takes another's profile for its own or loses its
// own, and no temporary outlives the process that made it.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <future>
#include <thread>

#include "ServiceFixture.h"
#include "xal/wds_v01.h"

namespace kiv {
namespace {

using namespace test;
using nlohmann::json;

class ManyProcessesTest : public ServiceFixture {
  protected:
    // The factory table's APNs: what is left once every temporary is gone.
    static std::set<std::string> factoryApns() {
        return {"internet", "ims", "mms", "cdma.internet"};
    }

    // The daemon's largest file, as a full disk would have it (its soft
    // limit: the hard one stays, so that it can be lifted again).
    void limitDaemonFiles(rlim_t bytes) {
        rlimit limit{};
        ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_FSIZE, nullptr, &limit), 0) << strerror(errno);
        limit.rlim_cur = std::min(bytes, limit.rlim_max);
        ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_FSIZE, &limit, nullptr), 0) << strerror(errno);
    }
    // A shell on the service, its next line's answer awaited where a test says.
    std::unique_ptr<Subprocess> shell(std::vector<std::string> options = {}) {
        auto args = std::vector<std::string>{"--modem", socket, "--timeout", "20000"};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back("shell");
        return std::make_unique<Subprocess>(command(KIVCTL_PATH, args), Subprocess::Options());
    }
};

// Eight processes adding temporary profiles at once, round after round: on
// a modem that hands a freed index out again at once, each learns of the
// others' deletes while its own add is on its way. Every add is told done
// with its own profile, and every temporary leaves with its process.
TEST_F(ManyProcessesTest, EightProcessesAddingTemporariesAreToldTheTruthAndLeaveNothing) {
    startDaemon();
    for (int round = 1; round <= 3; ++round) {
        std::vector<std::unique_ptr<Subprocess>> runs;
        for (int i = 1; i <= 8; ++i) {
            const std::string apn = "t" + std::to_string(i) + ".r" + std::to_string(round);
            runs.push_back(std::make_unique<Subprocess>(
                    command(KIVCTL_PATH, {"--modem", socket, "--timeout", "60000", "--json", "add",
                                          "--temporary", "--apn", apn}),
                    Subprocess::Options()));
        }
        for (int i = 1; i <= 8; ++i) {
            const auto result = runs[i - 1]->finish();
            ASSERT_EQ(result.status, 0) << "round " << round << ": " << result.err;
            const json told = json::parse(result.out, nullptr, false);
            ASSERT_TRUE(told.is_object()) << result.out;
            EXPECT_EQ(told["profile"].value("apn", ""),
                      "t" + std::to_string(i) + ".r" + std::to_string(round))
                    << "told of another's profile: " << result.out;
        }
    }
    EXPECT_EQ(apnsOnTheModem(), factoryApns()) << "a temporary profile was left behind";
}

// Another client deletes the profile at an index; the modem hands the index
// to this process's add before the delete's indication reaches it. The
// indication was on its way before the add was answered: it is applied to
// the old profile and never to the new one.
TEST_F(ManyProcessesTest, AnothersDeleteOnItsWayNeverTakesTheProfileAnAddCreated) {
    startDaemon();
    startLibrary();
    ASSERT_EQ(onService({"add", "--apn", "theirs"}).status, 0);
    settle();
    ASSERT_EQ(byApn("theirs").size(), 1u);

    // Everything the modem says to its clients waits, in order, while the
    // index is freed and handed out again.
    control({{"op", "hold"}, {"on", true}});
    control({{"op", "externalDelete"}, {"type", WDS_PROFILE_TYPE_3GPP_V01}, {"index", 4}});
    auto adding = std::async(std::launch::async, [] { return add("mine", /*persistent=*/false); });
    const auto served = control({{"op", "waitRequests"},
                                 {"msgId", XAL_WDS_CREATE_PROFILE_REQ_V01},
                                 {"count", 2},
                                 {"timeoutMs", 20000}});
    ASSERT_EQ(served.value("ok", false), true);
    control({{"op", "hold"}, {"on", false}});
    auto mine = adding.get();
    ASSERT_TRUE(mine);
    ASSERT_EQ(mine->getProfileId(), 4);
    settle();

    const auto seen = Manager::getInstance().getProfile(mine);
    ASSERT_TRUE(seen) << "the add's own key no longer names its profile";
    EXPECT_EQ(seen->getApnName(), "mine");
    EXPECT_TRUE(byApn("theirs").empty());
    EXPECT_EQ(Manager::getInstance().filter(FilterProfileParams()).size(), 5u);
    EXPECT_EQ(log->countContaining(LogLevel::Info, "3GPP:4 Delete predates profile"), 1u);
    mine.reset();
    settle();
    EXPECT_EQ(apnsOnTheModem(), factoryApns()) << "the temporary profile was left behind";
}

// A change asked for while the modem's data service is down is refused and
// not made, and the shell goes on once it is back.
TEST_F(ManyProcessesTest, ShellChangeWhileTheServiceIsDownIsRefusedAndNotMade) {
    startDaemon();
    auto user = shell();
    user->write("add --apn kept\n");
    ASSERT_TRUE(user->waitForOutput("added: profile 4 (3gpp) as #1", 20s)) << user->finish(1s).err;

    control({{"op", "down"}});
    user->write("modify #1 --user changed\n");
    ASSERT_TRUE(user->waitForOutput("line 2:", 20s, /*fromError=*/true)) << user->finish(1s).err;
    control({{"op", "up"}});
    // The modem's reread voided #1; finding the profile gives it a live key.
    user->write("find --apn kept\nmodify #1 --user after\n");
    ASSERT_TRUE(user->waitForOutput("modified: profile 4 (3gpp) as #1", 20s))
            << user->finish(1s).err;
    const auto result = user->finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "kivctl: line 2: the modem's data service is down (kivctl modem up brings it "
              "back)\n");
    EXPECT_EQ(result.out.find("modified: profile 4 (3gpp) as #1\n"), result.out.rfind("modified"))
            << "the refused change was reported done: " << result.out;
    const json table = control({{"op", "profiles"}});
    EXPECT_EQ(table["profiles"][3].value("username", ""), "after");
}

// One client's change that the modem cannot store is that client's
// failure alone: another's read before it and change after it succeed.
TEST_F(ManyProcessesTest, FullDiskFailsTheChangeItStopsAndNoOtherClientsCommand) {
    startDaemon();
    auto other = shell();
    other->write("list\n");
    ASSERT_TRUE(other->waitForOutput("cdma.internet", 20s)) << other->finish(1s).err;

    limitDaemonFiles(read(state).size());
    const auto full = onService({"add", "--apn", "a.rather.long.access.point.name"});
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("add: the modem could not store the change: File too large"),
              std::string::npos)
            << full.err;

    other->write("list\n");
    limitDaemonFiles(RLIM_INFINITY);
    other->write("add --apn stored\n");
    ASSERT_TRUE(other->waitForOutput("added: profile 4 (3gpp) as #1", 20s))
            << other->finish(1s).err;
    const auto result = other->finish();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    auto apns = factoryApns();
    apns.insert("stored");
    EXPECT_EQ(apnsOnTheModem(), apns);
}

// The service stopped and started again under a running shell and watch:
// the shell carries on with the service as it is now, and the watch says
// the service went and came back and goes on reporting.
TEST_F(ManyProcessesTest, ShellAndWatchFollowTheServiceAcrossADaemonRestart) {
    startDaemon();
    Subprocess watch(command(KIVCTL_PATH, {"--modem", socket, "watch", "--count", "5"}),
                     Subprocess::Options());
    ASSERT_TRUE(watch.waitForOutput("watching", 20s, /*fromError=*/true)) << watch.finish(1s).err;
    auto user = shell();
    user->write("add --apn before\n");
    ASSERT_TRUE(user->waitForOutput("added: profile 4", 20s)) << user->finish(1s).err;
    ASSERT_TRUE(watch.waitForOutput("modify 3gpp 4", 20s)) << watch.finish(1s).err;

    daemon->kill(SIGKILL);
    daemon->finish();
    ASSERT_TRUE(watch.waitForOutput("service-down", 20s)) << watch.finish(1s).err;
    startDaemon();
    ASSERT_TRUE(watch.waitForOutput("profile-ready", 20s)) << watch.finish(1s).err;

    user->write("add --apn after\nlist\n");
    ASSERT_TRUE(user->waitForOutput("added: profile 5 (3gpp) as #2", 20s)) << user->finish(1s).err;
    const auto used = user->finish();
    EXPECT_EQ(used.status, 0) << used.err;
    EXPECT_NE(used.out.find("5    3gpp   after"), std::string::npos) << used.out;

    const auto watched = watch.finish();
    EXPECT_EQ(watched.status, 0) << watched.err;
    EXPECT_EQ(watched.out,
              "create 3gpp 4: apn_name=\"before\" persistent=1 profile_name=\"kiv_profile\"\n"
              "modify 3gpp 4: apn_name=\"before\" persistent=1 profile_name=\"kiv_profile\"\n"
              "service-down\n"
              "service-up\n"
              "profile-ready\n"
              "create 3gpp 5: apn_name=\"after\" persistent=1 profile_name=\"kiv_profile\"\n"
              "modify 3gpp 5: apn_name=\"after\" persistent=1 profile_name=\"kiv_profile\"\n");
}

}  // namespace
}  // namespace kiv
