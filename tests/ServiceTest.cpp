// The modem service with several processes at once: kivmodemd, kivctl runs
// in processes of their own, and this process's library on the service.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Util.h"
#include "sim/StateFile.h"
#include "support/ServiceFixture.h"
#include "xal/wds_profile_events.h"

namespace kiv {
namespace {

using namespace test;

class ServiceTest : public ServiceFixture {};

TEST_F(ServiceTest, TwentyConcurrentAddsDistinctProfilesInEitherMode) {
    for (const bool shared : {true, false}) {
        if (shared) startDaemon();
        std::vector<std::unique_ptr<Subprocess>> runs;
        for (int i = 1; i <= 20; ++i) {
            auto argv = command(KIVCTL_PATH, {"--timeout", "60000"});
            if (shared) {
                argv.insert(argv.end(), {"--modem", socket});
            } else {
                argv.insert(argv.end(), {"--modem-state", dir + "/embedded.state"});
            }
            argv.insert(argv.end(), {"add", "--apn", "p" + std::to_string(i)});
            runs.push_back(std::make_unique<Subprocess>(argv, Subprocess::Options()));
        }
        std::set<std::string> told;
        for (auto& run : runs) {
            const auto result = run->finish();
            EXPECT_EQ(result.status, 0) << result.err;
            told.insert(result.out);
        }
        EXPECT_EQ(told.size(), 20u) << "two processes were told the same profile";
        std::set<std::string> apns;
        if (shared) {
            apns = apnsOnTheModem();
        } else {
            auto table = xalsim::StateFile::parse(read(dir + "/embedded.state"));
            ASSERT_TRUE(table.ok()) << table.error().message();
            for (const auto& [slot, settings] : *table) {
                apns.insert(slot.first == WDS_PROFILE_TYPE_3GPP2_V01 ? settings.apn_string
                                                                     : settings.apn_name);
            }
        }
        EXPECT_EQ(apns.size(), 24u);  // the factory four and twenty more
        for (int i = 1; i <= 20; ++i) EXPECT_EQ(apns.count("p" + std::to_string(i)), 1u) << i;
    }
}

TEST_F(ServiceTest, OtherProcessChangesArriveAsForeignChanges) {
    startDaemon();
    startLibrary();
    ASSERT_TRUE(byApn("elsewhere").empty());

    auto result = onService({"add", "--apn", "elsewhere", "--ip", "v4"});
    ASSERT_EQ(result.status, 0) << result.err;
    settle();
    auto keys = byApn("elsewhere");
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(log->count(LogLevel::Info, "ProfileCache: updating cache due to indication!"),
              2u);  // Create, Modify

    result = onService({"modify", std::to_string(keys.front()->getProfileId()), "--ip", "v6"});
    ASSERT_EQ(result.status, 0) << result.err;
    settle();
    auto seen = Manager::getInstance().getProfile(byApn("elsewhere").front());
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->getHomeIPType(), IPType::V6);

