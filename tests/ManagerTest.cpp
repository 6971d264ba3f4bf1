#include <gtest/gtest.h>

#include <future>

#include "LibraryFixture.h"
#include "ProfileKey.h"

namespace kiv {
namespace {

using test::LibraryFixture;

AddProfileParams temporaryProfile(const std::string& apn) {
    AddProfileParams params(false, TechType::TECH_3GPP, false);
    params.setApnName(apn);
    params.setHomeIPType(IPType::V4);
    return params;
}

size_t modemProfiles() {
    return xalsim::SimModem::instance().profiles().size();
}

TEST(ManagerBeforeInitTest, EveryOperationFailsWithoutARequest) {
    test::ScopedLogCapture log;
    auto& manager = Manager::getInstance();
    auto key = std::make_shared<ProfileKey>(TechType::TECH_3GPP, 1, 0, nullptr);
    EXPECT_EQ(manager.addProfile(AddProfileParams(true, TechType::TECH_3GPP, false)), nullptr);
    EXPECT_FALSE(manager.modifyProfile(ModifyProfileParams(), key));
    EXPECT_FALSE(manager.deleteProfile(key));
    EXPECT_TRUE(manager.filter(FilterProfileParams()).empty());
    EXPECT_FALSE(manager.getProfile(key));
    EXPECT_FALSE(manager.match(FilterProfileParams(), key));
    manager.refresh(PDC_REFRESH_STARTED);
    EXPECT_EQ(log.count("Manager not initialized!"), 7u);
    EXPECT_EQ(log.countContaining("Manager::"), 0u);
    const auto lines = manager.dump();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0], "");
    EXPECT_EQ(lines[1], "Logs:");
}

class ManagerTest : public LibraryFixture {};

TEST_F(ManagerTest, AddProfileCreatesOnModemAndConsumesBothEchoes) {
    log->clear();
    const auto before = sim().requestCount(XAL_WDS_CREATE_PROFILE_REQ_V01);
    auto key = manager().addProfile(temporaryProfile("Temp.Example"));
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 3);
    EXPECT_EQ(key->getTechType(), TechType::TECH_3GPP);
    EXPECT_EQ(sim().requestCount(XAL_WDS_CREATE_PROFILE_REQ_V01), before + 1);
    auto stored = sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 3);
    ASSERT_TRUE(stored);
    EXPECT_STREQ(stored->profile_name, "kiv_profile");
    EXPECT_STREQ(stored->apn_name, "temp.example");
    EXPECT_EQ(stored->persistent, 0);

    const std::string keyText = key->dump();
    EXPECT_EQ(keyText.rfind("3GPP:3 token=", 0), 0u);
    EXPECT_TRUE(
            log->contains("Manager::addProfile > Add 3GPP persist=false: "
                          "ApnName=Temp.Example,HomeIPType=V4,IsIAProfile=false,"));
    EXPECT_TRUE(log->contains("Manager::addProfile < Add Success " + keyText));
    EXPECT_EQ(log->countContaining("Handling Add 3GPP persist=false"), 1u);
    EXPECT_EQ(log->countContaining("Added: TechType=3GPP,ProfileId=3,ApnName=temp.example,"), 1u);

    settle();
    EXPECT_EQ(log->count("ProfileCache: pending transaction confirmed"), 2u);
    EXPECT_EQ(log->count("ProfileCache: updating cache due to indication!"), 0u);
    const auto lines = manager().dump();
    const auto pending = std::find(lines.begin(), lines.end(), "Pending:");
    ASSERT_NE(pending, lines.end());
    EXPECT_EQ(*std::next(pending), "");  // nothing left to confirm
    EXPECT_EQ(lines[0], "Cache:");
    EXPECT_EQ(std::count_if(lines.begin(), pending,
                            [](const std::string& l) { return l.rfind("  ", 0) == 0; }),
              3);
}

