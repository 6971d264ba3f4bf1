// The simulated modem itself, as the modem service drives it.

#include <gtest/gtest.h>

#include <cstring>

#include "sim/ModemCore.h"

namespace {

// A modem of two 3GPP profiles, one service client registered for profile
// events, and a store that can be made to fail as a full disk does.
class ModemCoreTest : public testing::Test {
  protected:
    void SetUp() override {
        xalsim::Config config;
        config.capacity3gpp = 2;
        modem.reset(config);
        ASSERT_EQ(modem.openClient(client, xalsim::ClientRole::kService, false), XAL_NO_ERR);
        wds_indication_register_req_msg_v01 reg{};
        reg.report_profile_changed_events_valid = reg.report_profile_changed_events = 1;
        wds_generic_resp_msg_v01 registered{};
        ASSERT_EQ(serve(0x03, reg, registered), XAL_NO_ERR);
        modem.setCommitHook([this](const xalsim::Table&) -> android::base::Result<void> {
            if (full) return android::base::Error(ENOSPC) << "cannot write x";
            return {};
        });
        create.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
        create.persistent_valid = 1;  // not persistent
    }

    template <typename Request, typename Response>
    xal_client_error_type serve(unsigned int msgId, const Request& request, Response& response,
                                unsigned int length = sizeof(Request)) {
        memset(&response, 0, sizeof(response));
        return modem.serve(client, msgId, &request, length, &response, sizeof(response), 1000);
    }

    std::vector<xalsim::Event> events;
    xalsim::ModemCore modem{[this](xalsim::ClientId, xalsim::Event event,
                                   xalsim::Clock::time_point) { events.push_back(event); }};
    xalsim::ClientId client = reinterpret_cast<xalsim::ClientId>(uintptr_t{16});
    bool full = false;
    wds_create_profile_req_msg_v01 create{};
    wds_create_profile_resp_msg_v01 created{};
};

// A change that cannot be stored is undone, refused with the system's
// reason, and announced to nobody.
TEST_F(ModemCoreTest, ChangeThatCannotBeStoredIsUndoneUnannounced) {
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    EXPECT_EQ(created.resp.result, 0u);
    EXPECT_EQ(events.size(), 2u);  // Create and Modify

    full = true;
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    EXPECT_EQ(created.resp.error, xalsim::kErrStorage);
    EXPECT_EQ(created.extended_error_code_valid, 1);
    EXPECT_EQ(created.extended_error_code, static_cast<uint32_t>(ENOSPC));
    wds_delete_profile_req_msg_v01 remove{};
    remove.profile = {WDS_PROFILE_TYPE_3GPP_V01, 1};
    wds_delete_profile_resp_msg_v01 removed{};
    ASSERT_EQ(serve(0x29, remove, removed), XAL_NO_ERR);
    EXPECT_EQ(removed.resp.error, xalsim::kErrStorage);
    EXPECT_EQ(removed.extended_error_code, static_cast<uint32_t>(ENOSPC));
    EXPECT_EQ(modem.profiles().size(), 1u);
    EXPECT_EQ(events.size(), 2u);
    EXPECT_EQ(modem.counters().failedCommits, 2u);
    EXPECT_EQ(modem.lastCommitError(), "cannot write x: No space left on device");
}

TEST_F(ModemCoreTest, FullTableRefusesACreate) {
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    EXPECT_EQ(created.profile.profile_index, 2);
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    EXPECT_EQ(created.resp.error, xalsim::kErrNoFreeProfile);
    EXPECT_EQ(modem.profiles().size(), 2u);
}

// A request shorter than its record is refused by the modem; a response
// too short for its record, by the interface.
TEST_F(ModemCoreTest, RequestsOfTheWrongSizeRefused) {
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    wds_get_profile_settings_req_msg_v01 get{};
    get.profile = {WDS_PROFILE_TYPE_3GPP_V01, 1};
    wds_get_profile_settings_resp_msg_v01 settings{};
    ASSERT_EQ(serve(0x2B, get, settings, 4), XAL_NO_ERR);
    EXPECT_EQ(settings.resp.error, xalsim::kErrMalformedMessage);
    EXPECT_EQ(modem.serve(client, 0x2B, &get, sizeof(get), &settings, 8, 1000),
              XAL_CLIENT_PARAM_ERR);
}

TEST_F(ModemCoreTest, RestartHappensWhenItsSmallerTableCannotBeStored) {
    ASSERT_EQ(serve(0x27, create, created), XAL_NO_ERR);
    full = true;
    modem.restart();
    EXPECT_TRUE(modem.profiles().empty());
}

}  // namespace
