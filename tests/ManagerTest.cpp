#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <set>

#include "src/ProfileKey.h"
#include "src/Secrets.h"
#include "support/LibraryFixture.h"

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
    EXPECT_EQ(log.count(LogLevel::Error, "Manager not initialized!"), 7u);
    EXPECT_EQ(log.mentions("Manager::"), 0u);
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
    EXPECT_TRUE(log->contains(LogLevel::Info,
                              "Manager::addProfile > Add 3GPP persist=false: "
                              "ApnName=Temp.Example,HomeIPType=V4,IsIAProfile=false,"));
    EXPECT_TRUE(log->contains(LogLevel::Info, "Manager::addProfile < Add Success " + keyText));
    EXPECT_EQ(log->countContaining(LogLevel::Warning, "Handling Add 3GPP persist=false"), 1u);
    EXPECT_EQ(log->countContaining(LogLevel::Info,
                                   "Added: TechType=3GPP,ProfileId=3,ApnName=temp.example,"),
              1u);

    settle();
    EXPECT_EQ(log->count(LogLevel::Info, "ProfileCache: pending transaction confirmed"), 2u);
    EXPECT_EQ(log->mentions("ProfileCache: updating cache due to indication!"), 0u);
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
    EXPECT_TRUE(log->contains(LogLevel::Info, "ProfileCache: profile is unchanged"));

    ModifyProfileParams change;
    change.setApnName("changed");
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
    EXPECT_TRUE(log->contains(LogLevel::Error, "ProfileCache: token is not present or expired"));
    settle();
    EXPECT_EQ(log->mentions("ProfileCache: updating cache due to indication!"), 0u);

    // Every request the library sent, registration included, carried the
    // one-second time-out.
    std::set<unsigned int> kinds;
    for (const auto& request : sim().requests()) {
        EXPECT_EQ(request.timeoutMs, 1000u) << "message " << request.msgId;
        kinds.insert(request.msgId);
    }
    EXPECT_EQ(kinds.size(), 8u);  // bind, register, events, list, get, create, modify, delete
}

// Every way a modem request can fail, for every operation that changes the
// modem: the caller gets the operation's failure result, and the cache, the
// echoes it awaits and the modem are as they were.
TEST_F(ManagerTest, FailedRequestsLeaveCacheEchoesAndModemAsTheyWere) {
    auto key = manager().addProfile(temporaryProfile("kept"));
    ASSERT_TRUE(key);
    settle();
    struct Fault {
        const char* name;
        std::function<void(unsigned int msgId)> inject;
    };
    const Fault faults[] = {
            {"refused", [](unsigned int msgId) { sim().failNext(msgId, 1); }},
            {"timed out", [](unsigned int msgId) { sim().timeoutNext(msgId, 1); }},
            {"lost in transport", [](unsigned int msgId) { sim().transportErrorNext(msgId, 1); }}};
    struct Operation {
        const char* name;
        unsigned int msgId;
        std::function<bool()> failsAsDocumented;
        const char* proxyLine;
        const char* cacheLine;  // none: the cache says nothing of its own
        const char* managerLine;
    };
    ModifyProfileParams change;
    change.setApnName("changed");
    const Operation operations[] = {
            {"add", XAL_WDS_CREATE_PROFILE_REQ_V01,
             [&] { return manager().addProfile(temporaryProfile("new")) == nullptr; },
             "Unable send XAL_WDS_CREATE_PROFILE_REQ_V01 message", nullptr,
             // The status stays Success; the key says it failed.
             "Manager::addProfile < Add Success "},
            // A modify the modem did not take still reports success.
            {"modify", XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01,
             [&] { return manager().modifyProfile(change, key); },
             "Unable send XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 message",
             "ProfileCache: failed to modify modem profile",
             "Manager::modifyProfile < Modify Success"},
            {"delete", XAL_WDS_DELETE_PROFILE_REQ_V01,
             [&] { return !manager().deleteProfile(key); },
             "Unable send XAL_WDS_DELETE_PROFILE_REQ_V01 message",
             "ProfileCache: Failed to remove profile", "Manager::deleteProfile < Delete Failure"},
    };
    for (const auto& operation : operations) {
        for (const auto& fault : faults) {
            SCOPED_TRACE(std::string(operation.name) + " " + fault.name);
            const auto cache = cacheLines();
            const auto modem = modemTable();
            log->clear();
            fault.inject(operation.msgId);
            EXPECT_TRUE(operation.failsAsDocumented());
            settle();
            EXPECT_EQ(cacheLines(), cache);
            EXPECT_EQ(pendingLines(), std::vector<std::string>());
            EXPECT_EQ(modemTable(), modem);
            EXPECT_TRUE(log->contains(LogLevel::Error, operation.proxyLine));
            if (operation.cacheLine) {
                EXPECT_TRUE(log->contains(LogLevel::Error, operation.cacheLine));
            }
            EXPECT_TRUE(log->contains(LogLevel::Info, operation.managerLine));
        }
    }
    // The key went through it all unharmed.
    EXPECT_TRUE(manager().deleteProfile(key));
}

