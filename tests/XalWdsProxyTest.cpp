#include <gtest/gtest.h>

#include <cstring>

#include "sim/SimModem.h"
#include "src/Modem3gppProfile.h"
#include "src/XalWdsProxy.h"
#include "support/CapturingLog.h"
#include "support/WorkerLoop.h"

namespace kiv {
namespace {

using xalsim::SimModem;

constexpr int kSubscription = 7;

// A proxy on a worker loop, connected to a fresh simulated modem.
class ProxyFixture : public testing::Test {
  protected:
    void SetUp() override {
        sim().reset();
        sim().seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                          xalsim::make3gppSettings("internet", "Internet",
                                                   WDS_PDP_TYPE_PDP_IPV4V6_V01, 0x1, true));
        sim().seedProfile(
                WDS_PROFILE_TYPE_3GPP_V01,
                xalsim::make3gppSettings("ims", "ims", WDS_PDP_TYPE_PDP_IPV6_V01, 0x2, true));
        mProxy = loop.run([this] {
            auto proxy = std::make_unique<XalWdsProxy>(loop.events(), kSubscription);
            proxy->registerProfileChangedInd(
                    [this](ProfileChangedInd ind) { mIndications.push_back(ind); });
            return proxy;
        });
        waitForRegistrations(1);
    }
    void TearDown() override {
        loop.run([this] { mProxy.reset(); });
    }

    static SimModem& sim() { return SimModem::instance(); }

    void waitForRegistrations(size_t count) {
        ASSERT_TRUE(sim().waitUntil([count] {
            return sim().requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) >= count;
        })) << "the proxy did not register with the modem ("
            << count << " times in all)";
        loop.sync();
    }

    // Every indication the simulator sent has been handled on the worker.
    void deliverIndications() {
        ASSERT_TRUE(sim().waitForCallbacks()) << "the modem's callbacks did not all run";
        loop.sync();
    }

    xal_client_type serviceClient() const {
        for (const auto& client : sim().clients()) {
            if (!client.notifier && !client.released) return client.handle;
        }
        return nullptr;
    }

    test::ScopedLogCapture log;
    test::WorkerLoop loop;
    std::unique_ptr<XalWdsProxy> mProxy;
    std::vector<ProfileChangedInd> mIndications;  // worker thread
};

class XalWdsProxyTest : public ProxyFixture {};

TEST_F(XalWdsProxyTest, ConnectSendsThreeRegistrationsByteForByte) {
    auto requests = sim().requests(serviceClient());
    ASSERT_EQ(requests.size(), 3u);

    EXPECT_EQ(requests[0].msgId, 0xAFu);
    EXPECT_EQ(requests[0].bytes, (std::vector<uint8_t>{kSubscription, 0, 0, 0}));

    EXPECT_EQ(requests[1].msgId, 0x03u);
    std::vector<uint8_t> registration(398, 0);
    registration[16] = registration[17] = 1;
    EXPECT_EQ(requests[1].bytes, registration);

    EXPECT_EQ(requests[2].msgId, 0xA7u);
    std::vector<uint8_t> events(2052, 0);
    events[0] = 1;
    events[4] = 1;
    events[8] = 0xFF;
    events[12] = 0xFF;
    events[2048] = events[2049] = 1;
    EXPECT_EQ(requests[2].bytes, events);

    // The notifier is let go once connected.
    const auto clients = sim().clients();
    ASSERT_EQ(clients.size(), 2u);
    for (const auto& client : clients) EXPECT_EQ(client.released, client.notifier);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "XalWdsProxy bind register request successful!"));
    EXPECT_TRUE(
            log.contains(LogLevel::Debug, "XalWdsProxy indication register request successful!"));
    EXPECT_TRUE(log.contains(LogLevel::Debug, "XalWdsProxy config register request successful!"));
}

