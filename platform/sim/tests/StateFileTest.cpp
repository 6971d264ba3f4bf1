#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "sim/ModemCore.h"
#include "sim/StateFile.h"

namespace {

namespace fs = std::filesystem;
using xalsim::Settings;
using xalsim::StateFile;
using xalsim::Table;

std::string read(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A folder of its own for each test.
class StateFileFixture : public testing::Test {
  protected:
    void SetUp() override {
        dir = testing::TempDir() + "statefile-" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(dir);
        fs::create_directories(dir);
        path = dir + "/modem.state";
    }
    void TearDown() override {
        fs::permissions(dir, fs::perms::owner_all);
        fs::remove_all(dir);
    }
    StateFile open(const std::string& owner = "test") {
        auto state = StateFile::open(path, owner, std::chrono::milliseconds(0));
        EXPECT_TRUE(state.ok()) << state.error().message();
        return std::move(*state);
    }
    // Every file of the folder but the lock.
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir)) {
            const std::string name = entry.path().filename();
            if (name.find(".lock") == std::string::npos) names.push_back(name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string dir;
    std::string path;
};

// A table with every kind of field: text that is not UTF-8, text filling its
// array without a terminator, the largest numbers, enumerations out of range.
Table everyKindOfField() {
    Table table = xalsim::factoryTable();
    Settings s = xalsim::make3gppSettings("ims", "ims\"quoted\"\\", WDS_PDP_TYPE_PDP_IPV6_V01,
                                          0xFFFFFFFFFFFFFFFFull, false);
    s.max_pdn_conn_timer_valid = 1;
    s.max_pdn_conn_timer = 65535;
    s.override_home_pdp_type_valid = 1;
    s.override_home_pdp_type = static_cast<wds_common_pdp_type_enum_v01>(-7);
    s.username_valid = 1;
    strcpy(s.username, "\x01\xff\xfe");
    s.password_valid = 1;
    memset(s.password, 'p', sizeof(s.password));  // no terminator
    s.apn_string_valid = 1;
    strcpy(s.apn_string, "caf\xc3\xa9");  // UTF-8 as it is
    table[{WDS_PROFILE_TYPE_3GPP_V01, 200}] = s;
    return table;
}

bool sameTables(const Table& a, const Table& b) {
    if (a.size() != b.size()) return false;
    for (const auto& [slot, settings] : a) {
        auto it = b.find(slot);
        if (it == b.end() || memcmp(&it->second, &settings, sizeof(Settings)) != 0) return false;
    }
    return true;
}

class StateFileTest : public StateFileFixture {};

TEST_F(StateFileTest, SaveThenLoadGivesTheSameTableAndBytes) {
    const Table table = everyKindOfField();
    StateFile state = open();
    EXPECT_FALSE(state.exists());
    ASSERT_TRUE(state.save(table).ok());
    auto loaded = state.load();
    ASSERT_TRUE(loaded.ok()) << loaded.error().message();
    EXPECT_TRUE(sameTables(*loaded, table));
    EXPECT_EQ(StateFile::serialize(*loaded), read(path));
    EXPECT_NE(read(path).find("\"username\": {\n        \"hex\": \"01fffe\""), std::string::npos)
            << read(path);
}

TEST_F(StateFileTest, DamagedFilesAreRefusedWithTheReason) {
    // A file cut anywhere, at a line boundary too, is not loaded as a smaller table.
    const std::string whole = StateFile::serialize(xalsim::factoryTable());
    for (size_t cut = whole.find('\n'); cut + 2 < whole.size(); cut = whole.find('\n', cut + 1)) {
        EXPECT_FALSE(StateFile::parse(whole.substr(0, cut + 1)).ok()) << cut;
    }
    const struct {
        std::string text;
        std::string reason;
    } kBad[] = {
            {whole.substr(0, whole.size() / 2), "cut short"},
            {R"({"format":"kivr-modem-state","version":2,"profiles":[{"type":"3gpp","index":1,"mystery":1}]})",
             "unknown field \"mystery\""},
            {R"({"format":"kivr-modem-state","version":2,"profiles":[{"type":"3gpp","index":1,"max_pdn_conn_timer":70000}]})",
             "bad value 70000"},
            {R"({"format":"kivr-modem-state","version":2,"profiles":[{"type":"3gpp2","index":7}]})",
             "from 101 to 255"},
            {R"({"format":"kivr-modem-state","version":2,"profiles":[{"type":"3gpp","index":1},{"type":"3gpp","index":1}]})",
             "listed twice"},
            {R"({"format":"kivr-modem-state","version":3,"profiles":[]})", "unsupported version 3"},
            {R"({"format":7,"version":2,"profiles":[]})", "not a modem state document"},
            {R"({"format":"kivr-modem-state","version":2,"profiles":[{"type":"3gpp","index":1,"apn_name":{"hex":"zz"}}]})",
             "bad value"},
            {"garbage\n", "not a modem state document (it holds no JSON object"},
    };
    for (const auto& bad : kBad) {
        auto result = StateFile::parse(bad.text);
        ASSERT_FALSE(result.ok()) << bad.text;
        EXPECT_NE(result.error().message().find(bad.reason), std::string::npos)
                << result.error().message();
    }
}

// A save's new table is on the disk before it replaces the old one, and the
// replacement reaches the disk with the folder: a power cut at any moment
// leaves the old table or the new one.
std::vector<std::string>* sDiskLog = nullptr;

std::string pathOf(int fd) {
    char target[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    return readlink(link.c_str(), target, sizeof(target) - 1) > 0 ? target : "?";
}

TEST_F(StateFileTest, SaveSyncsTheNewTableBeforeItReplacesTheOldOne) {
    std::vector<std::string> calls;
    sDiskLog = &calls;
    StateFile::setDiskCalls({[](int fd) {
                                 sDiskLog->push_back("fsync " + pathOf(fd));
                                 return ::fsync(fd);
                             },
                             [](const char* from, const char* to) {
                                 sDiskLog->push_back(std::string("rename ") + from + " " + to);
                                 return ::rename(from, to);
                             }});
    StateFile state = open();
    const bool saved = state.save(xalsim::factoryTable()).ok();
    StateFile::setDiskCalls({::fsync, ::rename});
    sDiskLog = nullptr;
    ASSERT_TRUE(saved);
    ASSERT_EQ(calls.size(), 3u) << testing::PrintToString(calls);
    const std::string temporary = calls[0].substr(strlen("fsync "));
    EXPECT_NE(temporary.find(dir + "/.modem.state."), std::string::npos) << calls[0];
    EXPECT_EQ(calls[1], "rename " + temporary + " " + path);
    EXPECT_EQ(calls[2], "fsync " + dir);
}

// A new file is private, an old one keeps its mode, and a link planted at a
// temporary name is never written through.
TEST_F(StateFileTest, SaveKeepsTheFilesModeAndNeverWritesThroughALink) {
    StateFile state = open();
    ASSERT_TRUE(state.save(xalsim::factoryTable()).ok());
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    chmod(path.c_str(), 0640);
    // The old fixed temporary name, planted as a link, is never written through.
    const std::string victim = dir + "/victim";
    std::ofstream(victim) << "untouched";
    fs::create_symlink(victim, path + ".tmp");
    ASSERT_TRUE(state.save(xalsim::factoryTable()).ok());
    EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(read(victim), "untouched");
}

// A full disk, the file size limit standing in for it: the reason, the old
// file as it was and no temporary file left.
TEST_F(StateFileTest, FailedSaveLeavesTheOldFile) {
    StateFile state = open();
    ASSERT_TRUE(state.save(xalsim::factoryTable()).ok());
    const std::string before = read(path);
    signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 100;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    auto saved = state.save(everyKindOfField());
    setrlimit(RLIMIT_FSIZE, &old);
    ASSERT_FALSE(saved.ok());
    EXPECT_EQ(saved.error().message(), "cannot write " + path + ": File too large");
    EXPECT_EQ(read(path), before);
    EXPECT_EQ(files(), std::vector<std::string>{"modem.state"});
}

TEST_F(StateFileTest, NoFileInAFolderThatIsNotThere) {
    auto nowhere = StateFile::open(dir + "/gone/modem.state", "test", std::chrono::milliseconds(0));
    ASSERT_FALSE(nowhere.ok());
    EXPECT_NE(nowhere.error().message().find("No such file or directory"), std::string::npos);
}

TEST_F(StateFileTest, LockServiceRefusedAtOnceToolAfterItsWait) {
    std::optional<StateFile> daemon = open("kivmodemd");
    // However long it would wait, a service never lets go.
    const auto started = std::chrono::steady_clock::now();
    auto tool = StateFile::open(path, "kivctl", std::chrono::seconds(30));
    ASSERT_FALSE(tool.ok());
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    EXPECT_NE(tool.error().message().find("is in use by kivmodemd (pid " +
                                          std::to_string(getpid()) + ")"),
              std::string::npos);
    daemon.reset();
    tool = StateFile::open(path, "kivctl", std::chrono::seconds(30));
    EXPECT_TRUE(tool.ok()) << tool.error().message();
}

}  // namespace