// Every field a client can change, on both technologies: it reaches the
// modem, the cache holds it at once, a filter finds the profile by it, and a
// reread of the modem's table gives it back.
TEST_F(ManagerTest, EveryModifiableFieldReachesModemCacheAndFilter) {
    struct Field {
        const char* name;
        std::function<void(ProfileParams&)> set;
        std::function<bool(const ProfileParams&)> holds;
        bool has3gpp2;
        bool reread3gpp2 = true;  // read back from a 3GPP2 profile on the modem
    };
    const Field fields[] = {
            {"apn", [](ProfileParams& p) { p.setApnName("other.apn"); },
             [](const ProfileParams& p) { return p.getApnName() == "other.apn"; }, true},
            {"user", [](ProfileParams& p) { p.setUserName("someone"); },
             [](const ProfileParams& p) { return p.getUserName() == "someone"; }, true},
            // A 3GPP2 profile's password is never read back from the modem.
            {"password", [](ProfileParams& p) { p.setPassword("secret"); },
             [](const ProfileParams& p) { return p.getPassword() == "secret"; }, true, false},
            {"auth", [](ProfileParams& p) { p.setAuthType(AuthType::PAP_CHAP); },
             [](const ProfileParams& p) { return p.getAuthType() == AuthType::PAP_CHAP; }, true},
            {"home ip", [](ProfileParams& p) { p.setHomeIPType(IPType::V6); },
             [](const ProfileParams& p) { return p.getHomeIPType() == IPType::V6; }, true},
            {"types", [](ProfileParams& p) { p.setApnTypesMask(APN_TYPE_MMS | APN_TYPE_FOTA); },
             [](const ProfileParams& p) {
                 return p.getApnTypesMask() == (APN_TYPE_MMS | APN_TYPE_FOTA);
             },
             true},
            {"class", [](ProfileParams& p) { p.setApnClass(ApnClass::ADMN); },
             [](const ProfileParams& p) { return p.getApnClass() == ApnClass::ADMN; }, true},
            {"clat", [](ProfileParams& p) { p.setIsClatEnabled(true); },
             [](const ProfileParams& p) { return p.getIsClatEnabled(); }, true},
            {"max conns", [](ProfileParams& p) { p.setMaxPdnsConnPerBlock(17); },
             [](const ProfileParams& p) { return p.getMaxPdnsConnPerBlock() == 17; }, false},
            {"max conns time", [](ProfileParams& p) { p.setMaxPdnConnTimer(301); },
             [](const ProfileParams& p) { return p.getMaxPdnConnTimer() == 301; }, false},
            {"wait time", [](ProfileParams& p) { p.setPdnReqWaitInterval(9); },
             [](const ProfileParams& p) { return p.getPdnReqWaitInterval() == 9; }, false},
            {"disabled", [](ProfileParams& p) { p.setIsApnDisabled(true); },
             [](const ProfileParams& p) { return p.getIsApnDisabled(); }, false},
            {"emergency", [](ProfileParams& p) { p.setIsEmergencySupported(true); },
             [](const ProfileParams& p) { return p.getIsEmergencySupported(); }, false},
            // Roaming unlike home: the modem keeps home as an override.
            {"roam ip", [](ProfileParams& p) { p.setRoamIPType(IPType::V4); },
             [](const ProfileParams& p) {
                 return p.getRoamIPType() == IPType::V4 && p.getHomeIPType() == IPType::V6;
             },
             false},
            // Roaming made equal to home: the override is cleared.
            {"roam ip as home", [](ProfileParams& p) { p.setRoamIPType(IPType::V6); },
             [](const ProfileParams& p) {
                 return p.getRoamIPType() == IPType::V6 && p.getHomeIPType() == IPType::V6;
             },
             false},
    };
    for (const TechType tech : {TechType::TECH_3GPP, TechType::TECH_3GPP2}) {
        AddProfileParams start(true, tech, false);
        start.setApnName("start");
        start.setHomeIPType(IPType::V4);
        auto key = manager().addProfile(start);
        ASSERT_TRUE(key);
        const int id = key->getProfileId();
        for (const auto& field : fields) {
            if (tech == TechType::TECH_3GPP2 && !field.has3gpp2) continue;
            SCOPED_TRACE(std::string(field.name) +
                         (tech == TechType::TECH_3GPP ? " 3gpp" : " 3gpp2"));
            ModifyProfileParams change;
            field.set(change);
            ASSERT_TRUE(manager().modifyProfile(change, key));
            EXPECT_TRUE(field.holds(*manager().getProfile(key)));
            FilterProfileParams filter;
            field.set(filter);
            filter.setFilterByTechType(tech);
            const auto found = find(filter);
            EXPECT_TRUE(std::any_of(found.begin(), found.end(),
                                    [&](const auto& k) { return k->getProfileId() == id; }));
            manager().refresh(PDC_REFRESH_COMPLETED);
            key = findOne(id, tech);
            ASSERT_TRUE(key);
            const auto reread = manager().getProfile(key);
            if (tech == TechType::TECH_3GPP2 && !field.reread3gpp2) {
                EXPECT_FALSE(reread->hasPassword());
            } else {
                EXPECT_TRUE(field.holds(*reread)) << "after a reread";
            }
        }
    }
    const auto modem = sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 3);
    ASSERT_TRUE(modem);
    EXPECT_EQ(modem->pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(modem->lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    // The override was cleared on the modem, not left standing.
    EXPECT_EQ(modem->override_home_pdp_type_valid, 1);
    EXPECT_EQ(modem->override_home_pdp_type, WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01);
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
    EXPECT_TRUE(log->contains(LogLevel::Info, "Released profile 3"));

    // Persistent library profiles and foreign ones stay, with their count.
    auto persistent = manager().addProfile(AddProfileParams(true, TechType::TECH_3GPP, false));
    ASSERT_TRUE(persistent);
    const int id = persistent->getProfileId();
    persistent.reset();
    auto foreign = findOne(1);
    ASSERT_TRUE(foreign);
    foreign.reset();
    EXPECT_EQ(
            log->count(LogLevel::Info, "ProfileCache: ignoring non-persistent or non-kiv created"),
            2u);
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
    ASSERT_EQ(heard.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready)
            << "the expiration listener was not called";
    settle();
    EXPECT_TRUE(log->contains(LogLevel::Info, "ProfileCache: updating cache due to indication!"));
    const std::string token = heldText.substr(heldText.find('=') + 1);
    EXPECT_TRUE(log->contains(LogLevel::Info, "ProfileCache: releaseProfile token=" + token));
    EXPECT_FALSE(manager().getProfile(key));
}

TEST_F(ManagerTest, OutsideChangesFoldedIn) {
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

    // An event the cache does not know is logged and ignored.
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 1, WDS_PROFILE_EVENT_PROFILE_READY_V01);
    settle();
    EXPECT_EQ(find(FilterProfileParams()).size(), 3u);
}