TEST_F(XalWdsProxyTest, ServiceUpSignalsCollapseAndSkipAnOpenClient) {
    log.clear();
    auto release = loop.hold();
    XalWdsProxy::xalNotifyCb(nullptr, nullptr, XAL_CLIENT_SERVICE_COUNT_INC, mProxy.get());
    XalWdsProxy::xalNotifyCb(nullptr, nullptr, XAL_CLIENT_SERVICE_COUNT_INC, mProxy.get());
    XalWdsProxy::xalNotifyCb(nullptr, nullptr, XAL_CLIENT_SERVICE_COUNT_DEC, mProxy.get());
    release();
    loop.sync();
    EXPECT_EQ(log.count(LogLevel::Debug,
                        "XalWdsProxy service is up, trying to initialize svc client"),
              1u);
    EXPECT_EQ(log.count(LogLevel::Debug,
                        "XalWdsProxy client is already present, so skipping client "
                        "initialization."),
              1u);
    EXPECT_EQ(log.count(LogLevel::Error, "XalWdsProxy notify cb: unsupported service event"), 1u);
    EXPECT_EQ(sim().requestCount(XAL_WDS_BIND_SUBSCRIPTION_REQ_V01), 1u);
}

// ManagerTest restarts the modem under the whole library; here the
// reconnection fails and leaves the proxy without a client.
TEST_F(XalWdsProxyTest, ModemRestartFailedReconnectionLeavesNoClient) {
    sim().failClientInit(1);
    sim().restart();
    ASSERT_TRUE(sim().waitUntil([] { return sim().counters().notifyCallbacks >= 2; }))
            << "the restarted modem did not notify";
    loop.sync();
    EXPECT_TRUE(log.contains(LogLevel::Warning, "Handling modem down"));
    EXPECT_TRUE(log.contains(LogLevel::Error, "xal_client_init error. ErrCode : -1"));
    EXPECT_EQ(serviceClient(), nullptr);
    EXPECT_TRUE(loop.run([this] { return mProxy->getAllProfiles(); }).empty());
}

TEST_F(XalWdsProxyTest, IndicationsDecodedMappedAndBadOnesDropped) {
    sim().sendUnknownIndication(0x55);
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 3, WDS_PROFILE_EVENT_MODIFY_V01);
    sim().sendInvalidIndication();
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP2_V01, 101, 0);
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 1, 9);
    sim().sendSubscriptionChange();
    deliverIndications();
    auto seen = loop.run([this] { return mIndications; });
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].dump(), "3GPP:3 Modify");
    EXPECT_EQ(seen[1].dump(), "3GPP2:101 ProfileReady");
    EXPECT_EQ(seen[2].dump(), "3GPP:1 ProfileReady");
    EXPECT_EQ(seen[3].event, ProfileChangedEvent::SubscriptionChange);
    EXPECT_TRUE(log.contains(LogLevel::Verbose, "Unknown message ID 85 received"));
    EXPECT_TRUE(log.contains(LogLevel::Error, "Profile changed ind TLV is not valid"));

    // An unknown message does not stop the pass: what is queued behind it
    // arrives with it, without another signal.
    auto release = loop.hold();
    sim().sendUnknownIndication(0x56);
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 4, WDS_PROFILE_EVENT_CREATE_V01);
    ASSERT_TRUE(sim().waitForCallbacks()) << "the modem's callbacks did not all run";
    release();
    loop.sync();
    seen = loop.run([this] { return mIndications; });
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen[4].dump(), "3GPP:4 Create");
    loop.run([this] { mIndications.pop_back(); });

    // A buffer that does not decode stops the pass; what follows it waits
    // for the next signal.
    release = loop.hold();
    sim().sendUndecodableIndication();
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 2, WDS_PROFILE_EVENT_DELETE_V01);
    ASSERT_TRUE(sim().waitForCallbacks());
    release();
    loop.sync();
    EXPECT_TRUE(log.contains(LogLevel::Error, "Unable to decode the nr status ind message"));
    EXPECT_EQ(loop.run([this] { return mIndications.size(); }), 4u);
    sim().sendProfileChanged(WDS_PROFILE_TYPE_3GPP_V01, 2, WDS_PROFILE_EVENT_CREATE_V01);
    deliverIndications();
    seen = loop.run([this] { return mIndications; });
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[4].dump(), "3GPP:2 Delete");
    EXPECT_EQ(seen[5].dump(), "3GPP:2 Create");
}

