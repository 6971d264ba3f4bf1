// The translation between the modem manager's profile dictionaries and the
// modem's records: what a write keeps of the stored profile, and every
// value the interface has no key for.

#include <gtest/gtest.h>

#include <cstring>

#include "mm/MmNames.h"
#include "mm/ProfileDict.h"

namespace mm {
namespace {

template <size_t N>
void put(uint8_t& valid, char (&field)[N], const char* text) {
    valid = 1;
    strncpy(field, text, N - 1);
}

TEST(ProfileDictTest, WriteKeepsWhatTheRequestDoesNotCarry) {
    const ProfileDict stored = {{"profile-id", int32_t{3}},
                                {"apn", std::string("old.apn")},
                                {"user", std::string("alice")},
                                {"ip-type", kIpV4V6},
                                // voice and private: the modem's records have no such types
                                {"apn-type", kApnDefault | 32u | 128u},
                                {"roaming-allowance", 3u}};
    Settings request = {};
    put(request.apn_name_valid, request.apn_name, "new.apn");
    request.apn_type_mask_valid = 1;
    request.apn_type_mask = 0x1 | 0x2 | 0x8;  // default, ims, dun
    auto written = mergeRequest(request, stored);
    ASSERT_TRUE(written.ok()) << written.error().message();
    EXPECT_EQ(std::get<std::string>(written->at("apn")), "new.apn");
    EXPECT_EQ(std::get<std::string>(written->at("user")), "alice");
    EXPECT_EQ(std::get<int32_t>(written->at("profile-id")), 3);
    EXPECT_EQ(std::get<uint32_t>(written->at("roaming-allowance")), 3u);
    EXPECT_EQ(std::get<uint32_t>(written->at("apn-type")),
              kApnDefault | kApnIms | kApnTethering | 32u | 128u);

    // Read back, the types the records can hold, and the emergency flag.
    Settings read = settingsFromDict({{"apn-type", kApnEmergency | kApnMms | 32u},
                                      {"allowed-auth", kAuthPap | kAuthChap},
                                      {"profile-enabled", false}});
    EXPECT_EQ(read.apn_type_mask, 0x200u | 0x4u);
    EXPECT_EQ(read.support_emergency_calls, 1);
    EXPECT_EQ(read.authentication_preference, 0x3);
    EXPECT_EQ(read.apn_disabled_flag, 1);
    EXPECT_EQ(read.profile_name_valid, 0);
}

TEST(ProfileDictTest, ValuesWithoutAKeyAreRefusedByName) {
    const struct {
        const char* field;
        void (*set)(Settings&);
    } kCases[] = {
            {"max_pdn_conn_timer",
             [](Settings& s) { s.max_pdn_conn_timer_valid = 1, s.max_pdn_conn_timer = 60; }},
            {"pdn_req_wait_interval",
             [](Settings& s) { s.pdn_req_wait_interval_valid = 1, s.pdn_req_wait_interval = 5; }},
            {"apn_class", [](Settings& s) { s.apn_class_valid = 1, s.apn_class = 2; }},
            {"clat_enabled", [](Settings& s) { s.clat_enabled_valid = 1, s.clat_enabled = 1; }},
            {"pdn_level_auth_protocol",
             [](Settings& s) {
                 s.pdn_level_auth_protocol_valid = 1,
                 s.pdn_level_auth_protocol = WDS_PROFILE_AUTH_PROTOCOL_PAP_V01;
             }},
            {"lte_roaming_pdp_type",
             [](Settings& s) {
                 s.pdp_type_valid = 1, s.pdp_type = WDS_PDP_TYPE_PDP_IPV4_V01;
                 s.lte_roaming_pdp_type_valid = 1,
                 s.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
             }},
            {"apn_type_mask (supl)",
             [](Settings& s) { s.apn_type_mask_valid = 1, s.apn_type_mask = 0x1 | 0x10; }},
            {"pdp_type",
             [](Settings& s) { s.pdp_type_valid = 1, s.pdp_type = WDS_PDP_TYPE_PDP_PPP_V01; }},
    };
    for (const auto& c : kCases) {
        Settings request = {};
        c.set(request);
        auto written = mergeRequest(request, {});
        ASSERT_FALSE(written.ok()) << c.field;
        EXPECT_EQ(written.error().message().rfind(c.field, 0), 0u) << written.error().message();
    }
    // The values that mean "nothing" pass: what the library writes when
    // nothing was asked for.
    Settings neutral = {};
    neutral.pdp_type_valid = 1;
    neutral.pdp_type = WDS_PDP_TYPE_PDP_IPV4V6_V01;
    neutral.lte_roaming_pdp_type_valid = neutral.umts_roaming_pdp_type_valid = 1;
    neutral.lte_roaming_pdp_type = neutral.umts_roaming_pdp_type =
            WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01;
    neutral.override_home_pdp_type_valid = 1;
    neutral.override_home_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
    neutral.max_pdn_conn_timer_valid = neutral.clat_enabled_valid = neutral.apn_class_valid = 1;
    auto written = mergeRequest(neutral, {});
    ASSERT_TRUE(written.ok()) << written.error().message();
    EXPECT_EQ(std::get<uint32_t>(written->at("ip-type")), kIpV4V6);
}

TEST(ProfileDictTest, SimulatedSideReplacesWhatTheInterfaceKnows) {
    Settings stored = {};
    put(stored.apn_name_valid, stored.apn_name, "a");
    put(stored.username_valid, stored.username, "bob");
    stored.max_pdn_conn_timer_valid = 1;
    stored.max_pdn_conn_timer = 30;
    ProfileDict extra;
    const Settings updated =
            applyDict(stored, {{"apn", std::string("b")}, {"apn-type", kApnDefault | 512u}}, extra);
    EXPECT_STREQ(updated.apn_name, "b");
    EXPECT_EQ(updated.username_valid, 0);       // a key left out is cleared
    EXPECT_EQ(updated.max_pdn_conn_timer, 30);  // what the interface has no key for stays
    const ProfileDict listed = dictFromSettings(updated, 7, extra);
    EXPECT_EQ(std::get<uint32_t>(listed.at("apn-type")), kApnDefault | 512u);
    EXPECT_EQ(std::get<int32_t>(listed.at("profile-id")), 7);
    EXPECT_EQ(listed.count("user"), 0u);
    EXPECT_FALSE(checkDict({{"apn", 5u}}).ok());
    EXPECT_FALSE(checkDict({{"bogus", std::string()}}).ok());
}

}  // namespace
}  // namespace mm
