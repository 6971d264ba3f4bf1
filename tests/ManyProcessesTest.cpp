// Many processes on one modem service at once: each is told the truth about
// its own commands, none takes another's profile for its own or loses its
// own, and no temporary outlives the process that made it.

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <condition_variable>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "support/ServiceFixture.h"
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
    ASSERT_TRUE(other->waitForOutput("added: profile 4 (3gpp) as #1", 20s)) << [&] {
        const auto result = other->finish(1s);
        return result.out + result.err;
    }();
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

// What one process is sure of about a profile it made, command by command.
struct Expected {
    std::string apn;
    int id = 0;
    bool temporary = false;
    enum Presence { kPresent, kAbsent, kEither } presence = kAbsent;
    std::set<std::string> users{""};  // the user names it may hold ("" none)
};

// A text member of a JSON object; empty when it is missing or not text.
std::string text(const json& object, const char* name) {
    if (!object.is_object() || !object.contains(name) || !object[name].is_string()) return "";
    return object[name].get<std::string>();
}

// How kivctl said a command went.
enum class Told { kDone, kRefused, kUnknown };

Told told(const Subprocess::Result& result) {
    if (result.status == 0) return Told::kDone;
    // Killed, or a request sent and not answered: it may have been done.
    if (result.status != 1 || result.err.find("may have been done") != std::string::npos) {
        return Told::kUnknown;
    }
    return Told::kRefused;
}

