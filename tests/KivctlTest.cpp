#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include "ApnsConf.h"
#include "Conversions.h"
#include "Kivctl.h"
#include "Manager.h"
#include "SimModem.h"
#include "Util.h"
#include "diag_host.h"

namespace kivctl {
namespace {

struct Result {
    int status;
    std::string out;
    std::string err;
};

class KivctlFixture : public testing::Test {
  protected:
    void SetUp() override {
        state = testing::TempDir() + "kivctl-" +
                testing::UnitTest::GetInstance()->current_test_info()->name() + ".state";
        remove(state.c_str());
    }
    void TearDown() override { remove(state.c_str()); }

    Result kivctl(std::vector<std::string> args, const std::string& input = "") {
        args.insert(args.begin(), {"--modem-state", state});
        std::istringstream in(input);
        std::ostringstream out, err;
        const int status = run(args, in, out, err);
        return {status, out.str(), err.str()};
    }
    static size_t lines(const std::string& text) {
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    std::string readState() {
        std::ifstream in(state);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    std::string state;
};

class KivctlTest : public KivctlFixture {};

TEST_F(KivctlTest, FirstUseSeedsTableThatPersists) {
    auto r = kivctl({"list"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(lines(r.out), 5u);  // header and four profiles
    EXPECT_NE(r.out.find("internet"), std::string::npos);
    EXPECT_NE(r.out.find("cdma.internet"), std::string::npos);
    EXPECT_NE(readState().find("\"type\": \"3gpp2\",\n      \"index\": 101"), std::string::npos)
            << readState();

    r = kivctl({"add", "--apn", "Kept", "--ip", "v4v6", "--types", "default,ims"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(r.out, "added: profile 4 (3gpp)\n");
    r = kivctl({"--json", "show", "4"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_NE(r.out.find("\"apn\":\"kept\""), std::string::npos);
    EXPECT_NE(r.out.find("\"types\":\"default,ims\""), std::string::npos);
    EXPECT_NE(r.out.find("\"flags\":[\"library\",\"persistent\"]"), std::string::npos);

    // A temporary profile lives only as long as its handle: here, the command.
    r = kivctl({"add", "--temporary", "--apn", "gone"});
    ASSERT_EQ(r.status, kOk);
    r = kivctl({"find", "--apn", "gone"});
    EXPECT_EQ(lines(r.out), 1u) << r.out;
}

TEST_F(KivctlTest, ProfileCommandsModifyFindDelete) {
    ASSERT_EQ(kivctl({"add", "--apn", "data.example", "--ip", "v4"}).status, kOk);
    auto r = kivctl({"modify", "4", "--roam-ip", "v6", "--auth", "chap", "--user", "me"});
    ASSERT_EQ(r.status, kOk) << r.err;
    r = kivctl({"show", "4"});
    EXPECT_NE(r.out.find("roam ip         V6"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("auth            CHAP"), std::string::npos);

    r = kivctl({"find", "--apn", "DATA", "--apn-subset", "--ip", "v4v6", "--home-superset"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(lines(r.out), 2u) << r.out;
    r = kivctl({"find", "--ip", "v4"});
    EXPECT_EQ(lines(r.out), 3u) << r.out;  // mms and the new one
    r = kivctl({"--json", "find", "--kiv", "yes"});
    EXPECT_EQ(r.out.find("\"id\":1,"), std::string::npos);
    EXPECT_NE(r.out.find("\"id\":4,"), std::string::npos);

    EXPECT_EQ(kivctl({"delete", "4"}).status, kOk);
    r = kivctl({"show", "4"});
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_EQ(r.err, "kivctl: no profile 4 (3gpp)\n");
}

TEST_F(KivctlTest, PolicyCommandsFindOrCreate) {
    auto r = kivctl({"attach", "--apn", "internet", "--ip", "v4"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(r.out, "attach profile: profile 1 (3gpp)\n");
    r = kivctl({"attach", "--apn", "lte.attach", "--ip", "v6"});
    EXPECT_EQ(r.out, "attach profile: profile 4 (3gpp)\n");
    r = kivctl({"show", "4"});
    EXPECT_NE(r.out.find("library,attach,persistent"), std::string::npos) << r.out;

    r = kivctl({"data-call", "--tech", "3gpp2", "--apn", "cdma.internet"});
    EXPECT_EQ(r.out, "data-call profile: profile 101 (3gpp2)\n");
    r = kivctl({"data-call", "--allow-update", "--apn", "ims", "--ip", "v6"});
    EXPECT_EQ(r.out, "data-call profile: profile 2 (3gpp)\n");
    EXPECT_NE(kivctl({"show", "2"}).out.find("home ip         V6"), std::string::npos);

    r = kivctl({"emergency", "--apn", "sos"});
    EXPECT_EQ(r.out, "emergency profile: profile 5 (3gpp)\n");
    r = kivctl({"emergency"});
    EXPECT_EQ(r.out, "emergency profile: profile 5 (3gpp)\n");
}

TEST_F(KivctlTest, ApplyApnsReportsUsedSkippedAndWarnings) {
    const std::string example = KIVR_SOURCE_DIR "/examples/apns-conf.xml";
    auto r = kivctl({"apply-apns", example, "--mcc", "001", "--mnc", "01"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_NE(r.out.find("used 5 of 7 entries, skipped 2 (1 MVNO entry, 1 other carrier)"),
              std::string::npos)
            << r.out;
    EXPECT_NE(r.err.find("unknown APN type 'enterprise' skipped"), std::string::npos);
    r = kivctl({"show", "1"});
    EXPECT_NE(r.out.find("types           default,supl,dun"), std::string::npos) << r.out;

    r = kivctl({"apply-apns", example, "--mcc", "001", "--mnc", "01", "--mvno-type", "spn",
                "--mvno-match", "Example Mobile"});
    EXPECT_NE(r.out.find("used 1 of 7"), std::string::npos) << r.out;

    EXPECT_EQ(kivctl({"apply-apns", example, "--mcc", "999", "--mnc", "99"}).status, kBadInput);
    EXPECT_EQ(kivctl({"apply-apns", example + ".missing", "--mcc", "1", "--mnc", "1"}).status,
              kBadInput);
    const std::string broken = state + ".xml";
    std::ofstream(broken) << "<apns><apn mcc=\"001\"";
    r = kivctl({"apply-apns", broken, "--mcc", "001", "--mnc", "01"});
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_NE(r.err.find("cannot read"), std::string::npos);
    remove(broken.c_str());
}

TEST_F(KivctlTest, ShellHandlesOutliveCommandsUntilDropped) {
    const auto r = kivctl({"shell"},
                          "add --temporary --apn t1\n"
                          "find --apn t1\n"
                          "drop #1\n"
                          "find --kiv yes\n"
                          "drop #2\n"
                          "drop #2\n"
                          "list\n");
    EXPECT_EQ(r.status, kBadInput);  // the second drop of #2
    EXPECT_NE(r.out.find("added: profile 4 (3gpp) as #1"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("#2   4    3gpp"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("#3   4    3gpp"), std::string::npos) << r.out;  // still there
    EXPECT_NE(r.err.find("no handle #2"), std::string::npos);
    // #3 went with the shell; the temporary profile with it.
    EXPECT_EQ(kivctl({"find", "--apn", "t1"}).out.find("t1"), std::string::npos);
}

TEST_F(KivctlTest, BadInputOneLineAndStateUntouched) {
    ASSERT_EQ(kivctl({"list"}).status, kOk);
    const std::string before = readState();
    const std::vector<std::vector<std::string>> bad = {
            {"bogus"},
            {"list", "--bogus"},
            {"add", "--max-conns", "lots"},
            {"add", "--max-conns", "70000"},
            {"add", "--ip", "v5"},
            {"add", "--types", "default,warp"},
            {"show", "200"},
            {"show"},
            {"modem", "explode"},
            {"add", "--apn"},
    };
    for (const auto& args : bad) {
        const auto r = kivctl(args);
        EXPECT_EQ(r.status, kBadInput) << args[0];
        EXPECT_EQ(lines(r.err), 1u) << r.err;
        EXPECT_EQ(readState(), before);
    }
    std::ofstream(state) << "[profile 3gpp 1]\nmystery = 1\n";
    const std::string malformed = readState();
    auto r = kivctl({"list"});
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_NE(r.err.find("malformed modem state"), std::string::npos);
    EXPECT_EQ(readState(), malformed);
    remove(state.c_str());

    r = kivctl({"--no-service", "--timeout", "100", "list"});
    EXPECT_EQ(r.status, kRefused);
    EXPECT_EQ(r.err, "kivctl: the modem did not come up within 100 ms\n");
    for (const char* command : {"list", "add", "find", "apply-apns", "modem", "shell"}) {
        r = kivctl({command, "--help"});
        EXPECT_EQ(r.status, kOk);
        EXPECT_EQ(r.out.rfind("usage: kivctl ", 0), 0u) << command;
    }
}

TEST_F(KivctlTest, ModemRestartKeepsPersistentProfiles) {
    auto r = kivctl({"shell"},
                    "add --temporary --apn temp\n"
                    "add --apn kept\n"
                    "modem restart\n"
                    "list\n");
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_NE(r.out.find("modem restarted: 5 profiles on the modem"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("temp "), std::string::npos);
    EXPECT_NE(r.out.find("kept"), std::string::npos);
    r = kivctl({"modem", "reset"});
    EXPECT_EQ(r.out, "modem reset: 4 profiles on the modem\n");
}

}  // namespace
}  // namespace kivctl