TEST_F(ManagerTest, ProfileOperationsGetFilterMatchModifyDelete) {
    auto key = manager().addProfile(temporaryProfile("temp"));
    ASSERT_TRUE(key);
    auto params = manager().getProfile(key);
    ASSERT_TRUE(params);
    EXPECT_EQ(params->getApnName(), "temp");
    EXPECT_TRUE(params->getIsKivProfile());
    EXPECT_FALSE(params->getIsIAProfile());

    FilterProfileParams byName;
    byName.setApnName("TEMP");
    EXPECT_TRUE(manager().match(byName, key));
    EXPECT_EQ(find(byName).size(), 1u);
    FilterProfileParams all;
    EXPECT_EQ(find(all).size(), 3u);

    // Unchanged parameters never reach the modem.
    const auto modifies = sim().requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
    ModifyProfileParams same;
    same.setApnName("Temp");
    same.setHomeIPType(IPType::V4);
    EXPECT_TRUE(manager().modifyProfile(same, key));
    EXPECT_EQ(sim().requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01), modifies);
    EXPECT_TRUE(log->contains("ProfileCache: profile is unchanged"));

    // A modem refusal still returns true and leaves the cache as it was.
    ModifyProfileParams change;
    change.setApnName("changed");
    sim().failNext(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, 1);
    EXPECT_TRUE(manager().modifyProfile(change, key));
    EXPECT_TRUE(log->contains("ProfileCache: failed to modify modem profile"));
    EXPECT_EQ(manager().getProfile(key)->getApnName(), "temp");

    EXPECT_TRUE(manager().modifyProfile(change, key));
    EXPECT_EQ(manager().getProfile(key)->getApnName(), "changed");
    EXPECT_STREQ(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 3)->apn_name, "changed");

    // A null key fails on the worker side.
    EXPECT_FALSE(manager().modifyProfile(change, nullptr));
    EXPECT_FALSE(manager().getProfile(nullptr));

    EXPECT_TRUE(manager().deleteProfile(key));
    EXPECT_FALSE(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 3));
    EXPECT_FALSE(manager().getProfile(key));
    EXPECT_FALSE(manager().deleteProfile(key));
    EXPECT_TRUE(log->contains("ProfileCache: token is not present or expired"));
    settle();
    EXPECT_EQ(log->count("ProfileCache: updating cache due to indication!"), 0u);
}

TEST_F(ManagerTest, ReleaseLastKeyOfTemporaryLibraryProfileDeletesIt) {
    auto key = manager().addProfile(temporaryProfile("temp"));
    ASSERT_TRUE(key);
    auto second = findOne(3);
    ASSERT_TRUE(second);
    key.reset();  // one handle left
    ASSERT_TRUE(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 3));
    second.reset();
    EXPECT_FALSE(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 3));
    EXPECT_TRUE(log->contains("Released profile 3"));

    // Persistent library profiles and foreign ones stay, with their count.
    auto persistent = manager().addProfile(AddProfileParams(true, TechType::TECH_3GPP, false));
    ASSERT_TRUE(persistent);
    const int id = persistent->getProfileId();
    persistent.reset();
    auto foreign = findOne(1);
    ASSERT_TRUE(foreign);
    foreign.reset();
    EXPECT_EQ(log->count("ProfileCache: ignoring non-persistent or non-kiv created"), 2u);
    EXPECT_TRUE(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, static_cast<uint8_t>(id)));
    EXPECT_TRUE(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 1));

    // After a refresh the old tokens are void: a release deletes nothing.
    auto temp = manager().addProfile(temporaryProfile("temp2"));
    ASSERT_TRUE(temp);
    const uint8_t tempId = static_cast<uint8_t>(temp->getProfileId());
    manager().refresh(PDC_REFRESH_COMPLETED);
    temp.reset();
    EXPECT_TRUE(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, tempId));
}

