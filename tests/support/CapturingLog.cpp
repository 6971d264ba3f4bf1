#include "CapturingLog.h"

#include "base/Mutex.h"

namespace kiv::test {

namespace {

class CapturingWriter : public LogWriter {
  public:
    explicit CapturingWriter(std::shared_ptr<ScopedLogCapture::Store> store)
        : mStore(std::move(store)) {}
    void write(LogLevel level, std::string tag, std::string message) override {
        kiv::MutexLock lock(mStore->lock);
        mStore->lines.push_back({level, std::move(tag), std::move(message)});
    }
    int convertPrio(LogLevel level) override { return static_cast<int>(level); }

  private:
    std::shared_ptr<ScopedLogCapture::Store> mStore;
};

}  // namespace

ScopedLogCapture::ScopedLogCapture() : mStore(std::make_shared<Store>()) {
    LogWrapper::getInstance().setLogWriter(std::make_unique<CapturingWriter>(mStore));
}

ScopedLogCapture::~ScopedLogCapture() {
    LogWrapper::getInstance().setLogWriter(nullptr);
}

std::vector<LogLine> ScopedLogCapture::lines() const {
    kiv::MutexLock lock(mStore->lock);
    return mStore->lines;
}

size_t ScopedLogCapture::count(LogLevel level, const std::string& text) const {
    size_t n = 0;
    for (const auto& line : lines()) n += line.level == level && line.message == text;
    return n;
}

testing::AssertionResult ScopedLogCapture::contains(LogLevel level, const std::string& text) const {
    const auto all = lines();
    std::string seen;
    for (const auto& line : all) {
        if (line.message != text) continue;
        if (line.level == level) return testing::AssertionSuccess();
        seen += " " + std::to_string(static_cast<int>(line.level));
    }
    auto failure = testing::AssertionFailure()
                   << "\"" << text << "\" not logged at level " << static_cast<int>(level);
    if (!seen.empty()) return failure << "; logged at level" << seen;
    failure << "; the lines were:";
    for (const auto& line : all) {
        failure << "\n  " << static_cast<int>(line.level) << " " << line.message;
    }
    return failure;
}

size_t ScopedLogCapture::countContaining(LogLevel level, const std::string& fragment) const {
    size_t n = 0;
    for (const auto& line : lines()) {
        n += line.level == level && line.message.find(fragment) != std::string::npos;
    }
    return n;
}

size_t ScopedLogCapture::mentions(const std::string& fragment) const {
    size_t n = 0;
    for (const auto& line : lines()) n += line.message.find(fragment) != std::string::npos;
    return n;
}

void ScopedLogCapture::clear() {
    kiv::MutexLock lock(mStore->lock);
    mStore->lines.clear();
}

}  // namespace kiv::test
