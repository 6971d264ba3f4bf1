// The library on a simulated modem manager (kivmmd) through libxalmm: its
// whole life in each behaviour, changes made by an independent client of
// the bus, the daemon and the modem coming and going, and every value the
// interface cannot hold.

#include <gtest/gtest.h>

#include <thread>

#include "Util.h"
#include "support/ModemManagerFixture.h"

namespace kiv {
namespace {

using namespace test;

const std::string kCacheUpdate = "ProfileCache: updating cache due to indication!";

class ModemManagerTest : public ModemManagerFixture {};

// Waits until the condition holds (true) or 20 s have passed.
template <typename Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

// The behaviours a modem manager and its modem may have.
class EachBehaviour : public ModemManagerFixture, public testing::WithParamInterface<const char*> {
  protected:
    bool keepsEverything() const { return std::string(GetParam()) != "at"; }
};

TEST_P(EachBehaviour, LibraryLifeAddModifyDeleteWithTheirEchoes) {
    startDaemon({"--behaviour", GetParam()});
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
    const auto listed = busctl({"call", "org.freedesktop.ModemManager1", modemPath(),
                                kProfileManager, "List"});
    EXPECT_EQ(listed.out.find("kept"), std::string::npos) << listed.out;
    EXPECT_EQ(listed.out.find("temporary"), std::string::npos) << listed.out;
}

TEST_P(EachBehaviour, IndependentClientsChangesArriveAsForeignChanges) {
    // 1.20 announces every change; 1.24 holds back what was done through
    // it and AT modems announce nothing: there the table is polled.
    const bool announced = std::string(GetParam()) == "1.20";
    xalmm::setPollInterval(announced ? 0ms : 100ms);
    startDaemon({"--behaviour", GetParam()});
    startLibrary();
    const std::string path = modemPath();

    auto result = busctl({"call", "org.freedesktop.ModemManager1", path, kProfileManager, "Set",
                          "a{sv}", "2", "apn", "s", "from.busctl", "ip-type", "u", "1"});
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_TRUE(eventually([] { return byApn("from.busctl").size() == 1; }))
            << clientLogText();
    auto key = byApn("from.busctl").front();
    EXPECT_EQ(Manager::getInstance().getProfile(key)->getHomeIPType(), IPType::V4);
    EXPECT_TRUE(eventually([&] { return log->count(LogLevel::Info, kCacheUpdate) == 2; }));

    const std::string index = std::to_string(key->getProfileId());
    result = busctl({"call", "org.freedesktop.ModemManager1", path, kProfileManager, "Set",
                     "a{sv}", "3", "profile-id", "i", index, "apn", "s", "from.busctl",
                     "ip-type", "u", "2"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(eventually([&] {
        auto seen = Manager::getInstance().getProfile(byApn("from.busctl").front());
        return seen && seen->getHomeIPType() == IPType::V6;
    }));

    // Behind the daemon's back: no modem manager announces it.
    control("Change", {"0", "a{sv}", "2", "apn", "s", "behind.back", "ip-type", "u", "4", "false"});
    xalmm::setPollInterval(100ms);
    EXPECT_TRUE(eventually([] { return byApn("behind.back").size() == 1; })) << clientLogText();

    result = busctl({"call", "org.freedesktop.ModemManager1", path, kProfileManager, "Delete",
                     "a{sv}", "1", "profile-id", "i", index});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(eventually([] { return byApn("from.busctl").empty(); }));
}

TEST_P(EachBehaviour, TemporariesReclaimedAfterAReread) {
    startDaemon({"--behaviour", GetParam()});
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
    startDaemon({"--behaviour", GetParam()});
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
    ASSERT_TRUE(sos) << clientLogText();
    settle();
    auto sosAgain = util.findOrCreateProfileForEmergencyDataCall(emergency);
    ASSERT_TRUE(sosAgain);
    EXPECT_EQ(sosAgain->getProfileId(), sos->getProfileId());
    EXPECT_EQ(log->count(LogLevel::Info, kCacheUpdate), 0u) << clientLogText();
}

INSTANTIATE_TEST_SUITE_P(ModemManager, EachBehaviour, testing::Values("1.20", "1.24", "at"),
                         [](const testing::TestParamInfo<const char*>& info) {
                             const std::string name = info.param;
                             return name == "at" ? std::string("AtModem")
                                                 : "V" + name.substr(0, 1) + name.substr(2);
                         });

}  // namespace
}  // namespace kiv
