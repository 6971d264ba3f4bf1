#include <gtest/gtest.h>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "ProfileKey.h"

namespace kiv {
namespace {

std::shared_ptr<IProfileKey> makeKey(TechType tech, int id, unsigned long token) {
    return std::make_shared<ProfileKey>(tech, id, token, [](std::shared_ptr<ClientRequest>) {
        return std::shared_ptr<ClientResponse>();
    });
}

TEST(ClientRequestTest, DumpEachRequestRendersItsPayload) {
    auto key = makeKey(TechType::TECH_3GPP, 5, 12);
    ModifyProfileParams modify;
    modify.setApnName("ims");
    FilterProfileParams filter;
    filter.setFilterByTechType(TechType::TECH_3GPP);
    AddProfileParams add(true, TechType::TECH_3GPP2, false);

    EXPECT_EQ(AddRequest(add).dump(), "Add 3GPP2 persist=true: IsIAProfile=false,");
    EXPECT_EQ(ModifyRequest(modify, key).dump(), "Modify 3GPP:5 token=12 ApnName=ims,");
    EXPECT_EQ(DeleteRequest(key).dump(), "Delete 3GPP:5 token=12");
    EXPECT_EQ(DeleteRequest(nullptr).dump(), "Delete ");
    EXPECT_EQ(GetRequest(nullptr).dump(), "Get ");
    EXPECT_EQ(FilterRequest(filter).dump(), "Filter params: None: tech=3GPP,");
    EXPECT_EQ(MatchRequest(filter, key).dump(), "Match 3GPP:5 token=12 None: tech=3GPP,");
    EXPECT_EQ(RefreshRequest(PDC_REFRESH_STARTED).dump(), "Refresh ");
    EXPECT_EQ(ClientRequest(static_cast<ReqRespType>(9)).dump(), "9 ");
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

TEST(ClientResponseTest, DumpStatusTextAndPayload) {
    auto key = makeKey(TechType::TECH_3GPP, 1, 2);
    EXPECT_EQ(AddResponse(Status::Success, key).dump(), "Add Success 3GPP:1 token=2");
    EXPECT_EQ(AddResponse(Status::Success, nullptr).dump(), "Add Success ");
    EXPECT_EQ(ModifyResponse(static_cast<Status>(2)).dump(), "Modify 2");
    EXPECT_EQ(DeleteResponse(Status::Failure).dump(), "Delete Failure");
    EXPECT_EQ(CallbackResponse(Status::Failure).dump(), "Callback Failure");
    EXPECT_EQ(RefreshResponse(Status::Success).dump(), "Refresh Success");
    EXPECT_EQ(MatchResponse(Status::Success, true).dump(), "Match Success true");
    EXPECT_EQ(MatchResponse(Status::Failure, false).dump(), "Match Failure false");
    EXPECT_EQ(FilterResponse(Status::Success, {}).dump(), "Filter Success ");
    EXPECT_EQ(FilterResponse(Status::Success, {key, makeKey(TechType::TECH_3GPP2, 101, 3)}).dump(),
              "Filter Success 3GPP:1 token=2,3GPP2:101 token=3,");
    EXPECT_EQ(GetResponse(Status::Failure, std::nullopt).dump(), "Get Failure ");
    ProfileParams params;
    params.setApnClass(ApnClass::IMS);
    EXPECT_EQ(GetResponse(Status::Success, params).dump(), "Get Success ApnClass=IMS,");
}

}  // namespace
}  // namespace kiv
