#include <gtest/gtest.h>

#include <vector>

#include "CapturingLog.h"
#include "ProfileCache.h"
#include "ProfileChangedInd.h"
#include "ProfileKey.h"

namespace kiv {
namespace {

// Records every request a key sends back into the pipeline.
struct RequestRecorder {
    std::vector<std::shared_ptr<ClientRequest>> requests;
    RequestFunction function() {
        return [this](std::shared_ptr<ClientRequest> request) {
            requests.push_back(std::move(request));
            return std::make_shared<CallbackResponse>(Status::Success);
        };
    }
    std::shared_ptr<CallbackRequest> callback(size_t i) const {
        return std::dynamic_pointer_cast<CallbackRequest>(requests.at(i));
    }
};

TEST(ProfileKeyTest, LifecycleRegistrationAndDeathPostCallbackRequests) {
    test::ScopedLogCapture log;
    RequestRecorder recorder;
    int calls = 0;
    {
        auto key = std::make_shared<ProfileKey>(TechType::TECH_3GPP2, 101, 7, recorder.function());
        EXPECT_EQ(key->dump(), "3GPP2:101 token=7");
        key->registerExpirationListener([&calls] { ++calls; });
        ASSERT_EQ(recorder.requests.size(), 1u);
        auto registration = recorder.callback(0);
        ASSERT_TRUE(registration);
        EXPECT_TRUE(registration->hasExpirationInfo());
        EXPECT_FALSE(registration->hasReleaseToken());
        EXPECT_EQ(registration->getExpirationToken(), 7u);
        EXPECT_EQ(registration->getExpirationKey().lock(), key);
        registration->getExpirationCb()();
        EXPECT_EQ(calls, 1);
    }
    // The key is gone: exactly one release of its token, and the weak handle
    // in the registration no longer locks.
    ASSERT_EQ(recorder.requests.size(), 2u);
    auto release = recorder.callback(1);
    ASSERT_TRUE(release);
    EXPECT_TRUE(release->hasReleaseToken());
    EXPECT_EQ(release->getReleaseToken(), 7u);
    EXPECT_TRUE(recorder.callback(0)->getExpirationKey().expired());
    EXPECT_EQ(log.count(LogLevel::Debug, "~ProfileKey"), 1u);
}

TEST(ProfileKeyTest, ExpiredTrueWhenHandleGoneOrNeverSet) {
    RequestRecorder recorder;
    EXPECT_TRUE(expired({[] {}, std::weak_ptr<IProfileKey>()}));
    auto key = std::make_shared<ProfileKey>(TechType::TECH_3GPP, 1, 0, recorder.function());
    ExpirationListener listener{nullptr, key};
    EXPECT_FALSE(expired(listener));
    key.reset();
    EXPECT_TRUE(expired(listener));
}

TEST(ProfileCacheTest, TokensFreshProcessStartsAtZeroAndCounts) {
    EXPECT_EQ(ProfileCache::generateToken(), 0u);
    EXPECT_EQ(ProfileCache::generateToken(), 1u);
    EXPECT_EQ(ProfileCache::generateToken(), 2u);
}

TEST(ProfileChangedIndTest, RecordEqualityAndDump) {
    ProfileChangedInd a{TechType::TECH_3GPP, 3, ProfileChangedEvent::Modify};
    ProfileChangedInd b = a;
    EXPECT_EQ(a, b);
    b.event = ProfileChangedEvent::Delete;
    EXPECT_NE(a, b);
    EXPECT_EQ(a.dump(), "3GPP:3 Modify");
    EXPECT_EQ(
            (ProfileChangedInd{TechType::TECH_3GPP, 3, static_cast<ProfileChangedEvent>(7)}.dump()),
            "3GPP:3 7");
    EXPECT_EQ((ProfileChangedInd{TechType::TECH_3GPP2, 101, ProfileChangedEvent::ProfileReady}
                       .dump()),
              "3GPP2:101 ProfileReady");
}

}  // namespace
}  // namespace kiv
