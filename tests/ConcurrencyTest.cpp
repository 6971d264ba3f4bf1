#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "base/Mutex.h"
#include "support/LibraryFixture.h"

namespace kiv {
namespace {

constexpr int kThreads = 8;
constexpr int kOperationsPerThread = 2000;
constexpr size_t kKeysPerThread = 4;

// Counts the lines that would mean a caller got someone else's answer.
class CountingWriter : public LogWriter {
  public:
    explicit CountingWriter(std::atomic<int>& mismatches) : mMismatches(mismatches) {}
    void write(LogLevel, std::string, std::string message) override {
        if (message.rfind("Unable to cast", 0) == 0) ++mMismatches;
    }
    int convertPrio(LogLevel level) override { return static_cast<int>(level); }

  private:
    std::atomic<int>& mMismatches;
};

// Keys handed from one thread to be dropped by another.
class Mailbox {
  public:
    void put(std::shared_ptr<IProfileKey> key) {
        kiv::MutexLock lock(mLock);
        mKeys.push_back(std::move(key));
    }
    std::shared_ptr<IProfileKey> take() {
        kiv::MutexLock lock(mLock);
        if (mKeys.empty()) return nullptr;
        auto key = std::move(mKeys.back());
        mKeys.pop_back();
        return key;
    }
    void clear() {
        std::vector<std::shared_ptr<IProfileKey>> keys;
        {
            kiv::MutexLock lock(mLock);
            keys.swap(mKeys);
        }
    }

  private:
    kiv::Mutex mLock;
    std::vector<std::shared_ptr<IProfileKey>> mKeys GUARDED_BY(mLock);
};

class ConcurrencyFixture : public test::LibraryFixture {
  protected:
    void SetUp() override {
        xalsim::Config config;
        config.capacity3gpp = 255;
        sim().reset(config);
        sim().seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                          xalsim::make3gppSettings("internet", "internet",
                                                   WDS_PDP_TYPE_PDP_IPV4V6_V01, 0x1, true));
        startLibrary();
        log.reset();
        LogWrapper::getInstance().setLogWriter(std::make_unique<CountingWriter>(mismatches));
    }
    void TearDown() override { LogWrapper::getInstance().setLogWriter(nullptr); }

    // One client thread: its own profiles, checked on every answer.
    void client(int id) {
        std::mt19937 random(1000 + id);
        std::vector<std::pair<std::shared_ptr<IProfileKey>, std::string>> owned;
        int serial = 0;
        auto fail = [&](const std::string& what) {
            ++errors;
            ADD_FAILURE() << "thread " << id << ": " << what;
        };
        for (int op = 0; op < kOperationsPerThread; ++op) {
            const int choice = static_cast<int>(random() % 10);
            if (owned.empty() || (choice == 0 && owned.size() < kKeysPerThread)) {
                const std::string apn = "t" + std::to_string(id) + "-" + std::to_string(serial++);
                AddProfileParams params(false, TechType::TECH_3GPP, false);
                params.setApnName(apn);
                auto key = manager().addProfile(params);
                if (!key) {
                    fail("add " + apn);
                    continue;
                }
                owned.emplace_back(std::move(key), apn);
                continue;
            }
            const size_t index = random() % owned.size();
            auto& [key, apn] = owned[index];
            switch (choice) {
                case 1:
                case 2: {
                    auto params = manager().getProfile(key);
                    if (!params || params->getApnName() != apn) fail("get " + apn);
                    break;
                }
                case 3: {
                    FilterProfileParams filter;
                    filter.setApnName(apn);
                    auto keys = manager().filter(filter);
                    if (keys.size() != 1 || keys.front()->getProfileId() != key->getProfileId()) {
                        fail("filter " + apn);
                    }
                    // One of them is dropped by some other thread.
                    if (!keys.empty()) mailbox.put(keys.front());
                    break;
                }
                case 4: {
                    FilterProfileParams filter;
                    filter.setApnName(apn);
                    if (!manager().match(filter, key)) fail("match " + apn);
                    break;
                }
                case 5: {
                    ModifyProfileParams change;
                    change.setHomeIPType(random() % 2 ? IPType::V4 : IPType::V6);
                    if (!manager().modifyProfile(change, key)) fail("modify " + apn);
                    break;
                }
                case 6: {
                    // The listener holds a key of another profile: when it
                    // goes, that key dies on the worker thread.
                    FilterProfileParams internet;
                    internet.setFilterByProfileId(1);
                    auto keys = manager().filter(internet);
                    auto other = keys.empty() ? nullptr : keys.front();
                    key->registerExpirationListener([other] {});
                    break;
                }
                case 7:
                    if (!manager().deleteProfile(key)) fail("delete " + apn);
                    owned.erase(owned.begin() + static_cast<long>(index));
                    break;
                case 8:
                    mailbox.take();  // dropped here, whoever took it
                    break;
                default:
                    owned.erase(owned.begin() + static_cast<long>(index));  // released
                    break;
            }
        }
    }

    std::atomic<int> mismatches{0};
    std::atomic<int> errors{0};
    Mailbox mailbox;
};

class ManagerConcurrencyTest : public ConcurrencyFixture {};

TEST_F(ManagerConcurrencyTest, ManyClientsOwnAnswersAndNoTemporaryProfileLeft) {
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) threads.emplace_back([this, id] { client(id); });
    for (auto& thread : threads) thread.join();
    mailbox.clear();
    settle();

    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(errors.load(), 0);
    for (const auto& profile : sim().profiles()) {
        const bool temporary = profile.settings.persistent_valid && !profile.settings.persistent;
        EXPECT_FALSE(temporary) << "profile " << int(profile.index) << " "
                                << profile.settings.apn_name << " left behind";
    }
    EXPECT_EQ(sim().profiles().size(), 1u);
}

}  // namespace
}  // namespace kiv
