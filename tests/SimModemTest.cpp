#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "Mutex.h"
#include "SimModem.h"

namespace {

using xalsim::SimModem;

SimModem& sim() {
    return SimModem::instance();
}

// A client of the simulated modem through the C interface, recording what
// its callbacks see.
struct Client {
    kiv::Mutex lock;
    std::vector<int> notifications GUARDED_BY(lock);
    std::vector<int> errors GUARDED_BY(lock);
    std::vector<wds_profile_changed_ind_msg_v01> events GUARDED_BY(lock);
    std::atomic<bool> calledOnCallerThread{false};
    std::thread::id caller = std::this_thread::get_id();
    xal_client_type handle = nullptr;
    xal_client_type notifier = nullptr;

    void open() {
        xal_service_info info{};
        xal_client_os_params os{};
        ASSERT_EQ(xal_client_get_any_service(service(), &info), XAL_NO_ERR);
        ASSERT_EQ(xal_client_init(&info, service(), onIndication, this, &os, &handle), XAL_NO_ERR);
        ASSERT_EQ(xal_client_register_error_cb(handle, onError, this), XAL_NO_ERR);
        wds_indication_register_req_msg_v01 reg{};
        reg.report_profile_changed_events_valid = 1;
        reg.report_profile_changed_events = 1;
        wds_generic_resp_msg_v01 resp{};
        ASSERT_EQ(send(XAL_WDS_INDICATION_REGISTER_REQ_V01, &reg, sizeof(reg), &resp, sizeof(resp)),
                  XAL_NO_ERR);
    }
    void watch() {
        xal_client_os_params os{};
        ASSERT_EQ(xal_client_notifier_init(service(), &os, &notifier), XAL_NO_ERR);
        ASSERT_EQ(xal_client_register_notify_cb(notifier, onNotify, this), XAL_NO_ERR);
    }
    xal_client_error_type send(unsigned int id, void* req, unsigned int reqLen, void* resp,
                               unsigned int respLen) {
        return xal_client_send_msg_sync(handle, id, req, reqLen, resp, respLen, 1000);
    }
    std::vector<std::pair<int, int>> changes() {
        kiv::MutexLock guard(lock);
        std::vector<std::pair<int, int>> out;
        for (const auto& e : events) {
            out.emplace_back(e.profile_changed_ind.profile_index,
                             e.profile_changed_ind.profile_change_evt);
        }
        return out;
    }
    static xal_idl_service_object_type service() {
        return wds_get_service_object_internal_v01(1, 0xF1, 6);
    }
    void check() {
        if (std::this_thread::get_id() == caller) calledOnCallerThread = true;
    }
    static void onNotify(xal_client_type, xal_idl_service_object_type,
                         xal_client_notify_event_type event, void* data) {
        auto* self = static_cast<Client*>(data);
        self->check();
        kiv::MutexLock guard(self->lock);
        self->notifications.push_back(event);
    }
    static void onError(xal_client_type, xal_client_error_type error, void* data) {
        auto* self = static_cast<Client*>(data);
        self->check();
        kiv::MutexLock guard(self->lock);
        self->errors.push_back(error);
    }
    static void onIndication(xal_client_type handle, unsigned int msgId, void* buf,
                             unsigned int len, void* data) {
        auto* self = static_cast<Client*>(data);
        self->check();
        wds_profile_changed_ind_msg_v01 ind{};
        if (xal_client_message_decode(handle, XAL_IDL_INDICATION, msgId, buf, len, &ind,
                                      sizeof(ind)) == XAL_NO_ERR) {
            kiv::MutexLock guard(self->lock);
            self->events.push_back(ind);
        }
    }
};

TEST(SimModemTest, ProfileServiceIndexesCapacityEchoesAndBadRequests) {
    xalsim::Config config;
    config.capacity3gpp = 2;
    sim().reset(config);
    Client client;
    client.open();

    wds_create_profile_req_msg_v01 create{};
    create.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    create.apn_name_valid = 1;
    strcpy(create.apn_name, "one");
    create.persistent_valid = 1;
    wds_create_profile_resp_msg_v01 created{};
    ASSERT_EQ(client.send(0x27, &create, sizeof(create), &created, sizeof(created)), XAL_NO_ERR);
    EXPECT_EQ(created.resp.result, 0u);
    EXPECT_EQ(created.profile.profile_index, 1);
    ASSERT_EQ(client.send(0x27, &create, sizeof(create), &created, sizeof(created)), XAL_NO_ERR);
    EXPECT_EQ(created.profile.profile_index, 2);
    ASSERT_EQ(client.send(0x27, &create, sizeof(create), &created, sizeof(created)), XAL_NO_ERR);
    EXPECT_EQ(created.resp.result, 1u);  // full
    EXPECT_EQ(created.resp.error, xalsim::kErrNoFreeProfile);
    EXPECT_EQ(sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 1)->persistent, 0);  // as sent