TEST_F(ManagerTest, ListenersHearHeldProfilesLeaveWithoutDeadlock) {
    auto key = manager().addProfile(temporaryProfile("temp"));
    ASSERT_TRUE(key);
    std::promise<void> heard;
    // The listener holds the last copy of a second key: that key dies on the
    // worker thread when the listener goes, and its release must still come.
    auto held = findOne(3);
    ASSERT_TRUE(held);
    const std::string heldText = held->dump();
    key->registerExpirationListener([&heard, held]() mutable { heard.set_value(); });
    held.reset();
    settle();

    sim().externalDelete(WDS_PROFILE_TYPE_3GPP_V01, 3);
    ASSERT_EQ(heard.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    settle();
    EXPECT_TRUE(log->contains("ProfileCache: updating cache due to indication!"));
    const std::string token = heldText.substr(heldText.find('=') + 1);
    EXPECT_TRUE(log->contains("ProfileCache: releaseProfile token=" + token));
    EXPECT_FALSE(manager().getProfile(key));
}

TEST_F(ManagerTest, OutsideChangesFoldedInAndRereadsVoidKeys) {
    auto added = sim().externalCreate(
            WDS_PROFILE_TYPE_3GPP2_V01,
            xalsim::make3gpp2Settings("CDMA", WDS_PROFILE_PDN_TYPE_IPV4_V01, true));
    ASSERT_EQ(added, 101);
    settle();
    auto key = findOne(101, TechType::TECH_3GPP2);
    ASSERT_TRUE(key);
    EXPECT_EQ(manager().getProfile(key)->getApnName(), "cdma");

    auto changes = xalsim::emptySettings();
    xalsim::setText(changes.apn_string_valid, changes.apn_string, "cdma2");
    sim().externalModify(WDS_PROFILE_TYPE_3GPP2_V01, 101, changes);
    settle();
    EXPECT_EQ(manager().getProfile(key)->getApnName(), "cdma2");

    sim().sendSubscriptionChange();
    settle();
    EXPECT_FALSE(manager().getProfile(key));
    key = findOne(101, TechType::TECH_3GPP2);
    ASSERT_TRUE(key);
    sim().sendProfileReady();
    settle();
    EXPECT_FALSE(manager().getProfile(key));
    EXPECT_EQ(find(FilterProfileParams()).size(), 3u);

    // An event the cache does not know is logged and ignored.
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 1, WDS_PROFILE_EVENT_PROFILE_READY_V01);
    settle();
    EXPECT_EQ(find(FilterProfileParams()).size(), 3u);
}

TEST_F(ManagerTest, RefreshBracketRefusesEveryOtherRequest) {
    auto key = findOne(1);
    ASSERT_TRUE(key);
    manager().refresh(PDC_REFRESH_STARTED);
    EXPECT_TRUE(log->contains("KIV refresh started"));
    EXPECT_EQ(manager().addProfile(temporaryProfile("x")), nullptr);
    EXPECT_FALSE(manager().modifyProfile(ModifyProfileParams(), key));
    EXPECT_FALSE(manager().deleteProfile(key));
    EXPECT_TRUE(find(FilterProfileParams()).empty());
    EXPECT_FALSE(manager().getProfile(key));
    EXPECT_FALSE(manager().match(FilterProfileParams(), key));
    EXPECT_EQ(sim().profiles().size(), 2u);
    manager().refresh(PDC_REFRESH_COMPLETED);
    EXPECT_TRUE(log->contains("KIV refresh completed"));
    EXPECT_FALSE(manager().getProfile(key));  // the reread voided it
    EXPECT_EQ(find(FilterProfileParams()).size(), 2u);
}

TEST_F(ManagerTest, InitTwiceOldKeysAreDroppedSafely) {
    auto old = manager().addProfile(temporaryProfile("temp"));
    ASSERT_TRUE(old);
    startLibrary();
    EXPECT_EQ(find(FilterProfileParams()).size(), 3u);
    old->registerExpirationListener([] {});
    old.reset();
    EXPECT_EQ(log->countContaining("ClientRequestManager: pipeline is gone, dropping Callback"),
              2u);
    // The profile stays: nothing reached the new pipeline.
    EXPECT_EQ(modemProfiles(), 3u);
}

TEST_F(ManagerTest, ModemRestartReconnectsAndProfileReadyRereads) {
    auto temp = manager().addProfile(temporaryProfile("temp"));
    ASSERT_TRUE(temp);
    sim().restart();
    waitForConnection(2);
    EXPECT_EQ(modemProfiles(), 2u);  // the temporary profile did not survive
    sim().sendProfileReady();
    settle();
    EXPECT_FALSE(manager().getProfile(temp));
    EXPECT_EQ(find(FilterProfileParams()).size(), 2u);
    auto key = manager().addProfile(temporaryProfile("again"));
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 3);
}

}  // namespace
}  // namespace kiv
