#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "Manager.h"
#include "base/Mutex.h"
#include "diag/diag_host.h"
#include "sim/SimModem.h"
#include "src/AdbWriter.h"
#include "src/DiagWriter.h"
#include "src/LocalLogBuffer.h"
#include "src/LogWrapper.h"
#include "support/CapturingLog.h"

namespace kiv {
namespace {

// The diagnostics channel's lines, from whichever thread writes them.
struct DiagCapture {
    DiagCapture() { diag_host_set_sink(&DiagCapture::sink, this); }
    ~DiagCapture() { diag_host_set_sink(nullptr, nullptr); }
    static void sink(const msg_desc_type* desc, const char* line, void* ctx) {
        auto* self = static_cast<DiagCapture*>(ctx);
        kiv::MutexLock guard(self->lock);
        self->all.emplace_back(*desc, line);
    }
    std::vector<std::pair<msg_desc_type, std::string>> lines() const {
        kiv::MutexLock guard(lock);
        return all;
    }
    bool has(const std::string& line) const {
        for (const auto& [desc, text] : lines()) {
            if (text == line) return true;
        }
        return false;
    }

    mutable kiv::Mutex lock;
    std::vector<std::pair<msg_desc_type, std::string>> all GUARDED_BY(lock);
};

TEST(LogWrapperTest, LogCutsAt511AndKeepsErrorsAndResults) {
    auto& history = LocalLogBuffer::getInstance();
    history.flush();
    {
        // No sink installed: only the history sees levels 3 and 5.
        LogWrapper::getInstance().setLogWriter(nullptr);
        KLOGE("error %d", 1);
        KLOGD("debug");
        KLOGW("warning");
        KLOGI("info");
    }
    auto lines = history.getLogs();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("[KIV]error 1"), std::string::npos);
    EXPECT_NE(lines[1].find("[KIV]info"), std::string::npos);

    test::ScopedLogCapture log;
    const std::string longText(600, 'x');
    KLOGI("%s", longText.c_str());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].message, std::string(511, 'x'));
    EXPECT_EQ(log.lines()[0].tag, "KIV");
    const auto last = history.getLogs().back();
    EXPECT_EQ(last.substr(last.size() - 512), "]" + std::string(511, 'x'));
}

TEST(LocalLogBufferTest, CapacityKeepsCapacityPlusOneNewestLines) {
    auto& history = LocalLogBuffer::getInstance();
    EXPECT_EQ(history.getName(), "KIV");
    history.flush();
    for (int i = 0; i < 300; ++i) KLOGI("line %d", i);
    auto lines = history.getLogs();
    ASSERT_EQ(lines.size(), 201u);
    EXPECT_NE(lines.front().find("]line 99"), std::string::npos);
    EXPECT_NE(lines.back().find("]line 299"), std::string::npos);

    history.flush();
    EXPECT_TRUE(history.getLogs().empty());
    LocalLogBuffer own("X", 0);
    own.addLogWithTimestamp("");
    own.addLogWithTimestamp("second");
    lines = own.getLogs();
    ASSERT_EQ(lines.size(), 1u);  // capacity 0 still keeps the newest line
    // "    YYYY-MM-DD HH:MM:SS.mmm [X]second"
    const std::string& line = lines[0];
    ASSERT_EQ(line.size(), 4 + 23 + 4 + 6u);
    EXPECT_EQ(line.substr(0, 4), "    ");
    EXPECT_EQ(line[8], '-');
    EXPECT_EQ(line[14], ' ');
    EXPECT_EQ(line[23], '.');
    EXPECT_EQ(line.substr(27), " [X]second");
}

TEST(AdbWriterTest, WritePrioritiesAndAndroidLogOutput) {
    AdbWriter adb;
    const int expected[] = {2, 3, 4, 6, 7, 4, 4};
    for (uint32_t level = 0; level < 6; ++level) {
        EXPECT_EQ(adb.convertPrio(static_cast<LogLevel>(level)), expected[level]);
    }
    EXPECT_EQ(adb.convertPrio(static_cast<LogLevel>(9)), 4);

    // The host's Android log prints to standard error.
    testing::internal::CaptureStderr();
    adb.write(LogLevel::Warning, "KIV", "hello adb");
    const std::string out = testing::internal::GetCapturedStderr();
    EXPECT_NE(out.find("hello adb"), std::string::npos);
    EXPECT_NE(out.find("KIV"), std::string::npos);
}

TEST(DiagWriterTest, WriteDescriptorFixedByFirstMessage) {
    DiagCapture diag;
    EXPECT_EQ(diag_host_init_count(), 0);
    {
        LogWrapper::getInstance().setLogWriter(std::make_unique<DiagWriter>());
        EXPECT_EQ(diag_host_init_count(), 1);
        KLOGE("first");
        KLOG(Fatal, "second");
        LogWrapper::getInstance().setLogWriter(nullptr);
    }
    EXPECT_EQ(diag_host_init_count(), 0);
    const auto lines = diag.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].second, "|KIV| first");
    EXPECT_EQ(lines[1].second, "|KIV| second");
    for (const auto& [desc, text] : lines) {
        EXPECT_EQ(desc.ss_mask, 4u);  // the mask of the first message, an error
        EXPECT_EQ(desc.ss_id, 63);
        EXPECT_EQ(desc.line, 116);
    }
    DiagWriter writer;
    const int expected[] = {1, 1, 1, 4, 16, 4};
    for (uint32_t level = 0; level < 6; ++level) {
        EXPECT_EQ(writer.convertPrio(static_cast<LogLevel>(level)), expected[level]);
    }
    EXPECT_EQ(writer.convertPrio(static_cast<LogLevel>(9)), 1);
}

// Manager::init chooses where the library's lines go: the diagnostics
// channel, or the Android log. Each is observed where the lines arrive.
TEST(ManagerLogSinkTest, InitSendsEveryLineToTheSinkItChose) {
    auto& sim = xalsim::SimModem::instance();
    sim.reset();
    auto& manager = Manager::getInstance();
    auto refreshed = [&](size_t registrations) {
        EXPECT_TRUE(sim.waitUntil([&] {
            return sim.requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) >= registrations;
        })) << "the library did not register with the modem";
        manager.refresh(PDC_REFRESH_COMPLETED);
    };
    DiagCapture diag;
    manager.init(3, false);
    refreshed(1);
    EXPECT_TRUE(diag.has("|KIV| Manager::init(3)"));
    EXPECT_TRUE(diag.has("|KIV| Manager::refresh < Refresh Success"));

    const size_t before = diag.lines().size();
    testing::internal::CaptureStderr();
    manager.init(4, true);
    refreshed(2);
    const std::string android = testing::internal::GetCapturedStderr();
    // The host's Android log writes "TAG PRIORITY ... message" to stderr.
    EXPECT_NE(android.find("Manager::init(4)"), std::string::npos) << android;
    EXPECT_NE(android.find("Manager::refresh < Refresh Success"), std::string::npos) << android;
    EXPECT_NE(android.find("KIV I"), std::string::npos) << android;
    // Nothing of the second pipeline reached the diagnostics channel.
    const auto lines = diag.lines();
    EXPECT_TRUE(std::none_of(lines.begin() + static_cast<long>(before), lines.end(),
                             [](const auto& line) {
                                 return line.second.find("Manager::init(4)") != std::string::npos;
                             }));
}

}  // namespace
}  // namespace kiv