    wds_delete_profile_req_msg_v01 del{};
    del.profile = {WDS_PROFILE_TYPE_3GPP_V01, 1};
    wds_delete_profile_resp_msg_v01 deleted{};
    ASSERT_EQ(client.send(0x29, &del, sizeof(del), &deleted, sizeof(deleted)), XAL_NO_ERR);
    EXPECT_EQ(deleted.resp.result, 0u);
    create.profile_type = WDS_PROFILE_TYPE_3GPP2_V01;
    ASSERT_EQ(client.send(0x27, &create, sizeof(create), &created, sizeof(created)), XAL_NO_ERR);
    EXPECT_EQ(created.profile.profile_index, 101);
    create.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    ASSERT_EQ(client.send(0x27, &create, sizeof(create), &created, sizeof(created)), XAL_NO_ERR);
    EXPECT_EQ(created.profile.profile_index, 1);  // the lowest free index again

    wds_modify_profile_settings_req_msg_v01 modify{};
    modify.profile = {WDS_PROFILE_TYPE_3GPP_V01, 2};
    modify.username_valid = 1;
    strcpy(modify.username, "me");
    wds_modify_profile_settings_resp_msg_v01 modified{};
    ASSERT_EQ(client.send(0x28, &modify, sizeof(modify), &modified, sizeof(modified)), XAL_NO_ERR);
    auto stored = sim().getProfile(WDS_PROFILE_TYPE_3GPP_V01, 2);
    EXPECT_STREQ(stored->username, "me");
    EXPECT_STREQ(stored->apn_name, "one");  // only valid fields change

    ASSERT_TRUE(sim().waitForCallbacks()) << "the modem's callbacks did not all run";
    const std::vector<std::pair<int, int>> expected = {
            {1, WDS_PROFILE_EVENT_CREATE_V01},   {1, WDS_PROFILE_EVENT_MODIFY_V01},
            {2, WDS_PROFILE_EVENT_CREATE_V01},   {2, WDS_PROFILE_EVENT_MODIFY_V01},
            {1, WDS_PROFILE_EVENT_DELETE_V01},   {101, WDS_PROFILE_EVENT_CREATE_V01},
            {101, WDS_PROFILE_EVENT_MODIFY_V01}, {1, WDS_PROFILE_EVENT_CREATE_V01},
            {1, WDS_PROFILE_EVENT_MODIFY_V01},   {2, WDS_PROFILE_EVENT_MODIFY_V01}};
    EXPECT_EQ(client.changes(), expected);
    EXPECT_FALSE(client.calledOnCallerThread);

    // Wrong lengths and unknown profiles get failure results.
    wds_get_profile_settings_req_msg_v01 get{};
    get.profile = {WDS_PROFILE_TYPE_3GPP_V01, 9};
    wds_get_profile_settings_resp_msg_v01 settings{};
    ASSERT_EQ(client.send(0x2B, &get, sizeof(get), &settings, sizeof(settings)), XAL_NO_ERR);
    EXPECT_EQ(settings.resp.result, 1u);
    ASSERT_EQ(client.send(0x2B, &get, 4, &settings, sizeof(settings)), XAL_NO_ERR);
    EXPECT_EQ(settings.resp.error, xalsim::kErrMalformedMessage);
    EXPECT_EQ(client.send(0x2B, &get, sizeof(get), &settings, 8), XAL_CLIENT_PARAM_ERR);
    EXPECT_EQ(sim().counters().failedRequests, 3u);
    xal_client_release(client.handle);
}

