#include <gtest/gtest.h>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "src/ProfileKey.h"

namespace kiv {
namespace {

std::shared_ptr<IProfileKey> makeKey(TechType tech, int id, unsigned long token) {
    return std::make_shared<ProfileKey>(tech, id, token, [](std::shared_ptr<ClientRequest>) {
        return std::shared_ptr<ClientResponse>();
    });
}

// As the library's log shows them.
TEST(ClientMessagesTest, DumpEachRequestAndResponseRendersItsPayload) {
    auto key = makeKey(TechType::TECH_3GPP, 5, 12);
    ModifyProfileParams modify;
    modify.setApnName("ims");
    FilterProfileParams filter;
    filter.setFilterByTechType(TechType::TECH_3GPP);
    ProfileParams params;
    params.setApnClass(ApnClass::IMS);

    EXPECT_EQ(ModifyRequest(modify, key).dump(), "Modify 3GPP:5 token=12 ApnName=ims,");
    EXPECT_EQ(DeleteRequest(key).dump(), "Delete 3GPP:5 token=12");
    EXPECT_EQ(GetRequest(nullptr).dump(), "Get ");
    EXPECT_EQ(FilterRequest(filter).dump(), "Filter params: None: tech=3GPP,");
    EXPECT_EQ(MatchRequest(filter, key).dump(), "Match 3GPP:5 token=12 None: tech=3GPP,");
    EXPECT_EQ(ClientRequest(static_cast<ReqRespType>(9)).dump(), "9 ");
    EXPECT_EQ(AddResponse(Status::Success, nullptr).dump(), "Add Success ");
    EXPECT_EQ(ModifyResponse(static_cast<Status>(2)).dump(), "Modify 2");
    EXPECT_EQ(MatchResponse(Status::Failure, false).dump(), "Match Failure false");
    EXPECT_EQ(FilterResponse(Status::Success, {key, makeKey(TechType::TECH_3GPP2, 101, 3)}).dump(),
              "Filter Success 3GPP:5 token=12,3GPP2:101 token=3,");
    EXPECT_EQ(GetResponse(Status::Failure, std::nullopt).dump(), "Get Failure ");
    EXPECT_EQ(GetResponse(Status::Success, params).dump(), "Get Success ApnClass=IMS,");
}

TEST(CallbackRequestTest, PartsReleaseWinsAndRegistrationNeedsAllThreeParts) {
    CallbackRequest empty;
    EXPECT_FALSE(empty.hasReleaseToken());
    EXPECT_FALSE(empty.hasExpirationInfo());
    EXPECT_EQ(empty.dump(), "Callback ");

    auto key = makeKey(TechType::TECH_3GPP2, 101, 7);
    CallbackRequest both;
    both.setExpirationInfo([] {}, key, 7);
    EXPECT_TRUE(both.hasExpirationInfo());
    EXPECT_EQ(both.dump(), "Callback Register 3GPP2:101 token=77");
    both.setReleaseToken(3);
    EXPECT_EQ(both.dump(), "Callback Release 3");

    CallbackRequest dangling;
    dangling.setExpirationInfo([] {}, std::weak_ptr<IProfileKey>(), 8);
    EXPECT_EQ(dangling.dump(), "Callback Register null8");
}

}  // namespace
}  // namespace kiv