    // And this process's change is an echo here, a foreign change there.
    auto watch = std::make_unique<Subprocess>(
            command(KIVCTL_PATH, {"--modem", socket, "--json", "watch", "--count", "2"}),
            Subprocess::Options());
    ASSERT_TRUE(watch->waitForOutput("watching", 20s, /*fromError=*/true))
            << "kivctl watch did not start listening";
    ASSERT_TRUE(add("from.here", true));
    settle();
    EXPECT_EQ(log->count(LogLevel::Info, "ProfileCache: pending transaction confirmed"), 2u);
    const auto watched = watch->finish();
    EXPECT_EQ(watched.status, 0) << watched.err;
    EXPECT_NE(watched.out.find("{\"event\":\"create\",\"tech\":\"3gpp\",\"id\":5,\"settings\":{"),
              std::string::npos)
            << watched.out;
    EXPECT_NE(watched.out.find("\"apn_name\":\"from.here\""), std::string::npos);
}

TEST_F(ServiceTest, ClientKilledInARequestServiceGoesOnServingOthers) {
    startDaemon({"--latency", "50"});
    Subprocess victim(
            command(KIVCTL_PATH, {"--modem", socket, "--timeout", "60000", "add", "--apn", "x"}),
            Subprocess::Options());
    // The daemon holds the victim's create request when it dies.
    const auto waited = control({{"op", "waitRequests"},
                                 {"msgId", XAL_WDS_CREATE_PROFILE_REQ_V01},
                                 {"count", 1},
                                 {"timeoutMs", 20000}});
    ASSERT_EQ(waited.value("ok", false), true);
    victim.kill(SIGKILL);
    EXPECT_EQ(victim.finish().status, 128 + SIGKILL);

    const auto result = onService({"add", "--apn", "after"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(apnsOnTheModem().count("after"), 1u);
    EXPECT_EQ(control({{"op", "status"}}).value("serviceUp", false), true);
}

// A client killed while it holds temporary profiles leaves them on the
// shared modem; a second process reclaims them, and nothing else: not the
// persistent ones, nor a live client's temporaries it reports it includes.
TEST_F(ServiceTest, KilledClientsTemporariesReclaimedByAnotherProcess) {
    startDaemon();
    Subprocess victim(command(KIVCTL_PATH, {"--modem", socket, "shell"}), Subprocess::Options());
    victim.write("add --temporary --apn left.behind\nadd --apn kept.for.good\n");
    ASSERT_TRUE(victim.waitForOutput("as #2", 20s)) << "the shell did not add both profiles";
    victim.kill(SIGKILL);
    victim.finish();
    ASSERT_EQ(apnsOnTheModem().count("left.behind"), 1u);

    auto dryRun = onService({"reclaim", "--dry-run", "--json"});
    ASSERT_EQ(dryRun.status, 0) << dryRun.err;
    const auto listed = nlohmann::json::parse(dryRun.out);
    ASSERT_EQ(listed["reclaimed"].size(), 1u) << dryRun.out;
    EXPECT_EQ(listed["reclaimed"][0]["apn"], "left.behind");
    EXPECT_NE(dryRun.err.find("every client's temporary profiles"), std::string::npos);
    EXPECT_EQ(apnsOnTheModem().count("left.behind"), 1u);

    // This process's library holds a temporary of its own: another process's
    // reclaim takes it, as the warning says; its own reclaim does not.
    startLibrary();
    auto mine = add("mine", /*persistent=*/false);
    ASSERT_TRUE(mine);
    Util util;
    const auto reclaimed = util.reclaimTemporaryProfiles();
    ASSERT_EQ(reclaimed.size(), 1u);
    EXPECT_EQ(reclaimed[0].params.getApnName(), "left.behind");
    const auto apns = apnsOnTheModem();
    EXPECT_EQ(apns.count("left.behind"), 0u);
    EXPECT_EQ(apns.count("kept.for.good"), 1u);
    EXPECT_EQ(apns.count("mine"), 1u);
    const auto unconfirmed = onService({"reclaim"});
    EXPECT_EQ(unconfirmed.status, 2);
    EXPECT_NE(unconfirmed.err.find("--force deletes them"), std::string::npos) << unconfirmed.err;
    EXPECT_EQ(apnsOnTheModem().count("mine"), 1u);
    EXPECT_EQ(onService({"reclaim", "--force"}).out,
              "1 temporary profile deleted:\n"
              "ID  TECH  APN   HOME  ROAM  TYPES  AUTH  CLASS  FLAGS\n"
              "6   3gpp  mine  -     -     -      -     -      library\n");
}

TEST_F(ServiceTest, DaemonRestartedUnderLiveClientsLibraryRecovers) {
    startDaemon();
    startLibrary();
    auto kept = add("kept", true);
    auto temporary = add("temporary", false);
    ASSERT_TRUE(kept && temporary);
    settle();

    daemon->kill(SIGKILL);
    daemon->finish();
    // Every connection's end has reached the library: it knows the modem went down.
    settle();
    EXPECT_EQ(xalremote::registeredClients(), 0u);
    EXPECT_TRUE(log->contains(LogLevel::Warning, "Handling modem down"));

    startDaemon();
    ASSERT_TRUE(xalremote::waitForRegisteredClients(1, 20s)) << "the library did not reconnect";
    settle();  // the modem's ProfileReady made it reread
    EXPECT_FALSE(Manager::getInstance().getProfile(kept));  // keys from before are void
    EXPECT_EQ(byApn("kept").size(), 1u);
    EXPECT_TRUE(byApn("temporary").empty());
    EXPECT_EQ(Manager::getInstance().filter(FilterProfileParams()).size(), 5u);
    const std::string saved = read(state);
    EXPECT_NE(saved.find("\"kept\""), std::string::npos);
    EXPECT_EQ(saved.find("\"temporary\""), std::string::npos);
    // And it works: a new profile takes the place the temporary one left.
    auto again = add("again", false);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getProfileId(), 5);
}

TEST_F(ServiceTest, TimeOutNoAnswerWithinItIsATimeOut) {
    startDaemon({"--latency", "300"});
    xal_idl_service_object_type service = wds::serviceObject();
    xal_service_info info{};
    xal_client_os_params os{};
    xal_client_type client = nullptr;
    ASSERT_EQ(xal_client_get_any_service(service, &info), XAL_NO_ERR);
    ASSERT_EQ(xal_client_init(&info, service, nullptr, nullptr, &os, &client), XAL_NO_ERR);
    wds_create_profile_req_msg_v01 create{};
    create.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    wds_create_profile_resp_msg_v01 created{};
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(xal_client_send_msg_sync(client, XAL_WDS_CREATE_PROFILE_REQ_V01, &create,
                                       sizeof(create), &created, sizeof(created), 100),
              XAL_TIMEOUT_ERR);
    EXPECT_GE(std::chrono::steady_clock::now() - started, 100ms);
    EXPECT_EQ(control({{"op", "status"}}).value("profiles", 0), 4);  // not served
    EXPECT_EQ(xal_client_send_msg_sync(client, XAL_WDS_CREATE_PROFILE_REQ_V01, &create,
                                       sizeof(create), &created, sizeof(created), 5000),
              XAL_NO_ERR);
    EXPECT_EQ(created.profile.profile_index, 4);
    control({{"op", "timeout"}, {"msgId", XAL_WDS_DELETE_PROFILE_REQ_V01}, {"count", 1}});
    wds_delete_profile_req_msg_v01 remove{};
    remove.profile = {WDS_PROFILE_TYPE_3GPP_V01, 4};
    wds_delete_profile_resp_msg_v01 removed{};
    EXPECT_EQ(xal_client_send_msg_sync(client, XAL_WDS_DELETE_PROFILE_REQ_V01, &remove,
                                       sizeof(remove), &removed, sizeof(removed), 1000),
              XAL_TIMEOUT_ERR);
    EXPECT_EQ(xal_client_release(client), XAL_NO_ERR);
    EXPECT_EQ(xal_client_release(client), XAL_CLIENT_INVALID_CLNT);
}

TEST_F(ServiceTest, DaemonRefusesWhatItCannotServe) {
    startDaemon();
    struct stat info {};
    ASSERT_EQ(stat(socket.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    const struct {
        std::vector<std::string> argv;
        int status;
        std::string words;
    } kRefused[] = {
            {{"--state", state, "--socket", dir + "/other.sock"}, 1, "is in use by kivmodemd (pid"},
            {{"--state", dir + "/other.state", "--socket", socket}, 1, "another kivmodemd serves"},
            {{"--state", state}, 2, "--state FILE and --socket PATH are needed"},
            {{"--state", state, "--socket", socket, "--latency", "-1"}, 2, "--latency needs MS"},
            {{"--state", state, "--socket", socket, "--latency=-1"},
             2,
             "bad number '-1' for --latency (0 to 60000)"},
            {{"--state", state, "--socket", socket, "--bogus", "1"}, 2, "unknown option '--bogus'"},
            {{"--state", "--socket", socket}, 2, "option --state needs FILE"},
    };
    for (const auto& refused : kRefused) {
        const auto result = Subprocess::run(command(KIVMODEMD_PATH, refused.argv));
        EXPECT_EQ(result.status, refused.status) << result.err;
        EXPECT_EQ(lines(result.err), 1u) << result.err;
        EXPECT_NE(result.err.find(refused.words), std::string::npos) << result.err;
    }
    EXPECT_FALSE(fs::exists(dir + "/other.state"));
    daemon->kill(SIGTERM);
    EXPECT_EQ(daemon->finish().status, 0);

    // A state file it cannot load: one line, exit status 2, the file untouched.
    std::ofstream(state) << "{\"format\": \"kivr-modem-state\", \"version\": 2, \"profiles\": [";
    const std::string damaged = read(state);
    const auto result =
            Subprocess::run(command(KIVMODEMD_PATH, {"--state", state, "--socket", socket}));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(lines(result.err), 1u) << result.err;
    EXPECT_NE(result.err.find("is the file cut short?"), std::string::npos) << result.err;
    EXPECT_EQ(read(state), damaged);
}

// SIGTERM and SIGINT stop it cleanly, its socket gone; a socket left by a
// daemon that died is taken over.
TEST_F(ServiceTest, DaemonStopsCleanlyOnSignals) {
    startDaemon();
    daemon->kill(SIGTERM);
    EXPECT_EQ(daemon->finish().status, 0);
    EXPECT_NE(daemonLog().find("stopping on Terminated"), std::string::npos) << daemonLog();
    EXPECT_FALSE(fs::exists(socket));

    startDaemon();
    daemon->kill(SIGKILL);
    daemon->finish();
    startDaemon();
    daemon->kill(SIGINT);
    EXPECT_EQ(daemon->finish().status, 0);
}

// A control call given up on leaves its late answer on the connection; the
// next call there gets its own.
TEST_F(ServiceTest, ControlCallGivenUpOnThenAnotherGetsItsOwnAnswer) {
    startDaemon();
    auto connection = xalremote::ServiceControl::connect();
    ASSERT_TRUE(connection.ok()) << connection.error().message();
    const auto late = connection->call({{"op", "waitRequests"},
                                        {"msgId", XAL_WDS_CREATE_PROFILE_REQ_V01},
                                        {"count", 1},
                                        {"timeoutMs", 60000}},
                                       std::chrono::milliseconds(20));
    ASSERT_FALSE(late.ok());
    EXPECT_EQ(late.error().code(), ETIMEDOUT) << late.error().message();
    // The create it waited for comes: its late answer is on the connection
    // before the service answers anything else there.
    ASSERT_EQ(onService({"add", "--apn", "awaited"}).status, 0);
    const auto status = connection->call({{"op", "status"}});
    ASSERT_TRUE(status.ok()) << status.error().message();
    EXPECT_TRUE(status->contains("serviceUp")) << status->dump();
}

// A new modem with little room starts with the factory profiles it can hold
// and is full at its capacity; the daemon leaves no lock file when it stops.
TEST_F(ServiceTest, ModemsRoomAsTheOptionsSay) {
    startDaemon({"--capacity-3gpp", "5", "--capacity-3gpp2", "0"});
    auto listed = onService({"--json", "list"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const auto table = nlohmann::json::parse(listed.out);
    ASSERT_EQ(table["profiles"].size(), 3u) << listed.out;  // 3GPP 1 to 3; no room for 101
    for (const char* apn : {"fourth", "fifth"}) {
        const auto added = onService({"add", "--apn", apn});
        EXPECT_EQ(added.status, 0) << added.err;
    }
    const auto full = onService({"add", "--apn", "sixth"});
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("create (the modem's table is full)"), std::string::npos) << full.err;
    EXPECT_EQ(apnsOnTheModem().count("sixth"), 0u);
    daemon->kill(SIGTERM);
    EXPECT_EQ(daemon->finish().status, 0);
    EXPECT_FALSE(fs::exists(state + ".lock"));
    EXPECT_FALSE(fs::exists(socket + ".lock"));
}

// A modem slower than the library waits is said at once, not taken for one
// that never comes up.
TEST_F(ServiceTest, SlowModemSaidAtOnce) {
    startDaemon({"--latency", "950"});
    const auto slow = onService({"list"});
    EXPECT_EQ(slow.status, 1);
    EXPECT_NE(slow.err.find("the modem takes 950 ms per request (kivmodemd --latency)"),
              std::string::npos)
            << slow.err;
}

}  // namespace
}  // namespace kiv