// A subscription change and a ready modem each reread the table: the keys
// handed out before name nothing.
TEST_F(ManagerTest, RereadsVoidKeys) {
    auto key = findOne(1);
    ASSERT_TRUE(key);
    sim().sendSubscriptionChange();
    settle();
    EXPECT_FALSE(manager().getProfile(key));
    key = findOne(1);
    ASSERT_TRUE(key);
    sim().sendProfileReady();
    settle();
    EXPECT_FALSE(manager().getProfile(key));
    EXPECT_EQ(find(FilterProfileParams()).size(), 2u);
}

// Another client's changes that the modem made before it served an add,
// but that reach the library only while the add is on its way, describe
// the profile that held the index before: the library's own new profile at
// that index keeps its key, its echoes and its place, and goes with its
// last key.
TEST_F(ManagerTest, ChangesFromBeforeAnAddNeverTouchTheProfileItCreated) {
    const auto foreign =
            xalsim::make3gppSettings("x", "foreign", WDS_PDP_TYPE_PDP_IPV4_V01, 0, true);
    const struct {
        const char* what;
        bool cachedBefore;  // the index's old profile was in the cache before the add
        std::function<void()> meanwhile;
    } cases[] = {
            {"its delete", true, [] { sim().externalDelete(WDS_PROFILE_TYPE_3GPP_V01, 3); }},
            {"its whole life", false,
             [&] {
                 ASSERT_EQ(sim().externalCreate(WDS_PROFILE_TYPE_3GPP_V01, foreign), 3);
                 sim().externalDelete(WDS_PROFILE_TYPE_3GPP_V01, 3);
             }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        startAfresh();
        if (c.cachedBefore) {
            ASSERT_EQ(sim().externalCreate(WDS_PROFILE_TYPE_3GPP_V01, foreign), 3);
            settle();
            ASSERT_TRUE(findOne(3));
        }
        sim().holdNextRequest(XAL_WDS_CREATE_PROFILE_REQ_V01);
        auto adding = std::async(std::launch::async,
                                 [] { return manager().addProfile(temporaryProfile("mine")); });
        ASSERT_TRUE(sim().waitUntilHeld());
        c.meanwhile();
        // Delivered to the library, which is busy with its add.
        ASSERT_TRUE(sim().waitForCallbacks());
        sim().releaseRequests();
        auto key = adding.get();
        ASSERT_TRUE(key);
        ASSERT_EQ(key->getProfileId(), 3);
        settle();

        const auto seen = manager().getProfile(key);
        ASSERT_TRUE(seen) << "the add's own key no longer names its profile";
        EXPECT_EQ(seen->getApnName(), "mine");
        EXPECT_EQ(find(FilterProfileParams()).size(), 3u);
        EXPECT_TRUE(pendingLines().empty()) << "the add's echoes were taken for others'";
        EXPECT_EQ(log->countContaining(LogLevel::Info, "3GPP:3 Delete predates profile"), 1u);
        key.reset();
        settle();
        EXPECT_EQ(sim().profiles().size(), 2u) << "the temporary profile was left behind";
    }
}

// An entry line carrying the longest profile the modem holds is cut at the
// log's 511 characters, exactly, and so is the exit line of reading it back.
TEST_F(ManagerTest, EntryAndExitLinesOfTheLongestProfileCutAtExactly511) {
    ProfileParams params;
    params.setApnName(std::string(150, 'a'));
    params.setUserName(std::string(127, 'u'));
    params.setPassword(std::string(127, 'p'));
    params.setApnTypesMask(0xFFF);
    params.setHomeIPType(IPType::V4V6);
    params.setRoamIPType(IPType::V4V6);
    params.setAuthType(AuthType::PAP_CHAP);
    params.setApnClass(ApnClass::INET);
    params.setIsClatEnabled(true);
    params.setMaxPdnsConnPerBlock(1000);
    params.setMaxPdnConnTimer(300);
    params.setPdnReqWaitInterval(100);
    params.setIsEmergencySupported(true);
    const AddProfileParams add(params, /*persistent=*/false, TechType::TECH_3GPP, false);
    auto key = manager().addProfile(add);
    ASSERT_TRUE(key);
    const auto seen = manager().getProfile(key);
    ASSERT_TRUE(seen);
    const std::string entry = "Manager::addProfile > " + AddRequest(add).dump();
    const std::string exit = "Manager::getProfile < " + GetResponse(Status::Success, seen).dump();
    ASSERT_GT(entry.size(), 511u);
    ASSERT_GT(exit.size(), 511u);
    EXPECT_TRUE(log->contains(LogLevel::Info, entry.substr(0, 511)));
    EXPECT_TRUE(log->contains(LogLevel::Info, exit.substr(0, 511)));
}

// Passwords in the library's texts: shown, as they always were, unless the
// library is built secret-free; then no text of it carries one, 3GPP2 included.
TEST_F(ManagerTest, PasswordsInDumpsAndLogLinesAsTheBuildSays) {
    for (const TechType tech : {TechType::TECH_3GPP, TechType::TECH_3GPP2}) {
        ProfileParams params;
        params.setApnName("secret.apn");
        params.setUserName("user");
        params.setPassword("TopSecret123");
        auto key = manager().addProfile(AddProfileParams(params, true, tech, false));
        ASSERT_TRUE(key);
        ModifyProfileParams change;
        change.setPassword("TopSecret456");
        manager().modifyProfile(change, key);
        manager().refresh(PDC_REFRESH_COMPLETED);
    }
    std::vector<std::string> texts = manager().dump();
    for (const auto& line : log->lines()) texts.push_back(line.message);
    size_t shown = 0;
    for (const auto& text : texts) {
        shown += text.find("Password=TopSecret") != std::string::npos;
        if (kSecretFreeLog) {
            EXPECT_EQ(text.find("TopSecret"), std::string::npos) << text;
        }
    }
    if (kSecretFreeLog) {
        EXPECT_GT(log->countContaining(LogLevel::Info, "Password=(hidden)"), 3u);
    } else {
        EXPECT_GT(shown, 3u);
    }
}

TEST_F(ManagerTest, RefreshBracketRefusesEveryOtherRequest) {
    auto key = findOne(1);
    ASSERT_TRUE(key);
    manager().refresh(PDC_REFRESH_STARTED);
    EXPECT_TRUE(log->contains(LogLevel::Warning, "KIV refresh started"));
    EXPECT_EQ(manager().addProfile(temporaryProfile("x")), nullptr);
    EXPECT_FALSE(manager().modifyProfile(ModifyProfileParams(), key));
    EXPECT_FALSE(manager().deleteProfile(key));
    EXPECT_TRUE(find(FilterProfileParams()).empty());
    EXPECT_FALSE(manager().getProfile(key));
    EXPECT_FALSE(manager().match(FilterProfileParams(), key));
    EXPECT_EQ(sim().profiles().size(), 2u);
    manager().refresh(PDC_REFRESH_COMPLETED);
    EXPECT_TRUE(log->contains(LogLevel::Warning, "KIV refresh completed"));
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
    EXPECT_EQ(log->countContaining(LogLevel::Warning,
                                   "KeyChannel: pipeline is gone, dropping Callback"),
              2u);
    // The profile stays: nothing reached the new pipeline.
    EXPECT_EQ(modemProfiles(), 3u);
}

TEST_F(ManagerTest, ModemRestartReconnectsThenRereadsOnProfileReady) {
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
