// The library on a simulated modem manager (kivmmd) through libxalmm: its
// whole life in each behaviour, changes made by an independent client of
// the bus, the daemon and the modem coming and going, and every value the
// interface cannot hold.

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "Util.h"
#include "support/ModemManagerFixture.h"

namespace kiv {
namespace {

using namespace test;

// The first simulated modem's equipment identifier.
const char* const kModem = "356938035643800";
const std::string kCacheUpdate = "ProfileCache: updating cache due to indication!";

class ModemManagerTest : public ModemManagerFixture {};

// The behaviours a modem manager and its modem may have: its version, an
// AT-command modem, a modem that only clears a slot on delete.
struct Behaviour {
    const char* name;
    const char* version;
    bool clearsSlots;
};

class EachBehaviour : public ModemManagerFixture, public testing::WithParamInterface<Behaviour> {
  protected:
    bool keepsEverything() const { return version() != "at"; }
    std::string version() const { return GetParam().version; }
    void startDaemon() {
        std::vector<std::string> options = {"--behaviour", version()};
        if (GetParam().clearsSlots) options.push_back("--delete-clears-slot");
        ModemManagerFixture::startDaemon(options);
    }
};

TEST_P(EachBehaviour, LibraryLifeAddModifyDeleteWithTheirEchoes) {
    startDaemon();
    startLibrary();
    // The factory's 3GPP profiles; the modem manager keeps no 3GPP2 ones.
    EXPECT_EQ(Manager::getInstance().filter(FilterProfileParams()).size(), 3u);
    ASSERT_EQ(byApn("internet").size(), 1u);

    ProfileParams params;
    params.setApnName("kept.apn");
    params.setHomeIPType(IPType::V4V6);
    params.setRoamIPType(IPType::V4V6);
    auto kept = add(params, true);
    ASSERT_TRUE(kept) << clientLogText();
    EXPECT_EQ(kept->getProfileId(), 4);
    ModifyProfileParams change;
    change.setApnName("kept.changed");
    EXPECT_TRUE(Manager::getInstance().modifyProfile(change, kept));
    settle();
    // Echoes only: none of this process's changes came back as another's.
    EXPECT_EQ(log->count(LogLevel::Info, kCacheUpdate), 0u) << clientLogText();
    auto seen = Manager::getInstance().getProfile(kept);
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->getApnName(), "kept.changed");
    EXPECT_EQ(seen->getHomeIPType(), IPType::V4V6);

