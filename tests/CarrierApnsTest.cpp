#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>

#include "Manager.h"
#include "Util.h"
#include "diag/diag_host.h"
#include "kivctl/ApnsConf.h"
#include "sim/SimModem.h"
#include "src/Conversions.h"

namespace {

using kivctl::ApnsConf;

// Every carrier of a real APN database, applied one after another to one
// simulated modem: nothing fails and the library's view stays the modem's.
TEST(CarrierApnsTest, AllCarriersEveryCarrierAppliesCleanly) {
    // The database is not part of the sources: it is found beside them, or
    // wherever KIVR_APNS_CONF names.
    const char* named = getenv("KIVR_APNS_CONF");
    const std::string path = named ? named : KIVR_SOURCE_DIR "/../shared/data/apns-conf.xml";
    if (!std::ifstream(path)) {
        GTEST_SKIP() << "no carrier APN database at " << path
                     << " (set KIVR_APNS_CONF to an apns-conf.xml to run this test)";
    }
    const auto all = ApnsConf::read(path, std::nullopt);
    ASSERT_TRUE(all.ok) << all.error;
    std::map<std::string, std::list<kiv::ProfileParams>> carriers;
    for (const auto& entry : all.entries) {
        carriers[entry.mcc + "/" + entry.mnc].push_back(entry.params);
    }
    ASSERT_GT(carriers.size(), 100u);

    auto& sim = xalsim::SimModem::instance();
    sim.reset();
    for (const char* name : {"internet", "ims", "mms", "wap"}) {
        sim.seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                        xalsim::make3gppSettings(name, name, WDS_PDP_TYPE_PDP_IPV4V6_V01, 0, true));
    }
    auto& manager = kiv::Manager::getInstance();
    diag_host_set_sink([](const msg_desc_type*, const char*, void*) {}, nullptr);
    manager.init(0, false);
    ASSERT_TRUE(sim.waitUntil([&] {
        return sim.requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) > 0;
    })) << "the library did not register with the modem";
    manager.refresh(kiv::PDC_REFRESH_COMPLETED);
    kiv::Util util;
    for (const auto& [carrier, records] : carriers)
        util.updateAPNTypeBitmaskOnModemProfile(records);
    ASSERT_TRUE(sim.waitForCallbacks()) << "the modem's callbacks did not all run";
    manager.match(kiv::FilterProfileParams(), nullptr);
    manager.match(kiv::FilterProfileParams(), nullptr);

    EXPECT_EQ(sim.counters().failedRequests, 0u);
    EXPECT_GT(sim.requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01), 0u);
    const auto keys = manager.filter(kiv::FilterProfileParams());
    ASSERT_EQ(keys.size(), sim.profiles().size());
    for (const auto& key : keys) {
        const auto seen = manager.getProfile(key);
        const auto stored = sim.getProfile(WDS_PROFILE_TYPE_3GPP_V01,
                                           static_cast<uint8_t>(key->getProfileId()));
        ASSERT_TRUE(seen && stored);
        EXPECT_EQ(seen->getApnName(), stored->apn_name);
        EXPECT_EQ(seen->getApnTypesMask(), kiv::convertToCommonApnTypeMask(stored->apn_type_mask));
    }
}

}  // namespace
