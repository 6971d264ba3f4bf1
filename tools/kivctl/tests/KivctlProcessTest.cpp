// kivctl run as a user runs it, in processes of its own: its modem on a
// state file (faults of the disk and of the process), and what it prints.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/ServiceFixture.h"

namespace kiv {
namespace {

using namespace test;

// kivctl's embedded modem on a state file, run as a user runs it.
class KivctlProcessTest : public ServiceFixture {};

TEST_F(KivctlProcessTest, StateFileFaultsNothingLostNothingCorruptNoFalseSuccess) {
    auto embedded = [&](std::vector<std::string> args, const Subprocess::Options& options = {}) {
        args.insert(args.begin(), {"--modem-state", state});
        return Subprocess::run(command(KIVCTL_PATH, args), "", options);
    };
    ASSERT_EQ(embedded({"list"}).status, 0);
    auto inode = [&] {
        struct stat info {};
        stat(state.c_str(), &info);
        return info.st_ino;
    };

    // Read-only and rejected commands leave the file as it is.
    const auto untouched = inode();
    for (const auto& args : std::vector<std::vector<std::string>>{{"list"},
                                                                  {"show", "1"},
                                                                  {"find", "--apn", "ims"},
                                                                  {"add", "--ip", "v5"},
                                                                  {"delete", "77"},
                                                                  {"modify", "1"}}) {
        embedded(args);
        EXPECT_EQ(inode(), untouched) << args[0];
    }

    // A full disk: the add is refused with the reason, and the file is whole.
    const std::string before = read(state);
    Subprocess::Options full;
    full.fileSizeLimit = static_cast<long>(before.size());
    auto result = embedded({"add", "--apn", "a.rather.long.access.point.name"}, full);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("the modem could not store the change: cannot write " + state +
                              ": File too large"),
              std::string::npos)
            << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(read(state), before);

    // A read-only folder: reading works, a change fails with the reason.
    Subprocess::Options nobody;
    nobody.asNobody = true;
    fs::permissions(state, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
    fs::remove(state + ".lock");
    fs::permissions(dir, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                                 fs::perms::group_exec | fs::perms::others_read |
                                 fs::perms::others_exec);
    fs::permissions(fs::path(dir).parent_path(), fs::perms::others_exec, fs::perm_options::add);
    result = embedded({"list"}, nobody);
    EXPECT_EQ(result.status, 0) << result.err;
    result = embedded({"add", "--apn", "x"}, nobody);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("Permission denied"), std::string::npos) << result.err;
    // A new table in that folder: the folder is the trouble, and it says so.
    result = Subprocess::run(command(KIVCTL_PATH, {"--modem-state", dir + "/new.state", "list"}),
                             "", nobody);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "kivctl: cannot make " + dir + "/new.state: the folder " + dir +
                                  " cannot be written: Permission denied\n");
    fs::permissions(dir, fs::perms::owner_all);
    EXPECT_EQ(read(state), before);

    // A symlinked state file keeps its link, and its mode.
    fs::rename(state, dir + "/target.state");
    fs::create_symlink("target.state", state);
    chmod((dir + "/target.state").c_str(), 0640);
    result = embedded({"add", "--apn", "through.the.link"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(fs::is_symlink(state));
    EXPECT_NE(read(dir + "/target.state").find("through.the.link"), std::string::npos);
    EXPECT_EQ(fs::status(dir + "/target.state").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);

    // A shell ended by a signal keeps every change it reported done.
    for (const int signal : {SIGTERM, SIGINT}) {
        const std::string apn = "kept.by.shell" + std::to_string(signal);
        Subprocess shell(command(KIVCTL_PATH, {"--modem-state", state, "shell"}),
                         Subprocess::Options());
        shell.write("add --apn " + apn + "\n");
        ASSERT_TRUE(shell.waitForOutput("added", 20s)) << shell.finish(1s).err;
        shell.kill(signal);
        shell.finish();
        EXPECT_NE(read(state).find(apn), std::string::npos) << signal;
    }

    // A state path that is a folder: refused with the reason, nothing made.
    fs::create_directories(dir + "/folder.state");
    result = Subprocess::run(command(KIVCTL_PATH, {"--modem-state", dir + "/folder.state", "add"}));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "kivctl: " + dir + "/folder.state is not a regular file\n");

    // A table the user may not read: refused with the system's reason.
    fs::permissions(dir + "/target.state", fs::perms::owner_read | fs::perms::owner_write);
    result = embedded({"list"}, nobody);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("Permission denied"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("malformed"), std::string::npos) << result.err;

    // A damaged or oversized table is refused, and left as it is.
    for (const std::string& text :
         {read(state).substr(0, read(state).rfind("\n  ]")),
          std::string(
                  R"({"format":"kivr-modem-state","version":2,"profiles":[{"type":"3gpp","index":30}]})")}) {
        std::ofstream(dir + "/target.state") << text;
        result = embedded({"list"});
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.err.find("malformed modem state"), std::string::npos) << result.err;
        EXPECT_EQ(read(dir + "/target.state"), text);
    }
}

