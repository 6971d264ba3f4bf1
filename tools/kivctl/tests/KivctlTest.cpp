#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/Arguments.h"
#include "kivctl/ApnsConf.h"
#include "kivctl/Kivctl.h"

namespace kivctl {
namespace {

using nlohmann::json;

struct Result {
    int status;
    std::string out;
    std::string err;
};

class KivctlFixture : public testing::Test {
  protected:
    void SetUp() override {
        state = testing::TempDir() + "kivctl-" + std::to_string(getpid()) + "-" +
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
    static bool has(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }
    // Every line of --json output is one JSON document.
    static std::vector<json> documents(const std::string& out) {
        std::vector<json> all;
        std::istringstream in(out);
        for (std::string line; std::getline(in, line);) all.push_back(json::parse(line));
        return all;
    }
    std::string readState() {
        std::ifstream in(state);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    static std::string write(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
        return path;
    }

    const std::string example = KIVR_SOURCE_DIR "/examples/apns-conf.xml";
    std::string state;
};

class KivctlTest : public KivctlFixture {};

TEST(KivctlArgumentsTest, ValuesNeverOptionsEachOptionOnce) {
    const std::vector<KnownOption> known = {
            {"--apn", "NAME", ""}, {"--temporary", nullptr, ""}, {"--help", nullptr, ""}};
    struct Row {
        std::vector<std::string> words;
        std::string apn;  // expected --apn, or the error's words
        bool error;
        std::vector<std::string> positionals;
    };
    const std::vector<Row> rows = {
            {{"--apn", "x", "one"}, "x", false, {"one"}},
            {{"--apn=-x", "-"}, "-x", false, {"-"}},
            {{"--apn=a=b"}, "a=b", false, {}},
            {{"--", "--apn", "-h"}, "", false, {"--apn", "-h"}},
            {{"--apn", "--temporary"}, "option --apn needs NAME", true, {}},
            {{"--apn", "-1"}, "write --apn=VALUE", true, {}},
            {{"--apn"}, "option --apn needs NAME", true, {}},
            {{"--apn="}, "not an empty word", true, {}},
            {{"--temporary=yes"}, "takes no value", true, {}},
            {{"--apn", "a", "--apn=b"}, "given twice", true, {}},
            {{"-t"}, "unknown option '-t'", true, {}},
            {{"--user", "me"}, "unknown option '--user'", true, {}},
    };
    for (const auto& row : rows) {
        const std::string line = testing::PrintToString(row.words);
        if (row.error) {
            try {
                Arguments::parse(row.words, known);
                ADD_FAILURE() << line << " was accepted";
            } catch (const UsageError& e) {
                EXPECT_TRUE(std::string(e.what()).find(row.apn) != std::string::npos)
                        << line << ": " << e.what();
            }
            continue;
        }
        const Arguments args = Arguments::parse(row.words, known);
        EXPECT_EQ(args.value("--apn").value_or(""), row.apn) << line;
        EXPECT_EQ(args.positionals(), row.positionals) << line;
    }
    EXPECT_TRUE(Arguments::parse({"-h"}, known).has("--help"));

    EXPECT_EQ(parseNumber("010", "x", 0, 255), 10);
    for (const char* bad : {"", " 5", "+5", "-1", "256", "5x", "0x1F", "1e3", "99999999999"}) {
        EXPECT_THROW(parseNumber(bad, "x", 0, 255), UsageError) << bad;
    }
    try {
        parseNumber("0", "a profile id", 1, 255);
    } catch (const UsageError& e) {
        EXPECT_STREQ(e.what(), "bad number '0' for a profile id (1 to 255)");
    }
    EXPECT_EQ(quote("a\nb\\\x1b\xc2\x9b\xc3\xa9"), "'a\\x0Ab\\x5C\\x1B\\xC2\\x9B\xc3\xa9'");
    EXPECT_EQ(quote("\xff\xc3\xa9"), "'\\xFF\\xC3\\xA9'");
}

TEST_F(KivctlTest, FirstUseSeedsTableThatPersists) {
    auto r = kivctl({"list"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(r.out,
              "ID   TECH   APN            HOME  ROAM  TYPES         AUTH  CLASS  FLAGS\n"
              "1    3gpp   internet       v4v6  -     default,supl  -     inet   persistent\n"
              "2    3gpp   ims            v4v6  -     ims           -     ims    persistent\n"
              "3    3gpp   mms            v4    -     mms           -     app    persistent\n"
              "101  3gpp2  cdma.internet  v4v6  -     -             -     -      persistent\n");
    EXPECT_EQ(kivctl({"show", "3"}).out,
              "profile 3 (3gpp)\n"
              "  apn      mms\n"
              "  home ip  v4\n"
              "  types    mms\n"
              "  class    app\n"
              "  flags    persistent\n"
              "on the modem:\n"
              "  apn_class      4\n"
              "  apn_name       \"mms\"\n"
              "  apn_type_mask  4\n"
              "  pdp_type       0\n"
              "  persistent     1\n"
              "  profile_name   \"mms\"\n");
    EXPECT_EQ(json::parse(kivctl({"list", "--json"}).out)["profiles"][0],
              json::parse(R"({"id":1,"tech":"3gpp","apn":"internet","homeIp":"v4v6","roamIp":null,
                  "types":["default","supl"],"auth":null,"class":"inet","user":null,
                  "maxConns":null,"maxConnsTime":null,"waitTime":null,"flags":["persistent"]})"));

    r = kivctl({"add", "--apn", "Kept", "--ip", "v4v6", "--types", "default,ims"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(r.out, "added: profile 4 (3gpp)\n");
    r = kivctl({"show", "4", "--json"});
    ASSERT_EQ(r.status, kOk) << r.err;
    const json shown = json::parse(r.out);
    EXPECT_EQ(shown["profile"]["apn"], "kept");
    EXPECT_EQ(shown["profile"]["homeIp"], "v4v6");
    EXPECT_EQ(shown["profile"]["types"], json({"default", "ims"}));
    EXPECT_EQ(shown["profile"]["flags"], json({"library", "persistent"}));
    EXPECT_EQ(shown["modem"]["apn_name"], "kept");

    // A temporary profile lives only as long as its handle: here, the command.
    ASSERT_EQ(kivctl({"add", "--temporary", "--apn", "gone"}).status, kOk);
    EXPECT_EQ(lines(kivctl({"find", "--apn", "gone"}).out), 1u);

    // Long and non-ASCII text keeps the table's columns in line.
    const std::string apn(150, 'a');
    ASSERT_EQ(kivctl({"add", "--apn", apn, "--types", "default,mms,supl,dun,ims,fota"}).status,
              kOk);
    ASSERT_EQ(kivctl({"add", "--apn", "caf\xc3\xa9"}).status, kOk);
    r = kivctl({"list"});
    std::istringstream table(r.out);
    std::vector<size_t> techColumn;
    for (std::string line; std::getline(table, line);) {
        size_t characters = 0;
        for (size_t i = 0; i < line.find("3gpp") && i < line.size(); ++i) {
            characters += (static_cast<unsigned char>(line[i]) & 0xC0) != 0x80;
        }
        if (has(line, "3gpp")) techColumn.push_back(characters);
    }
    ASSERT_EQ(techColumn.size(), 7u) << r.out;
    EXPECT_TRUE(std::all_of(techColumn.begin(), techColumn.end(), [&](size_t at) {
        return at == techColumn[0];
    })) << r.out;
    EXPECT_TRUE(has(r.out, "default,mms,supl,dun,fota,ims")) << r.out;
}

TEST_F(KivctlTest, ProfileCommandsModifyFindDelete) {
    ASSERT_EQ(kivctl({"add", "--apn", "data.example", "--ip", "v4"}).status, kOk);
    auto r = kivctl({"modify", "4", "--roam-ip=v6", "--auth", "chap", "--user", "me"});
    ASSERT_EQ(r.status, kOk) << r.err;
    r = kivctl({"show", "4"});
    EXPECT_TRUE(has(r.out, "roam ip  v6")) << r.out;
    EXPECT_TRUE(has(r.out, "auth     chap"));
    EXPECT_TRUE(has(r.out, "on the modem:\n  apn_name                   \"data.example\""));

    r = kivctl({"find", "--apn", "DATA", "--apn-subset", "--ip", "v4v6", "--home-superset"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_EQ(lines(r.out), 2u) << r.out;
    EXPECT_EQ(lines(kivctl({"find", "--ip", "v4"}).out), 3u);  // mms and the new one
    const json mine = json::parse(kivctl({"--json", "find", "--kiv", "yes"}).out);
    ASSERT_EQ(mine["profiles"].size(), 1u);
    EXPECT_EQ(mine["profiles"][0]["id"], 4);

    EXPECT_EQ(kivctl({"delete", "4"}).status, kOk);
    r = kivctl({"show", "4"});
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_EQ(r.err, "kivctl: no profile 4 (3gpp)\n");
}

// What a filter says it matches, 3GPP2 profiles and switches held off or not
// at all included; empty values given and cleared.
TEST_F(KivctlTest, FindMatchesWhatItSays) {
    auto ids = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "--json");
        const auto r = kivctl(args);
        EXPECT_EQ(r.status, kOk) << r.err;
        std::vector<int> found;
        const json said = json::parse(r.out);
        for (const auto& profile : said["profiles"]) found.push_back(profile["id"]);
        return found;
    };
    ASSERT_EQ(kivctl({"add", "--apn=", "--user", "u", "--password", "p", "--types", "mms"}).status,
              kOk);
    EXPECT_EQ(ids({"find", "--kiv", "no"}), (std::vector<int>{1, 2, 3, 101}));
    EXPECT_EQ(ids({"find", "--attach-profile", "no", "--tech", "3gpp2"}), (std::vector<int>{101}));
    EXPECT_EQ(ids({"find", "--kiv", "yes"}), (std::vector<int>{4}));
    EXPECT_EQ(ids({"find", "--clat", "off"}), (std::vector<int>{1, 2, 3, 4, 101}));
    EXPECT_EQ(ids({"find", "--emergency", "on"}), (std::vector<int>{}));
}

// An empty value is given as such, and clears a field.
TEST_F(KivctlTest, EmptyValuesClearFields) {
    ASSERT_EQ(kivctl({"add", "--apn=", "--user", "u", "--password", "p", "--types", "mms"}).status,
              kOk);
    const json before = json::parse(kivctl({"--json", "show", "4"}).out)["modem"];
    EXPECT_EQ(before["apn_name"], "");
    EXPECT_EQ(before["username"], "u");
    ASSERT_EQ(kivctl({"modify", "4", "--user=", "--password", "", "--types", "none"}).status, kOk);
    const json after = json::parse(kivctl({"--json", "show", "4"}).out)["modem"];
    EXPECT_EQ(after["username"], "");
    EXPECT_EQ(after["apn_type_mask"], 0);
    EXPECT_EQ(kivctl({"modify", "4", "--ip="}).status, kBadInput);
}

// The policy commands say what they did besides naming a profile.
TEST_F(KivctlTest, PolicyCommandsSayWhatTheyCreatedChangedOrDidNotMatch) {
    const struct {
        std::vector<std::string> args;
        std::string out;
    } rows[] = {
            {{"attach", "--apn", "ims", "--ip", "v4v6", "--types", "ia"},
             "attach profile: profile 2 (3gpp)\n  changed: types ims -> ia\n"},
            {{"data-call", "--apn", "new.one", "--ip", "v4"},
             "data-call profile: profile 4 (3gpp)\n"
             "  created, temporary: it goes when this command ends\n"},
            {{"emergency", "--apn", "sos"},
             "emergency profile: profile 4 (3gpp)\n  created, persistent\n"},
            {{"emergency", "--apn", "other"},
             "emergency profile: profile 4 (3gpp)\n"
             "  not as asked: apn other (it holds sos); the library's rules chose it\n"},
            {{"data-call", "--tech", "3gpp2"},
             "data-call profile: profile 101 (3gpp2)\n"
             "  no profile options given: the first profile the library's rules accept\n"},
    };
    for (const auto& row : rows) {
        const auto r = kivctl(row.args);
        EXPECT_EQ(r.status, kOk) << r.err;
        EXPECT_EQ(r.out, row.out) << row.args[0];
    }
    const json said =
            json::parse(kivctl({"--json", "attach", "--apn", "ims", "--types", "ims"}).out);
    EXPECT_EQ(said["changed"], json::parse(R"([{"field":"types","before":"ia","after":"ims"}])"));
    EXPECT_EQ(said["created"], false);
    // The temporary data-call profile went with the command.
    EXPECT_FALSE(has(kivctl({"list"}).out, "new.one"));
}

// Faults to come are shown, and cleared by clear and by a reset.
TEST_F(KivctlTest, ModemStatusListsTheFaultsToCome) {
    auto r = kivctl({"shell"},
                    "modem fail create 2\n"
                    "modem timeout list\n"
                    "modem status\n"
                    "modem clear\n"
                    "modem status\n"
                    "modem fail get\n"
                    "modem reset\n"
                    "modem status\n");
    EXPECT_EQ(r.status, kOk) << r.err;
    EXPECT_TRUE(has(r.out, "faults:    the next 2 create fail; no answer to the next list\n"))
            << r.out;
    size_t none = 0;
    for (size_t at = r.out.find("faults:    none to come"); at != std::string::npos;
         at = r.out.find("faults:    none to come", at + 1)) {
        ++none;
    }
    EXPECT_EQ(none, 2u) << r.out;
}

// A read the modem refused is the modem's refusal, not a profile that is
// not there.
TEST_F(KivctlTest, ARefusedReadIsTheModemsRefusal) {
    const auto r = kivctl({"shell"},
                          "modem fail get 1\n"
                          "show 1\n");
    EXPECT_EQ(r.status, kRefused);
    EXPECT_EQ(r.err,
              "kivctl: line 2: show: the modem refused or did not answer 1 request: get "
              "(refused, as injected); not everything was done (kivctl --log tells more)\n");
}

// The shell's help knows its own commands; a handle's number stays with its
// profile.
TEST_F(KivctlTest, ShellHandleNumbersStayWithTheirProfiles) {
    const auto r = kivctl({"shell"},
                          "help\n"
                          "add --temporary --apn first\n"
                          "modem restart\n"
                          "add --temporary --apn second\n"
                          "handles\n");
    EXPECT_EQ(r.status, kOk) << r.err;
    EXPECT_TRUE(has(r.out, "  drop #N       lets go of a handle")) << r.out;
    EXPECT_TRUE(has(r.out, "added: profile 4 (3gpp) as #1\n")) << r.out;
    EXPECT_TRUE(has(r.out, "added: profile 4 (3gpp) as #2\n")) << r.out;
    EXPECT_TRUE(has(r.out, "#1  4   3gpp  -       -     -     -      -     -      stale")) << r.out;
}

// Each value a carrier's entry may hold, as the record the library gets, or
// skipped with a warning that names the entry.
TEST(ApnsConfTest, EntryValuesMappedOrWarnedAbout) {
    const std::string path = testing::TempDir() + "entries-" + std::to_string(getpid()) + ".xml";
    std::ofstream(path) << R"(<apns>
        <apn carrier="a0" apn="a" authtype="0" protocol="IP" roaming_protocol="IPV6" />
        <apn carrier="a1" apn="b" authtype="1" protocol="IPV6" type="default, mms" />
        <apn carrier="a2" apn="c" authtype="2" protocol="IPV4V6" type="*" />
        <apn carrier="a3" apn="d" authtype="3" max_conns="20" max_conns_time="300" wait_time="5" />
        <apn carrier="unset" apn="e" authtype="-1" />
        <apn carrier="bad" apn="f" authtype="4" protocol="IPX" roaming_protocol="v4"
             type="default,warp" wait_time="soon" />
        <apn carrier="word" apn="g" authtype="pap" type="default" />
        <apn carrier="named" apn="h" type="*,ia" />
        </apns>)";
    const auto read = ApnsConf::read(path, std::nullopt);
    remove(path.c_str());
    ASSERT_TRUE(read.ok) << read.error;
    ASSERT_EQ(read.entries.size(), 8u);
    std::vector<std::string> dumps;
    std::vector<bool> anyType;
    for (const auto& entry : read.entries) {
        dumps.push_back(entry.params.dump());
        anyType.push_back(entry.anyType);
    }
    // No type, or "*": every use but attach and emergency, which an entry names.
    const std::string anyUse = "DEFAULT|MMS|SUPL|DUN|HIPRI|FOTA|IMS|CBS|MCX|XCAP|";
    EXPECT_EQ(dumps, (std::vector<std::string>{
                             "ApnName=a,AuthType=NONE,HomeIPType=V4,RoamIPType=V6,ApnTypesMask=" +
                                     anyUse + ",",
                             "ApnName=b,AuthType=PAP,HomeIPType=V6,ApnTypesMask=DEFAULT|MMS|,",
                             "ApnName=c,AuthType=CHAP,HomeIPType=V4V6,ApnTypesMask=" + anyUse + ",",
                             "ApnName=d,AuthType=PAP_CHAP,ApnTypesMask=" + anyUse +
                                     ",MaxPdnsConnPerBlock=20,MaxPdnConnTimer=300,"
                                     "PdnReqWaitInterval=5,",
                             "ApnName=e,ApnTypesMask=" + anyUse + ",",
                             "ApnName=f,ApnTypesMask=DEFAULT|,",
                             "ApnName=g,ApnTypesMask=DEFAULT|,",
                             "ApnName=h,ApnTypesMask=DEFAULT|MMS|SUPL|DUN|HIPRI|FOTA|IMS|CBS|IA|"
                             "MCX|XCAP|,",
                     }));
    EXPECT_EQ(anyType, (std::vector<bool>{true, false, true, true, true, false, false, true}));
    EXPECT_EQ(read.warnings,
              (std::vector<std::string>{"'bad' (/): unknown APN type 'warp' skipped",
                                        "'bad' (/): unknown protocol 'IPX' skipped",
                                        "'bad' (/): unknown roaming_protocol 'v4' skipped",
                                        "'bad' (/): unknown authtype '4' skipped",
                                        "'bad' (/): bad wait_time 'soon' skipped",
                                        "'word' (/): unknown authtype 'pap' skipped"}));
}

TEST(ApnsConfTest, SimMatchesMvnoEntriesAsDevicesDecide) {
    SimIdentity sim;
    sim.imsi = "310260123456789";
    sim.gid1 = "BAE0000000000000";
    sim.spn = "Example Mobile";
    sim.iccid = "8901260123456789012";
    struct Row {
        const char* type;
        const char* data;
        bool matches;
    };
    for (const Row& row : std::vector<Row>{{"imsi", "310260123456789", true},
                                           {"imsi", "31026012xxxxxxx", true},
                                           {"imsi", "31026013xxxxxxx", false},
                                           {"imsi", "3102601234", true},  // a prefix
                                           {"imsi", "3102601234567890", false},
                                           {"gid", "bae0", true},
                                           {"gid", "BAE1", false},
                                           {"spn", "EXAMPLE MOBILE", true},
                                           {"spn", "Example", false},
                                           {"iccid", "89012601", true},
                                           {"iccid", "89012602", false},
                                           {"pnn", "Example Mobile", false}}) {
        EXPECT_EQ(mvnoMatches(row.type, row.data, sim), row.matches) << row.type << " " << row.data;
    }
    EXPECT_FALSE(mvnoMatches("spn", "Example Mobile", SimIdentity()));
}

// A dry run says what would change and changes nothing; the run itself
// changes it.
TEST_F(KivctlTest, ApplyApnsDryRunChangesNothing) {
    ASSERT_EQ(kivctl({"list"}).status, kOk);
    const std::string untouched = readState();
    auto r = kivctl({"apply-apns", example, "--mcc", "001", "--mnc", "01", "--dry-run"});
    ASSERT_EQ(r.status, kOk) << r.err;
    EXPECT_TRUE(has(r.out,
                    "used 5 of 7 entries, skipped 2 (1 for an MVNO the SIM is not, "
                    "1 for another carrier); 1 warning\n"))
            << r.out;
    EXPECT_TRUE(has(r.out, "modem profiles that would be updated: 2\n"));
    EXPECT_TRUE(has(r.out, "1    3gpp   internet       default,supl  default,supl,dun\n")) << r.out;
    EXPECT_EQ(r.err,
              "kivctl: warning: 'Example Enterprise' (001/01): unknown APN type "
              "'enterprise' skipped\n");
    EXPECT_EQ(readState(), untouched);
    EXPECT_TRUE(has(kivctl({"show", "1"}).out, "types    default,supl\n"));

    r = kivctl({"apply-apns", example, "--mcc", "001", "--mnc", "01", "--json"});
    const json applied = json::parse(r.out);
    EXPECT_EQ(applied["used"], 5);
    EXPECT_EQ(applied["warnings"], 1);
    EXPECT_EQ(applied["profilesUpdated"], 2);
    EXPECT_EQ(applied["dryRun"], false);
    EXPECT_EQ(applied["profiles"][0]["typesAfter"], json({"default", "supl", "dun"}));
    EXPECT_TRUE(has(kivctl({"show", "1"}).out, "types    default,supl,dun\n"));
}

TEST_F(KivctlTest, ApplyApnsSelectsTheSimsEntries) {
    // The SIM's MVNO entries replace the host's, whatever the letter case.
    auto r = kivctl(
            {"apply-apns", example, "--mcc", "001", "--mnc", "01", "--spn", "EXAMPLE mobile"});
    EXPECT_TRUE(has(r.out, "used 1 of 7")) << r.out;

    // A carrier served only through MVNOs says what names the SIM.
    const std::string mvnoOnly = write(state + ".xml", R"(<apns>
        <apn mcc="002" mnc="02" apn="a" type="default" mvno_type="spn" mvno_match_data="A" />
        <apn mcc="002" mnc="02" apn="b" type="default" mvno_type="gid" mvno_match_data="b0" />
        </apns>)");
    r = kivctl({"apply-apns", mvnoOnly, "--mcc", "002", "--mnc", "02"});
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_EQ(r.err, "kivctl: carrier 002/02 has only MVNO entries in " + mvnoOnly +
                             ": name the SIM with --gid1 HEX, --spn NAME\n");
    r = kivctl({"apply-apns", mvnoOnly, "--mcc", "002", "--mnc", "02", "--gid1", "B0FF"});
    EXPECT_EQ(r.status, kOk) << r.err;
    remove(mvnoOnly.c_str());
}

TEST_F(KivctlTest, BadInputOneLineNamingTheCauseStateUntouched) {
    ASSERT_EQ(kivctl({"list"}).status, kOk);
    const std::string before = readState();
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string words;
    };
    const std::vector<Row> rows = {
            {{"bogus"}, kBadInput, "unknown command 'bogus'"},
            {{}, kBadInput, "no command"},
            {{"list", "--bogus"}, kBadInput, "unknown option '--bogus'"},
            {{"list", "--json", "--json"}, kBadInput, "option --json given twice"},
            {{"list", "extra"}, kBadInput, "unexpected argument 'extra'"},
            {{"add", "--apn", "--user", "me"}, kBadInput, "option --apn needs NAME"},
            {{"add", "--apn"}, kBadInput, "option --apn needs NAME"},
            {{"add", "--max-conns", "lots"}, kBadInput, "for --max-conns (0 to 65535)"},
            {{"add", "--max-conns", "70000"}, kBadInput, "for --max-conns (0 to 65535)"},
            {{"show", "0"}, kBadInput, "for a profile id (1 to 255)"},
            {{"show"}, kBadInput, "show needs more"},
            {{"show", "#1"}, kBadInput, "in the shell only"},
            {{"delete", "1", "--tech", "4g"}, kBadInput, "'4g' for --tech (3gpp|3gpp2)"},
            {{"add", "--ip", "v5"}, kBadInput, "'v5' for --ip (v4|v6|v4v6)"},
            {{"add", "--types", "default,warp"}, kBadInput, "unknown APN type 'warp'"},
            {{"add", "--apn", std::string(151, 'a')}, kBadInput, "the modem holds at most 150"},
            {{"add", "--user", std::string(128, 'u')}, kBadInput, "--user holds 128 bytes"},
            {{"add", "--password", std::string(128, 'p')}, kBadInput, "at most 127"},
            {{"add", "--apn", "a\nb"}, kBadInput, "--apn holds a control character ('\\x0A')"},
            {{"add", "--apn", "\xff"}, kBadInput, "--apn is not UTF-8"},
            {{"find", "--user", "\x1b[31m"}, kBadInput, "control character ('\\x1B')"},
            {{"add", "--tech", "3gpp2", "--attach"}, kBadInput, "--attach is not for 3GPP2"},
            {{"add", "--tech", "3gpp2", "--wait-time", "3"}, kBadInput, "--wait-time is not for"},
            {{"add", "--tech", "3gpp2", "--max-conns", "3"}, kBadInput, "--max-conns is not for"},
            {{"add", "--tech", "3gpp2", "--max-conns-time", "3"}, kBadInput, "is not for 3GPP2"},
            {{"modify", "101", "--roam-ip", "v6"}, kBadInput, "--roam-ip is not for 3GPP2"},
            {{"modify", "101", "--disabled", "yes"}, kBadInput, "--disabled is not for 3GPP2"},
            {{"modify", "101", "--emergency", "yes"}, kBadInput, "--emergency is not for 3GPP2"},
            {{"apply-apns", example, "--mcc", "999", "--mnc", "99"},
             kBadInput,
             "no entries for carrier 999/99"},
            {{"apply-apns", "/nonexistent.xml", "--mcc", "1", "--mnc", "1"},
             kBadInput,
             "cannot read /nonexistent.xml: No such file or directory"},
            {{"apply-apns", example}, kBadInput, "needs --mcc and --mnc"},
            {{"watch"}, kBadInput, "watch needs the modem service"},
            {{"modem", "explode"}, kBadInput, "unknown modem action 'explode'"},
            {{"modem", "fail", "create"}, kBadInput, "lasts for one command only"},
            {{"modem", "send", "raw", "1", "abc"}, kBadInput, "pairs of hex digits"},
            {{"help", "bogus"}, kBadInput, "unknown command 'bogus'"},
            {{"--instance", "256", "list"}, kBadInput, "for --instance (0 to 255)"},
            {{"add", "--apn", "nel\xc2\x85x"}, kBadInput, "control character ('\\xC2\\x85')"},
            {{"add", "--max-conns", "0x10"}, kBadInput, "bad number '0x10'"},
            {{"apply-apns"}, kBadInput, "apply-apns needs more"},
            {{"apply-apns", "/dev/zero", "--mcc", "1", "--mnc", "1"},
             kBadInput,
             "not a regular file"},
            {{"apply-apns", example, "--mcc", "001", "--mnc", "01", "--imsi", "abc"},
             kBadInput,
             "bad value 'abc' for --imsi"},
            {{"--modem", "/nowhere", "list"}, kBadInput, "--modem-state is for kivctl's own modem"},
            {{"--no-service", "list"},
             kRefused,
             "the modem's data service is down (kivctl modem up brings it back)"},
    };
    for (const auto& row : rows) {
        const auto r = kivctl(row.args);
        const std::string line = testing::PrintToString(row.args);
        EXPECT_EQ(r.status, row.status) << line << ": " << r.err;
        EXPECT_EQ(lines(r.err), 1u) << line << ": " << r.err;
        EXPECT_TRUE(has(r.err, row.words)) << line << ": " << r.err;
        EXPECT_EQ(r.out, "") << line;
        EXPECT_EQ(readState(), before) << line;
    }

    // Where the table lives is never a guess.
    std::vector<std::string> noState = {"--modem-state", "", "list"};
    std::ostringstream out, err;
    std::istringstream in;
    EXPECT_EQ(run(noState, in, out, err), kBadInput);
    EXPECT_TRUE(has(err.str(), "--modem-state needs FILE, not an empty word")) << err.str();
    unsetenv("HOME");
    unsetenv("XDG_STATE_HOME");
    err.str("");
    EXPECT_EQ(run({"list"}, in, out, err), kBadInput);
    EXPECT_TRUE(has(err.str(), "set HOME or XDG_STATE_HOME, or give --modem-state FILE"));

    for (const char* empty : {"", "\n  \n", "# nothing\n"}) {
        std::ofstream(state) << empty;
        const auto r = kivctl({"list"});
        EXPECT_EQ(r.status, kBadInput) << r.out;
        EXPECT_TRUE(has(r.err, "malformed modem state")) << r.err;
        EXPECT_EQ(readState(), empty);
    }
    std::ofstream(state) << "{\"profiles\": [{\"type\": \"3gpp\"}]}";
    const std::string malformed = readState();
    const auto r = kivctl({"list"});
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_TRUE(has(r.err, "malformed modem state")) << r.err;
    EXPECT_EQ(readState(), malformed);
}

TEST_F(KivctlTest, JsonOutputIsJsonForEveryCommand) {
    const std::vector<std::vector<std::string>> commands = {
            {"list"},
            {"add", "--apn", "j\xc3\xa9", "--types", "default,mms", "--auth", "pap_chap"},
            {"modify", "4", "--user", "u"},
            {"show", "4"},
            {"find", "--apn", "j\xc3\xa9"},
            {"attach", "--apn", "internet"},
            {"data-call", "--apn", "ims"},
            {"emergency"},
            {"apply-apns", example, "--mcc", "001", "--mnc", "01", "--dry-run"},
            {"dump"},
            {"modem", "status"},
            {"modem", "restart"},
            {"modem", "send", "profile-ready"},
            {"modem", "send", "changed", "3gpp", "1", "modify"},
            {"delete", "4"},
            {"help"},
            {"list", "--help"},
            {"--version"},
    };
    for (const auto& command : commands) {
        auto args = command;
        args.push_back("--json");
        const auto r = kivctl(args);
        ASSERT_EQ(r.status, kOk) << command[0] << ": " << r.err;
        const auto docs = documents(r.out);
        ASSERT_EQ(docs.size(), 1u) << r.out;
        EXPECT_TRUE(docs[0].is_object()) << r.out;
    }
    const json added =
            json::parse(kivctl({"add", "--apn", "x", "--auth", "pap_chap", "--json"}).out);
    EXPECT_EQ(added["action"], "added");
    EXPECT_EQ(added["profile"]["auth"], "pap_chap");

    // The shell answers each line with a document, help and handles too.
    const auto r = kivctl({"shell", "--json"}, "add --temporary --apn s\nhandles\ndrop #1\nhelp\n");
    ASSERT_EQ(r.status, kOk) << r.err;
    const auto docs = documents(r.out);
    ASSERT_EQ(docs.size(), 4u) << r.out;
    EXPECT_EQ(docs[1]["handles"][0]["apn"], "s");
    EXPECT_EQ(docs[2]["dropped"], "#1");
    EXPECT_TRUE(docs[3].contains("help"));
}

TEST_F(KivctlTest, ShellKeepsOneHandlePerProfileAndNamesLines) {
    auto r = kivctl({"shell"},
                    "add --temporary --apn t1\r\n"
                    "modify #1 --user me\r\n"
                    "find --apn t1\n"
                    "\n"
                    "drop #1\n"
                    "drop #1\n"
                    "show \x1b[31m\n");
    EXPECT_EQ(r.status, kBadInput);
    EXPECT_TRUE(has(r.out, "added: profile 4 (3gpp) as #1\nmodified: profile 4 (3gpp) as #1\n"))
            << r.out;
    EXPECT_TRUE(has(r.out, "#1  4   3gpp  t1")) << r.out;
    EXPECT_EQ(r.err,
              "kivctl: line 6: no handle #1\n"
              "kivctl: line 7: bad number '\\x1B[31m' for a profile id (1 to 255)\n");
    // The temporary profile went with its handle.
    EXPECT_EQ(lines(kivctl({"find", "--apn", "t1"}).out), 1u);

    // After a restart a handle says it is stale; finding the profile again
    // gives the handle a live key.
    r = kivctl({"shell"},
               "add --apn kept\n"
               "add --temporary --apn temp\n"
               "modem restart\n"
               "show #1\n"
               "show #2\n"
               "find --apn kept\n"
               "show #1\n");
    EXPECT_EQ(r.status, kRefused);
    EXPECT_TRUE(has(r.out, "modem restarted: 5 profiles on the modem\n")) << r.out;
    EXPECT_TRUE(has(r.err, "kivctl: line 4: #1 no longer names a profile")) << r.err;
    EXPECT_TRUE(has(r.err, "kivctl: line 5: #2 no longer names a profile")) << r.err;
    EXPECT_EQ(lines(r.err), 2u) << r.err;
    EXPECT_TRUE(has(r.out, "profile 4 (3gpp)\n  apn    kept\n")) << r.out;
    EXPECT_EQ(kivctl({"modem", "reset"}).out, "modem reset: 4 profiles on the modem\n");

    // What the modem refused or did not answer is never reported done.
    r = kivctl({"shell"},
               "modem fail modify  # the next modify is refused\n"
               "modify 1 --types default\n"
               "add --temporary --apn t\n"
               "modem timeout list\n"
               "modem restart\n"
               "handles\n");
    EXPECT_EQ(r.status, kRefused);
    EXPECT_TRUE(has(r.err,
                    "line 2: modify: the modem refused or did not answer 1 request: modify "
                    "(refused, as injected); not everything was done"))
            << r.err;
    EXPECT_TRUE(has(r.err,
                    "line 5: modem: the modem refused or did not answer 1 request: list (no "
                    "answer in time);"))
            << r.err;
    EXPECT_EQ(lines(r.err), 2u) << r.err;
    EXPECT_FALSE(has(r.out, "modified")) << r.out;
    EXPECT_TRUE(has(r.out, "stale\n")) << r.out;
    EXPECT_TRUE(has(kivctl({"show", "1"}).out, "types    default,supl\n"));
}

}  // namespace
}  // namespace kivctl