    // A temporary profile leaves the modem with its last key; a persistent
    // one stays until deleted.
    auto temporary = add("temporary.apn", false);
    ASSERT_TRUE(temporary) << clientLogText();
    temporary.reset();
    settle();
    EXPECT_TRUE(byApn("temporary.apn").empty());
    EXPECT_TRUE(Manager::getInstance().deleteProfile(kept));
    settle();
    EXPECT_TRUE(byApn("kept.changed").empty());
    EXPECT_EQ(log->count(LogLevel::Info, kCacheUpdate), 0u) << clientLogText();
    const auto listed =
            busctl({"call", "org.freedesktop.ModemManager1", modemPath(), kProfileManager, "List"});
    EXPECT_EQ(listed.out.find("kept"), std::string::npos) << listed.out;
    EXPECT_EQ(listed.out.find("temporary"), std::string::npos) << listed.out;
}

TEST_P(EachBehaviour, IndependentClientsChangesArriveAsForeignChanges) {
    // 1.20 announces every change; 1.24 holds back what was done through
    // it and AT modems announce nothing: there the table is polled.
    const bool announced = version() == "1.20";
    xalmm::setPollInterval(announced ? 0ms : 100ms);
    startDaemon();
    startLibrary();
    const std::string path = modemPath();

    auto result = busctl({"call", "org.freedesktop.ModemManager1", path, kProfileManager, "Set",
                          "a{sv}", "2", "apn", "s", "from.busctl", "ip-type", "u", "1"});
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_TRUE(eventually([] { return byApn("from.busctl").size() == 1; })) << clientLogText();
    auto key = byApn("from.busctl").front();
    EXPECT_EQ(Manager::getInstance().getProfile(key)->getHomeIPType(), IPType::V4);
    EXPECT_TRUE(eventually([&] { return log->count(LogLevel::Info, kCacheUpdate) == 2; }));

    const std::string index = std::to_string(key->getProfileId());
    result =
            busctl({"call", "org.freedesktop.ModemManager1", path, kProfileManager, "Set", "a{sv}",
                    "3", "profile-id", "i", index, "apn", "s", "from.busctl", "ip-type", "u", "2"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(eventually([&] {
        auto seen = Manager::getInstance().getProfile(byApn("from.busctl").front());
        return seen && seen->getHomeIPType() == IPType::V6;
    }));

    // Behind the daemon's back: no modem manager announces it.
    control("Change",
            {"sa{sv}b", kModem, "2", "apn", "s", "behind.back", "ip-type", "u", "4", "false"});
    xalmm::setPollInterval(100ms);
    EXPECT_TRUE(eventually([] { return byApn("behind.back").size() == 1; })) << clientLogText();

    result = busctl({"call", "org.freedesktop.ModemManager1", path, kProfileManager, "Delete",
                     "a{sv}", "1", "profile-id", "i", index});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(eventually([] { return byApn("from.busctl").empty(); }));
}

TEST_P(EachBehaviour, TemporariesReclaimedAfterAReread) {
    startDaemon();
    startLibrary();
    auto temporary = add("left.behind", false);
    auto kept = add("kept.apn", true);
    ASSERT_TRUE(temporary && kept) << clientLogText();
    // A reread voids every key: the temporary would stay on the modem.
    Manager::getInstance().refresh(PDC_REFRESH_COMPLETED);
    temporary.reset();
    kept.reset();
    settle();
    ASSERT_EQ(byApn("left.behind").size(), 1u);
    // Whether the modem keeps the library's names or not, the temporary is
    // known as one.
    Util util;
    const auto reclaimed = util.reclaimTemporaryProfiles();
    ASSERT_EQ(reclaimed.size(), 1u) << clientLogText();
    EXPECT_EQ(reclaimed.front().params.getApnName(), "left.behind");
    settle();
    EXPECT_TRUE(byApn("left.behind").empty());
    EXPECT_EQ(byApn("kept.apn").size(), 1u);
}

TEST_P(EachBehaviour, PolicyHelpersFindOrCreateOnce) {
    startDaemon();
    startLibrary();
    Util util;
    ProfileParams attach;
    attach.setApnName("attach.apn");
    attach.setHomeIPType(IPType::V4V6);
    attach.setRoamIPType(IPType::V4V6);
    auto first = util.findOrCreateProfileForLteAttach(attach);
    ASSERT_TRUE(first) << clientLogText();
    settle();
    auto again = util.findOrCreateProfileForLteAttach(attach);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getProfileId(), first->getProfileId());

    ProfileParams data;
    data.setApnName("internet");
    auto call = util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP, data);
    ASSERT_TRUE(call) << clientLogText();
    EXPECT_EQ(call->getProfileId(), 1);  // the factory's own
    ProfileParams emergency;
    emergency.setApnName("sos");
    auto sos = util.findOrCreateProfileForEmergencyDataCall(emergency);
    if (!keepsEverything()) {
        // An AT modem keeps no APN types: the emergency profile cannot be
        // made, and each try fails once, leaving nothing behind.
        EXPECT_FALSE(sos);
        EXPECT_FALSE(util.findOrCreateProfileForEmergencyDataCall(emergency));
        EXPECT_EQ(clientLogged("create: the modem did not keep 'apn-type'"), 2u) << clientLogText();
        settle();
        EXPECT_TRUE(byApn("sos").empty());
        return;
    }
    ASSERT_TRUE(sos) << clientLogText();
    settle();
    auto sosAgain = util.findOrCreateProfileForEmergencyDataCall(emergency);
    ASSERT_TRUE(sosAgain);
    EXPECT_EQ(sosAgain->getProfileId(), sos->getProfileId());
    EXPECT_EQ(log->count(LogLevel::Info, kCacheUpdate), 0u) << clientLogText();
}

// The modem manager's events, each a modem going down and coming back: the
// library rereads, its keys from before are void, and it goes on working.
TEST_F(ModemManagerTest, DaemonModemAndSimComingAndGoingEachFollowedByAReread) {
    startDaemon();
    startLibrary();
    auto kept = add("kept.apn", true);
    ASSERT_TRUE(kept) << clientLogText();
    settle();
    const std::string firstPath = modemPath();

    const struct {
        const char* event;
        std::function<void()> leave;
        std::function<void()> comeBack;
    } kEvents[] = {
            {"the daemon leaves the bus", [&] { control("DaemonGone"); },
             [&] { control("DaemonBack"); }},
            {"the modem is re-exported",
             [&] {
                 control("Reexport", {"s", kModem});
             },
             nullptr},
            {"the SIM is swapped",
             [&] {
                 control("SwapSim", {"ss", kModem, "8900100000000000999"});
             },
             nullptr},
            {"the modem is disabled",
             [&] {
                 control("SetState", {"si", kModem, "3"});
             },
             [&] {
                 control("SetState", {"si", kModem, "8"});
             }},
    };
    size_t downs = 0;
    for (const auto& event : kEvents) {
        SCOPED_TRACE(event.event);
        kept = byApn("kept.apn").front();
        event.leave();
        if (event.comeBack) {
            ASSERT_TRUE(eventually([] { return xalmm::registeredClients() == 0; }));
            EXPECT_FALSE(xalmm::currentModem());
            event.comeBack();
        }
        ++downs;
        ASSERT_TRUE(eventually([&] {
            return log->count(LogLevel::Warning, "Handling modem down") == downs;
        })) << clientLogText();
        ASSERT_TRUE(xalmm::waitForRegisteredClients(1, 20s)) << clientLogText();
        settle();
        EXPECT_FALSE(Manager::getInstance().getProfile(kept));  // void after the reread
        EXPECT_EQ(byApn("kept.apn").size(), 1u);
        auto again = add("after.event", false);
        EXPECT_TRUE(again) << clientLogText();
        again.reset();
        settle();
        EXPECT_TRUE(byApn("after.event").empty());
    }
    const auto modem = xalmm::currentModem();
    ASSERT_TRUE(modem);
    EXPECT_NE(modem->path, firstPath);
    EXPECT_EQ(modem->simIdentifier, "8900100000000000999");
    EXPECT_EQ(modem->equipmentId, "356938035643800");
}

TEST_F(ModemManagerTest, TwoModemsChosenByIdentifierOrByInstance) {
    startDaemon({"--modems", "2"});
    xalmm::setModem("kivr-sim-modem-1");
    startLibrary();
    auto modem = xalmm::currentModem();
    ASSERT_TRUE(modem);
    EXPECT_EQ(modem->deviceId, "kivr-sim-modem-1");
    auto key = add("on.the.second", true);
    ASSERT_TRUE(key) << clientLogText();
    const auto second =
            busctl({"call", "org.freedesktop.ModemManager1", modem->path, kProfileManager, "List"});
    EXPECT_NE(second.out.find("on.the.second"), std::string::npos);
    // Re-exported, it is found again by its identifier, not its path.
    control("Reexport", {"s", "kivr-sim-modem-1"});
    ASSERT_TRUE(eventually([&] {
        auto now = xalmm::currentModem();
        return now && now->path != modem->path && now->deviceId == "kivr-sim-modem-1";
    }));
}

TEST_F(ModemManagerTest, WithNoModemNamedTheInstancePicksOneInTheirIdentifiersOrder) {
    startDaemon({"--modems", "3"});
    diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
    Manager::getInstance().init(/*instance=*/2, true);
    ASSERT_TRUE(eventually([] {
        auto modem = xalmm::currentModem();
        return modem && modem->equipmentId == "356938035643802";
    })) << clientLogText();
    ASSERT_TRUE(xalmm::waitForRegisteredClients(1, 20s)) << clientLogText();
}

// A profile may have an empty APN (the network gives one at attach); a slot
// a delete only cleared has nothing at all and is no profile.
TEST_F(ModemManagerTest, EmptyApnIsAProfileAClearedSlotIsNot) {
    startDaemon({"--delete-clears-slot"});
    startLibrary();
    ProfileParams params;
    params.setApnName("");
    params.setHomeIPType(IPType::V4V6);
    params.setRoamIPType(IPType::V4V6);
    auto empty = add(params, true);
    ASSERT_TRUE(empty) << clientLogText();
    settle();
    EXPECT_EQ(byApn("").size(), 1u);
    EXPECT_TRUE(Manager::getInstance().getProfile(empty));
    EXPECT_TRUE(Manager::getInstance().deleteProfile(empty));
    settle();
    EXPECT_TRUE(byApn("").empty());
    const auto listed =
            busctl({"call", "org.freedesktop.ModemManager1", modemPath(), kProfileManager, "List"});
    EXPECT_NE(listed.out.find("\"profile-id\" i 4"), std::string::npos) << "not only cleared";
}

TEST_F(ModemManagerTest, RefusalsAndValuesTheModemCannotHoldFailWithTheirReason) {
    startDaemon({"--capacity", "5"});
    startLibrary();
    const struct {
        const char* logged;
        std::function<void(ProfileParams&)> set;
    } kNotHeld[] = {
            {"max_pdn_conn_timer", [](ProfileParams& p) { p.setMaxPdnConnTimer(60); }},
            {"apn_class", [](ProfileParams& p) { p.setApnClass(ApnClass::ADMN); }},
            {"clat_enabled", [](ProfileParams& p) { p.setIsClatEnabled(true); }},
            {"lte_roaming_pdp_type",
             [](ProfileParams& p) {
                 p.setHomeIPType(IPType::V4);
                 p.setRoamIPType(IPType::V6);
             }},
            {"apn_type_mask (supl)", [](ProfileParams& p) { p.setApnTypesMask(APN_TYPE_SUPL); }},
    };
    for (const auto& c : kNotHeld) {
        ProfileParams params;
        params.setApnName("not.held");
        c.set(params);
        EXPECT_FALSE(add(params, true)) << c.logged;
        EXPECT_EQ(clientLogged(std::string("create: the modem cannot hold ") + c.logged), 1u)
                << clientLogText();
    }
    EXPECT_FALSE(Manager::getInstance().addProfile(
            AddProfileParams(ProfileParams(), true, TechType::TECH_3GPP2, false)));
    EXPECT_EQ(clientLogged("3GPP profiles only"), 1u) << clientLogText();

    // A modify the modem cannot hold leaves the profile as it was.
    auto key = add("held.apn", true);
    ASSERT_TRUE(key) << clientLogText();
    ModifyProfileParams timer;
    timer.setPdnReqWaitInterval(9);
    Manager::getInstance().modifyProfile(timer, key);
    EXPECT_EQ(clientLogged("modify: the modem cannot hold pdn_req_wait_interval"), 1u);

    // The modem's own refusals: a profile in use, a full table.
    control("SetConnected", {"sib", kModem, std::to_string(key->getProfileId()), "true"});
    EXPECT_FALSE(Manager::getInstance().deleteProfile(key));
    EXPECT_EQ(clientLogged("Error.Core.Connected"), 1u) << clientLogText();
    EXPECT_TRUE(add("fifth", true));
    EXPECT_FALSE(add("sixth", true));
    EXPECT_EQ(clientLogged("No empty profile available"), 1u) << clientLogText();
    settle();
    EXPECT_EQ(Manager::getInstance().filter(FilterProfileParams()).size(), 5u);
    EXPECT_TRUE(byApn("not.held").empty());
    EXPECT_EQ(log->count(LogLevel::Info, kCacheUpdate), 0u);
}

TEST_F(ModemManagerTest, AtModemKeepsOnlyApnAndIpTypeNothingElseIsTakenAsWritten) {
    startDaemon({"--behaviour", "at"});
    startLibrary();
    ProfileParams params;
    params.setApnName("with.user");
    params.setUserName("bob");
    params.setAuthType(AuthType::PAP);
    EXPECT_FALSE(add(params, true));
    EXPECT_EQ(clientLogged("create: the modem did not keep"), 1u) << clientLogText();
    const auto listed =
            busctl({"call", "org.freedesktop.ModemManager1", modemPath(), kProfileManager, "List"});
    EXPECT_EQ(listed.out.find("with.user"), std::string::npos) << "not deleted again";

    // A name it cannot keep is the library's to remember.
    auto named = add("named.apn", true);
    ASSERT_TRUE(named);
    settle();
    FilterProfileParams ours;
    ours.setFilterByIsKivProfile(true);
    EXPECT_EQ(Manager::getInstance().filter(ours).size(), 1u);
}

TEST_F(ModemManagerTest, NoAnswerWithinTheTimeOutIsATimeOutAndTheChangeArrivesLater) {
    startDaemon();
    startLibrary();
    // Later than the library waits (1000 ms).
    control("DelayNext", {"suu", "Set", "1", "1500"});
    EXPECT_FALSE(add("late.apn", true));
    EXPECT_EQ(clientLogged("got no answer in time"), 1u) << clientLogText();
    // The modem made it: it arrives as a change of the modem's own.
    EXPECT_TRUE(eventually([] { return byApn("late.apn").size() == 1; }));
}

INSTANTIATE_TEST_SUITE_P(ModemManager, EachBehaviour,
                         testing::Values(Behaviour{"V120", "1.20", false},
                                         Behaviour{"V124", "1.24", false},
                                         Behaviour{"AtModem", "at", false},
                                         Behaviour{"V120ClearingSlots", "1.20", true}),
                         [](const testing::TestParamInfo<Behaviour>& info) {
                             return std::string(info.param.name);
                         });

// 1.24 sends at most one Updated per 2 s: a second change within them is
// announced when they are over, and neither is lost, without polling.
TEST_F(ModemManagerTest, ThrottledUpdatesLoseNoChange) {
    xalmm::setPollInterval(0ms);
    startDaemon({"--behaviour", "1.24"});
    startLibrary();
    for (const char* apn : {"first.change", "second.change"}) {
        control("Change", {"sa{sv}b", kModem, "2", "apn", "s", apn, "ip-type", "u", "1", "true"});
    }
    EXPECT_TRUE(eventually([] { return byApn("first.change").size() == 1; })) << clientLogText();
    EXPECT_TRUE(eventually([] { return byApn("second.change").size() == 1; })) << clientLogText();
}

}  // namespace
}  // namespace kiv