TEST(SimModemTest, ServiceRestartKeepsPersistentProfilesAndReportsOnEveryPromise) {
    sim().reset();
    sim().seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                      xalsim::make3gppSettings("keep", "keep", WDS_PDP_TYPE_PDP_IPV4_V01, 1, true));
    sim().seedProfile(
            WDS_PROFILE_TYPE_3GPP_V01,
            xalsim::make3gppSettings("drop", "drop", WDS_PDP_TYPE_PDP_IPV4_V01, 1, false));
    Client client;
    client.watch();
    ASSERT_TRUE(sim().waitForCallbacks()) << "the modem's callbacks did not all run";
    {
        kiv::MutexLock guard(client.lock);
        EXPECT_EQ(client.notifications, std::vector<int>{XAL_CLIENT_SERVICE_COUNT_INC});
    }
    client.open();

    sim().setServiceUp(false);
    xal_service_info info{};
    EXPECT_EQ(xal_client_get_any_service(Client::service(), &info), XAL_SERVICE_ERR);
    wds_bind_subscription_req_msg_v01 bind{};
    wds_generic_resp_msg_v01 resp{};
    EXPECT_EQ(client.send(0xAF, &bind, sizeof(bind), &resp, sizeof(resp)), XAL_SERVICE_ERR);
    sim().setServiceUp(true);
    // Still lost for this client until it is released.
    EXPECT_EQ(client.send(0xAF, &bind, sizeof(bind), &resp, sizeof(resp)), XAL_SERVICE_ERR);
    ASSERT_TRUE(sim().waitForCallbacks()) << "the modem's callbacks did not all run";
    {
        kiv::MutexLock guard(client.lock);
        EXPECT_EQ(client.errors, std::vector<int>{XAL_SERVICE_ERR});
        EXPECT_EQ(client.notifications,
                  (std::vector<int>{XAL_CLIENT_SERVICE_COUNT_INC, XAL_CLIENT_SERVICE_COUNT_DEC,
                                    XAL_CLIENT_SERVICE_COUNT_INC}));
    }
    const auto left = sim().profiles();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_STREQ(left[0].settings.profile_name, "keep");

    EXPECT_EQ(xal_client_release(client.handle), XAL_NO_ERR);
    EXPECT_EQ(xal_client_release(client.handle), XAL_CLIENT_INVALID_CLNT);
    EXPECT_EQ(client.send(0xAF, &bind, sizeof(bind), &resp, sizeof(resp)), XAL_CLIENT_INVALID_CLNT);
    EXPECT_EQ(xal_client_release(client.notifier), XAL_NO_ERR);
    EXPECT_FALSE(client.calledOnCallerThread);

    // Injected faults of the connection itself.
    sim().failGetAnyService(1);
    EXPECT_EQ(xal_client_get_any_service(Client::service(), &info), XAL_SERVICE_ERR);
    EXPECT_EQ(xal_client_get_any_service(Client::service(), &info), XAL_NO_ERR);
    EXPECT_EQ(wds_get_service_object_internal_v01(2, 0, 0), nullptr);
}

TEST(SimModemTest, DecodeRejectsMalformedBuffers) {
    wds_profile_changed_ind_msg_v01 out{};
    const uint8_t good[] = {'K', 'V', 1, 1, 0x10, 9, 0, 1, 0, 0, 0, 101, 3, 0, 0, 0};
    ASSERT_EQ(xal_client_message_decode(nullptr, XAL_IDL_INDICATION, 0xA8, good, sizeof(good), &out,
                                        sizeof(out)),
              XAL_NO_ERR);
    EXPECT_EQ(out.profile_changed_ind_valid, 1);
    EXPECT_EQ(out.profile_changed_ind.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
    EXPECT_EQ(out.profile_changed_ind.profile_index, 101);
    EXPECT_EQ(out.profile_changed_ind.profile_change_evt, WDS_PROFILE_EVENT_MODIFY_V01);
    for (unsigned int cut = 0; cut < sizeof(good); ++cut) {
        EXPECT_EQ(xal_client_message_decode(nullptr, XAL_IDL_INDICATION, 0xA8, good, cut, &out,
                                            sizeof(out)),
                  XAL_DECODE_ERR)
                << cut;
    }
    uint8_t longer[sizeof(good) + 1] = {};
    memcpy(longer, good, sizeof(good));
    EXPECT_EQ(xal_client_message_decode(nullptr, XAL_IDL_INDICATION, 0xA8, longer, sizeof(longer),
                                        &out, sizeof(out)),
              XAL_DECODE_ERR);
    EXPECT_EQ(xal_client_message_decode(nullptr, XAL_IDL_INDICATION, 0xA8, good, sizeof(good), &out,
                                        8),
              XAL_CLIENT_PARAM_ERR);
}

}  // namespace