TEST_F(XalWdsProxyTest, ProfileOperationsSucceedOrFailWithTheirLogLines) {
    ProfileParams params;
    params.setApnName("Temp");
    Modem3gppProfile profile(params);
    sim().timeoutNext(XAL_WDS_CREATE_PROFILE_REQ_V01, 1);
    EXPECT_FALSE(loop.run([&] { return mProxy->add(profile); }));
    EXPECT_EQ(profile.getProfileId(), -1);
    ASSERT_TRUE(loop.run([&] { return mProxy->add(profile); }));
    EXPECT_EQ(profile.getProfileId(), 3);
    EXPECT_TRUE(log.contains(LogLevel::Info,
                             "XalWdsProxy XAL_WDS_CREATE_PROFILE_REQ_V01 request successful!"));

    // Profiles the modem does not have.
    EXPECT_FALSE(loop.run([&] { return mProxy->modify(profile, TechType::TECH_3GPP, 9); }));
    EXPECT_FALSE(loop.run([&] { return mProxy->remove(TechType::TECH_3GPP, 9); }));
    EXPECT_EQ(loop.run([&] { return mProxy->get(TechType::TECH_3GPP2, 101); }), nullptr);
    EXPECT_TRUE(log.contains(LogLevel::Error,
                             "Unable send XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01 message"));

    // With the service down every request fails.
    sim().setServiceUp(false);
    EXPECT_EQ(loop.run([&] { return mProxy->get(TechType::TECH_3GPP, 1); }), nullptr);
}

TEST_F(XalWdsProxyTest, GetAllProfilesListsInOrderWithinBounds) {
    // No 3GPP2 profiles: two list requests, the 3GPP profiles only.
    auto all = loop.run([this] { return mProxy->getAllProfiles(); });
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all.front()->getProfileId(), 1);
    EXPECT_EQ(all.back()->getProfileId(), 2);
    EXPECT_EQ(sim().requestCount(XAL_WDS_GET_PROFILE_LIST_REQ_V01), 2u);
    const auto list = sim().requests().back();
    ASSERT_EQ(list.bytes.size(), 184u);
    EXPECT_EQ(list.bytes[0], 1);
    EXPECT_EQ(list.bytes[4], 1);

    // A profile that cannot be read leaves a null in its place.
    sim().seedProfile(WDS_PROFILE_TYPE_3GPP2_V01,
                      xalsim::make3gpp2Settings("cdma", WDS_PROFILE_PDN_TYPE_IPV4_V01, true));
    sim().failNext(XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01, 1, 1);
    all = loop.run([this] { return mProxy->getAllProfiles(); });
    ASSERT_EQ(all.size(), 3u);
    auto it = all.begin();
    EXPECT_TRUE(*it++);
    EXPECT_EQ(*it++, nullptr);
    ASSERT_TRUE(*it);
    EXPECT_EQ((*it)->getTechType(), TechType::TECH_3GPP2);
    EXPECT_EQ((*it)->getProfileId(), 101);

    // A failed 3GPP2 list keeps the 3GPP profiles; a failed 3GPP list gives nothing.
    sim().failNext(XAL_WDS_GET_PROFILE_LIST_REQ_V01, 1, 1);
    EXPECT_EQ(loop.run([this] { return mProxy->getAllProfiles(); }).size(), 2u);
    sim().failNext(XAL_WDS_GET_PROFILE_LIST_REQ_V01, 1);
    EXPECT_TRUE(loop.run([this] { return mProxy->getAllProfiles(); }).empty());

    // A count above 255 is read as 255 entries; strings without NUL stay
    // within their arrays.
    sim().corruptNextList(1);
    sim().corruptNextSettings(1);
    all = loop.run([this] { return mProxy->getAllProfiles(); });
    EXPECT_EQ(all.size(), 255u + 1u);
    EXPECT_TRUE(log.contains(LogLevel::Error,
                             "XalWdsProxy: profile list count 300 above 255, reading 255"));
    auto first = std::dynamic_pointer_cast<Modem3gppProfile>(all.front());
    ASSERT_TRUE(first);
    EXPECT_EQ(first->getApnName(), std::string(150, 'z'));
    EXPECT_EQ(first->getProfileName(), std::string(50, 'Z'));
    EXPECT_EQ(first->getUserName(), std::string(127, 'Z'));
    EXPECT_EQ(first->getPassword(), std::string(127, 'Z'));
}

}  // namespace
}  // namespace kiv
