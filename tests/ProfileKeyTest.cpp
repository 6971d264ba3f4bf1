#include <gtest/gtest.h>

#include <vector>

#include "src/ProfileChangedInd.h"
#include "src/ProfileKey.h"
#include "support/CapturingLog.h"

namespace kiv {
namespace {

TEST(ProfileKeyTest, LifecycleRegistrationAndDeathPostCallbackRequests) {
    test::ScopedLogCapture log;
    std::vector<std::shared_ptr<CallbackRequest>> requests;
    int calls = 0;
    {
        auto key = std::make_shared<ProfileKey>(
                TechType::TECH_3GPP2, 101, 7, [&](std::shared_ptr<ClientRequest> request) {
                    requests.push_back(std::dynamic_pointer_cast<CallbackRequest>(request));
                    return std::make_shared<CallbackResponse>(Status::Success);
                });
        EXPECT_EQ(key->dump(), "3GPP2:101 token=7");
        key->registerExpirationListener([&calls] { ++calls; });
        ASSERT_EQ(requests.size(), 1u);
        ASSERT_TRUE(requests[0]);
        EXPECT_FALSE(requests[0]->hasReleaseToken());
        EXPECT_EQ(requests[0]->getExpirationToken(), 7u);
        EXPECT_EQ(requests[0]->getExpirationKey().lock(), key);
        requests[0]->getExpirationCb()();
        EXPECT_EQ(calls, 1);
    }
    // The key is gone: exactly one release of its token, and the weak handle
    // in the registration no longer locks.
    ASSERT_EQ(requests.size(), 2u);
    ASSERT_TRUE(requests[1]);
    EXPECT_EQ(requests[1]->getReleaseToken(), 7u);
    EXPECT_TRUE(requests[0]->getExpirationKey().expired());
    EXPECT_EQ(log.count(LogLevel::Debug, "~ProfileKey"), 1u);
}

// The cache tells its own echoes by this equality: every member counts.
TEST(ProfileChangedIndTest, RecordEqualityAndDump) {
    const ProfileChangedInd a{TechType::TECH_3GPP, 3, ProfileChangedEvent::Modify};
    ProfileChangedInd b = a;
    EXPECT_EQ(a, b);
    b.event = ProfileChangedEvent::Delete;
    EXPECT_NE(a, b);
    EXPECT_NE(a, (ProfileChangedInd{TechType::TECH_3GPP, 4, ProfileChangedEvent::Modify}));
    EXPECT_NE(a, (ProfileChangedInd{TechType::TECH_3GPP2, 3, ProfileChangedEvent::Modify}));
    EXPECT_EQ(
            (ProfileChangedInd{TechType::TECH_3GPP, 3, static_cast<ProfileChangedEvent>(7)}.dump()),
            "3GPP:3 7");
}

}  // namespace
}  // namespace kiv