// Several processes change profiles of their own through one modem
// service, from a seed, while the service is restarted, taken down, killed
// and started again, its disk fills and clients are killed mid-command.
// Whatever a command was told, the modem holds at the end: every change
// told done is there, none told refused is, no profile appears that nobody
// made, and no temporary outlives a command told done.
TEST_F(ManyProcessesTest, SeededRunEndsWithExactlyWhatEachProcessWasTold) {
    const char* seedText = getenv("KIVR_CHAOS_SEED");
    const unsigned seed = seedText ? static_cast<unsigned>(strtoul(seedText, nullptr, 10)) : 1123u;
    RecordProperty("seed", static_cast<int>(seed));
    SCOPED_TRACE("KIVR_CHAOS_SEED=" + std::to_string(seed));
    constexpr int kProcesses = 5;
#ifdef KIVR_SLOW_PROCESSES
    constexpr int kCommandsEach = 12;
#else
    constexpr int kCommandsEach = 30;
#endif
    startDaemon();

    std::mutex lock;
    std::condition_variable progress;
    int done = 0;
    bool finished = false;
    std::map<int, Subprocess*> running;  // by process, to kill one mid-command
    std::vector<std::string> problems;
    std::vector<std::string> journal;  // every command and what it was told, in order
    auto problem = [&](const std::string& what) {
        std::lock_guard<std::mutex> guard(lock);
        problems.push_back(what);
    };

    std::vector<std::vector<Expected>> owned(kProcesses);
    auto process = [&](int p) {
        std::mt19937 random(seed * 31 + p);
        auto& mine = owned[p];
        auto run = [&](std::vector<std::string> args) {
            args.insert(args.begin(), {"--modem", socket, "--timeout", "5000"});
            Subprocess child(command(KIVCTL_PATH, args), Subprocess::Options());
            {
                std::lock_guard<std::mutex> guard(lock);
                running[p] = &child;
            }
            auto result = child.finish();
            {
                std::lock_guard<std::mutex> guard(lock);
                running.erase(p);
                ++done;
            }
            progress.notify_all();
            {
                std::lock_guard<std::mutex> guard(lock);
                journal.push_back("process " + std::to_string(p) + ": " +
                                  android::base::Join(args, ' ') + " -> " +
                                  std::to_string(result.status) + " " + result.out + result.err);
            }
            if (result.status == 2 || result.status < 0) {
                problem("bad input or a hang: " + android::base::Join(args, ' ') + ": " +
                        result.err);
            }
            return result;
        };
        auto certain = [&](Expected::Presence presence) {
            std::vector<Expected*> matching;
            for (auto& profile : mine) {
                if (!profile.temporary && profile.presence == presence && profile.id > 0)
                    matching.push_back(&profile);
            }
            return matching;
        };
        for (int n = 0; n < kCommandsEach; ++n) {
            const std::string apn = "p" + std::to_string(p) + "." + std::to_string(n);
            const int pick = static_cast<int>(random() % 100);
            auto present = certain(Expected::kPresent);
            if (pick < 45 || present.empty()) {
                const bool temporary = pick % 3 == 0;
                std::vector<std::string> args = {"--json", "add", "--apn", apn};
                if (temporary) args.push_back("--temporary");
                const auto result = run(args);
                Expected made;
                made.apn = apn;
                made.temporary = temporary;
                switch (told(result)) {
                    case Told::kDone: {
                        const json said = json::parse(result.out, nullptr, false);
                        made.id = said.is_object() ? said["profile"].value("id", 0) : 0;
                        if (!said.is_object() || text(said["profile"], "apn") != apn) {
                            problem("add " + apn + " was told of another profile: " + result.out);
                        }
                        made.presence = temporary ? Expected::kAbsent : Expected::kPresent;
                        break;
                    }
                    case Told::kRefused:
                        made.presence = Expected::kAbsent;
                        break;
                    case Told::kUnknown:
                        made.presence = Expected::kEither;
                        break;
                }
                // A temporary that was not told done may linger until the
                // modem powers on again.
                if (temporary && made.presence != Expected::kAbsent) continue;
                if (temporary && told(result) != Told::kDone) continue;
                mine.push_back(made);
            } else if (pick < 70) {
                Expected& target = *present[random() % present.size()];
                const std::string user = "u" + std::to_string(n);
                const auto result = run({"modify", std::to_string(target.id), "--user", user});
                if (told(result) == Told::kDone) target.users = {user};
                if (told(result) == Told::kUnknown) target.users.insert(user);
            } else if (pick < 85) {
                Expected& target = *present[random() % present.size()];
                const auto result = run({"delete", std::to_string(target.id)});
                if (told(result) == Told::kDone) target.presence = Expected::kAbsent;
                if (told(result) == Told::kUnknown) target.presence = Expected::kEither;
            } else {
                const auto result = run({"--json", "list"});
                if (result.status != 0) continue;
                std::set<std::string> listed;
                const json said = json::parse(result.out, nullptr, false);
                if (said.is_object()) {
                    for (const auto& profile : said["profiles"])
                        listed.insert(text(profile, "apn"));
                }
                for (const auto& profile : mine) {
                    if (profile.temporary) continue;
                    if ((profile.presence == Expected::kPresent) !=
                                (listed.count(profile.apn) != 0) &&
                        profile.presence != Expected::kEither) {
                        problem("list of process " + std::to_string(p) + " was wrong about " +
                                profile.apn + ": " + result.out);
                    }
                }
            }
        }
    };

    // The faults, paced by the commands done rather than by a clock.
    auto faults = [&] {
        std::mt19937 random(seed);
        auto waitFor = [&](int more) {
            std::unique_lock<std::mutex> guard(lock);
            const int target = done + more;
            progress.wait(guard, [&] { return done >= target || finished; });
            return !finished;
        };
        auto note = [&](const std::string& what) {
            std::lock_guard<std::mutex> guard(lock);
            journal.push_back("fault: " + what);
        };
        auto startAgain = [&] {
            auto argv = command(KIVMODEMD_PATH, {"--state", state, "--socket", socket});
            daemon = std::make_unique<Subprocess>(argv, daemonOptions());
            if (!daemon->waitForOutput("ready", 20s)) {
                problem("kivmodemd did not start again: " + daemonLog());
            }
        };
        while (waitFor(4 + static_cast<int>(random() % 6))) {
            switch (random() % 5) {
                case 0:
                    note("restart");
                    control({{"op", "restart"}});
                    break;
                case 1:
                    note("down");
                    control({{"op", "down"}});
                    waitFor(2);
                    note("up");
                    control({{"op", "up"}});
                    break;
                case 2:
                    note("daemon killed");
                    daemon->kill(SIGKILL);
                    daemon->finish();
                    waitFor(2);
                    note("daemon started");
                    startAgain();
                    break;
                case 3: {
                    note("disk full");
                    limitDaemonFiles(read(state).size() / 2);
                    waitFor(3);
                    note("disk free");
                    limitDaemonFiles(RLIM_INFINITY);
                    break;
                }
                case 4: {
                    std::lock_guard<std::mutex> guard(lock);
                    if (!running.empty()) {
                        auto victim = running.begin();
                        std::advance(victim, random() % running.size());
                        journal.push_back("fault: kill process " + std::to_string(victim->first));
                        victim->second->kill(SIGKILL);
                    }
                    break;
                }
            }
        }
    };

    std::thread injector(faults);
    std::vector<std::thread> processes;
    for (int p = 0; p < kProcesses; ++p) processes.emplace_back(process, p);
    for (auto& thread : processes) thread.join();
    {
        std::lock_guard<std::mutex> guard(lock);
        finished = true;
    }
    progress.notify_all();
    injector.join();
    for (const auto& what : problems) ADD_FAILURE() << what;

    // Temporaries told done went with their commands; then the modem powers
    // on again, as the last fault might have left it: the rest go too.
    limitDaemonFiles(RLIM_INFINITY);
    control({{"op", "up"}});
    std::set<std::string> before = apnsOnTheModem();
    for (const auto& mine : owned) {
        for (const auto& profile : mine) {
            if (profile.temporary) {
                EXPECT_EQ(before.count(profile.apn), 0u) << "temporary " << profile.apn << " left";
            }
        }
    }
    control({{"op", "restart"}});
    std::map<std::string, json> held;
    const json table = control({{"op", "profiles"}});
    for (const auto& profile : table["profiles"]) {
        const std::string apn =
                text(profile, profile.contains("apn_name") ? "apn_name" : "apn_string");
        EXPECT_EQ(held.count(apn), 0u) << apn << " twice on the modem";
        held[apn] = profile;
    }
    size_t accounted = factoryApns().size();
    for (const auto& name : factoryApns()) EXPECT_EQ(held.count(name), 1u) << name;
    for (const auto& mine : owned) {
        for (const auto& profile : mine) {
            if (profile.temporary) continue;
            auto it = held.find(profile.apn);
            const bool there = it != held.end();
            accounted += there;
            if (profile.presence == Expected::kPresent) {
                EXPECT_TRUE(there) << profile.apn << " was told added and is gone";
            } else if (profile.presence == Expected::kAbsent) {
                EXPECT_FALSE(there) << profile.apn << " was told refused or deleted and is there";
            }
            if (there) {
                const std::string user = text(it->second, "username");
                EXPECT_EQ(profile.users.count(user), 1u)
                        << profile.apn << " holds user '" << user << "', never told done";
            }
        }
    }
    EXPECT_EQ(held.size(), accounted) << "a profile nobody was told of: " << json(held).dump();
    if (HasFailure()) {
        std::ofstream out(testing::TempDir() + "kivr-seeded-run-" + std::to_string(seed) + ".log");
        for (const auto& line : journal) out << line << "\n";
    }
}

}  // namespace
}  // namespace kiv