// No password reaches what kivctl prints, whatever the command, the output
// form, the technology or the modem, though the library's own texts carry
// them.
TEST_F(KivctlProcessTest, NoPasswordInAnythingKivctlPrints) {
    startDaemon();
    const std::vector<std::string> secrets = {"TopSecret123", "Top,Secret=Pass"};
    std::string printed;
    auto run = [&](std::vector<std::string> args, const std::string& input = "") {
        const auto result = Subprocess::run(command(KIVCTL_PATH, args), input);
        printed += result.out + result.err;
        return result;
    };
    Subprocess watch(command(KIVCTL_PATH, {"--modem", socket, "--json", "watch", "--count", "4"}),
                     Subprocess::Options());
    ASSERT_TRUE(watch.waitForOutput("watching", 20s, /*fromError=*/true));
    for (const auto& modem : std::vector<std::vector<std::string>>{
                 {"--modem", socket}, {"--modem-state", dir + "/own.state"}}) {
        auto on = [&](std::vector<std::string> args) {
            args.insert(args.begin(), modem.begin(), modem.end());
            return args;
        };
        ASSERT_EQ(
                run(on({"add", "--apn", "a3gpp", "--user", "u", "--password", secrets[0]})).status,
                0);
        ASSERT_EQ(run(on({"--json", "add", "--tech", "3gpp2", "--apn", "a3gpp2", "--user", "u",
                          "--password", secrets[1]}))
                          .status,
                  0);
        for (const auto& args : std::vector<std::vector<std::string>>{
                     {"show", "4"},
                     {"--json", "show", "102"},
                     {"--json", "list"},
                     {"find", "--apn", "a3gpp2"},
                     {"dump"},
                     {"--json", "dump"},
                     {"--log", "list"},
                     {"--log", "modify", "102", "--password", "TopSecretToo"}}) {
            EXPECT_EQ(run(on(args)).status, 0) << args[0];
        }
        run(on({"--log", "shell"}), "find --apn a3gpp\nhandles\nshow #1\ndump\n");
    }
    printed += watch.finish().out;
    for (const auto& secret : {"TopSecret", "Secret=Pass"}) {
        EXPECT_EQ(printed.find(secret), std::string::npos) << secret << " printed:\n" << printed;
    }
    EXPECT_NE(printed.find("Password=(hidden)"), std::string::npos) << printed;
}

// kivctl's standard output is its own: --json output in the shell is JSON,
// line after line, whatever the library writes; a state file named on the
// command line is used even when KIVR_MODEM names a service.
TEST_F(KivctlProcessTest, ShellOnTheStateFileNamedPrintsOnlyItsOwnJson) {
    Subprocess::Options elsewhere;
    elsewhere.environment.push_back("KIVR_MODEM=" + dir + "/no.such.sock");
    const auto result = Subprocess::run(
            command(KIVCTL_PATH, {"--modem-state", state, "--json", "shell"}),
            "add --temporary --apn x\nlist\nhandles\nmodem restart\ndump\nhelp\n", elsewhere);
    ASSERT_EQ(result.status, 0) << result.err;
    std::istringstream lines(result.out);
    size_t documents = 0;
    for (std::string line; std::getline(lines, line); ++documents) {
        EXPECT_TRUE(nlohmann::json::accept(line)) << "not JSON: " << line;
    }
    EXPECT_EQ(documents, 6u) << result.out;
}

}  // namespace
}  // namespace kiv
