#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <stdexcept>

#include "CapturingLog.h"
#include "Modem3gpp2Profile.h"
#include "Modem3gppProfile.h"

namespace kiv {
namespace {

using Settings = wds_get_profile_settings_resp_msg_v01;

Settings emptySettings() {
    Settings r;
    memset(&r, 0, sizeof(r));
    return r;
}

template <size_t N>
void fill(char (&field)[N], const std::string& text) {
    memset(field, 0, N);
    memcpy(field, text.data(), std::min(text.size(), N));
}

std::shared_ptr<IProfileKey> detachedKey() {
    return std::make_shared<ProfileKey>(TechType::TECH_3GPP, 1, 0,
                                        [](auto) { return std::shared_ptr<ClientResponse>(); });
}

TEST(Modem3gppProfileTest, RequestsFieldsWrittenWithFlagsCutsAndIPFold) {
    ProfileParams p;
    p.setApnName(std::string(200, 'A'));
    p.setUserName(std::string(130, 'u'));
    p.setPassword(std::string(130, 'p'));
    p.setAuthType(AuthType::PAP_CHAP);
    p.setHomeIPType(IPType::V4);
    p.setRoamIPType(IPType::V6);
    p.setApnTypesMask(APN_TYPE_DEFAULT | APN_TYPE_IMS);
    p.setApnClass(ApnClass::INET);
    p.setMaxPdnConnTimer(70000);
    p.setIsEmergencySupported(true);
    Modem3gppProfile profile(p);
    profile.setProfileName(std::string(60, 'n'));
    profile.setIsPersistent(true);

    const auto req = profile.constructAddRequest();
    EXPECT_EQ(req.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_EQ(req.profile_name_valid, 1);
    EXPECT_EQ(std::string(req.profile_name), std::string(50, 'n'));
    EXPECT_EQ(req.apn_name_valid, 1);
    EXPECT_EQ(std::string(req.apn_name), std::string(150, 'a'));
    EXPECT_EQ(std::string(req.username), std::string(127, 'u'));
    EXPECT_EQ(std::string(req.password), std::string(127, 'p'));
    EXPECT_EQ(req.authentication_preference_valid, 1);
    EXPECT_EQ(req.authentication_preference, 3);
    // Home V4 with roam V6: dual-stack home, the real home in the override.
    EXPECT_EQ(req.pdp_type_valid, 1);
    EXPECT_EQ(req.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(req.override_home_pdp_type_valid, 1);
    EXPECT_EQ(req.override_home_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_EQ(req.lte_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(req.umts_roaming_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(req.apn_type_mask_valid, 1);
    EXPECT_EQ(req.apn_type_mask, 0x3u);
    EXPECT_EQ(req.apn_class, 3);
    EXPECT_EQ(req.max_pdn_conn_timer_valid, 1);
    EXPECT_EQ(req.max_pdn_conn_timer, 70000 & 0xFFFF);
    EXPECT_EQ(req.support_emergency_calls, 1);
    EXPECT_EQ(req.persistent_valid, 1);
    EXPECT_EQ(req.persistent, 1);
    // Absent members and every 3GPP2 field stay cleared.
    EXPECT_EQ(req.max_pdn_conn_per_block_valid, 0);
    EXPECT_EQ(req.pdn_req_wait_interval_valid, 0);
    EXPECT_EQ(req.apn_disabled_flag_valid, 0);
    EXPECT_EQ(req.clat_enabled_valid, 0);
    EXPECT_EQ(req.apn_string_valid, 0);
    EXPECT_EQ(req.user_id_valid, 0);
    EXPECT_EQ(req.pdn_level_auth_protocol_valid, 0);

    profile.setProfileId(300);
    const auto mod = profile.constructModifyRequest();
    uint8_t identifier[8];
    memcpy(identifier, &mod, sizeof(identifier));
    const uint8_t expected[8] = {0, 0, 0, 0, 44, 0, 0, 0};
    EXPECT_EQ(memcmp(identifier, expected, sizeof(expected)), 0);
    EXPECT_EQ(std::string(mod.apn_name), std::string(150, 'a'));
    EXPECT_EQ(mod.lte_roaming_pdp_type_valid, 1);
    EXPECT_EQ(mod.max_pdn_conn_timer, 70000 & 0xFFFF);
}

TEST(Modem3gpp2ProfileTest, RequestsCredentialsAndAuthWrittenTwice) {
    ProfileParams p;
    p.setApnName("CDMA.Net");
    p.setUserName("user");
    p.setPassword("pw");
    p.setAuthType(AuthType::CHAP);
    p.setHomeIPType(IPType::UNKNOWN);
    p.setRoamIPType(IPType::V6);  // ignored by 3GPP2
    p.setApnClass(ApnClass::APP);
    p.setIsClatEnabled(true);
    Modem3gpp2Profile profile(p);

    const auto req = profile.constructAddRequest();
    EXPECT_EQ(req.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
    EXPECT_EQ(req.apn_string_valid, 1);
    EXPECT_STREQ(req.apn_string, "cdma.net");
    EXPECT_EQ(req.pdn_type_valid, 1);
    EXPECT_EQ(req.pdn_type, WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01);
    EXPECT_EQ(req.auth_protocol, WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01);
    EXPECT_EQ(req.pdn_level_auth_protocol, WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01);
    EXPECT_EQ(req.pdn_level_auth_protocol_valid, 1);
    EXPECT_STREQ(req.user_id, "user");
    EXPECT_STREQ(req.pdn_level_user_id, "user");
    EXPECT_STREQ(req.auth_password, "pw");
    EXPECT_STREQ(req.pdn_level_auth_password, "pw");
    EXPECT_EQ(req.apn_class_3gpp2_valid, 1);
    EXPECT_EQ(req.apn_class_3gpp2, 4);
    EXPECT_EQ(req.clat_enabled_valid, 1);
    EXPECT_EQ(req.persistent_valid, 1);
    EXPECT_EQ(req.persistent, 0);
    EXPECT_EQ(req.apn_name_valid, 0);
    EXPECT_EQ(req.username_valid, 0);
    EXPECT_EQ(req.lte_roaming_pdp_type_valid, 0);
    EXPECT_EQ(req.apn_class_valid, 0);

    profile.setProfileId(101);
    const auto mod = profile.constructModifyRequest();
    EXPECT_EQ(mod.profile.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
    EXPECT_EQ(mod.profile.profile_index, 101);
    EXPECT_STREQ(mod.pdn_level_user_id, "user");
    EXPECT_STREQ(mod.pdn_level_auth_password, "pw");
}

TEST(ModemProfileTest, MatchCommonCriteriaAndSubsetRules) {
    ProfileParams p;
    p.setApnName("VzW-IMS.example");
    p.setUserName("User");
    p.setApnTypesMask(APN_TYPE_DEFAULT | APN_TYPE_IMS | APN_TYPE_MMS);
    p.setApnClass(ApnClass::IMS);
    Modem3gppProfile profile(p);
    profile.setProfileId(3);

    auto filter = [](auto setup) {
        FilterProfileParams f;
        setup(f);
        return f;
    };
    EXPECT_TRUE(profile.match(FilterProfileParams()));
    EXPECT_TRUE(profile.match(filter([](auto& f) { f.setApnName("VZW-ims.EXAMPLE"); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setApnName("ims"); })));
    EXPECT_TRUE(profile.match(filter([](auto& f) {
        f.setApnName("IMS");
        f.addFilterMatchCriteria(ApnNameSubset);
    })));
    EXPECT_TRUE(profile.match(filter([](auto& f) {
        f.setApnName("");
        f.addFilterMatchCriteria(ApnNameSubset);
    })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setUserName("user"); })));
    EXPECT_TRUE(profile.match(filter([](auto& f) { f.setUserName("User"); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setPassword(""); })));  // none stored
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setAuthType(AuthType::NONE); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setIsClatEnabled(false); })));
    EXPECT_TRUE(profile.match(filter([](auto& f) { f.setApnClass(ApnClass::IMS); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setApnClass(ApnClass::INET); })));
    EXPECT_TRUE(profile.match(filter([](auto& f) { f.setFilterByProfileId(3); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setFilterByProfileId(4); })));
    EXPECT_FALSE(
            profile.match(filter([](auto& f) { f.setFilterByTechType(TechType::TECH_3GPP2); })));

    // APN types: exact equality unless the subset criterion is given.
    const uint32_t stored = APN_TYPE_DEFAULT | APN_TYPE_IMS | APN_TYPE_MMS;
    EXPECT_TRUE(profile.match(filter([&](auto& f) { f.setApnTypesMask(stored | 0x1000); })));
    EXPECT_FALSE(profile.match(
            filter([](auto& f) { f.setApnTypesMask(APN_TYPE_DEFAULT | APN_TYPE_IMS); })));
    EXPECT_TRUE(profile.match(filter([](auto& f) {
        f.setApnTypesMask(APN_TYPE_DEFAULT | APN_TYPE_IMS);
        f.addFilterMatchCriteria(ApnTypeBitmaskSubset);
    })));
    EXPECT_TRUE(profile.match(filter([](auto& f) {
        f.setApnTypesMask(0);
        f.addFilterMatchCriteria(ApnTypeBitmaskSubset);
    })));
    EXPECT_FALSE(profile.match(filter([](auto& f) {
        f.setApnTypesMask(APN_TYPE_SUPL);
        f.addFilterMatchCriteria(ApnTypeBitmaskSubset);
    })));

    // A 200-character name is stored and compared as its first 150, lowered.
    ProfileParams longName;
    longName.setApnName(std::string(150, 'x') + std::string(50, 'Y'));
    Modem3gppProfile longProfile(longName);
    EXPECT_EQ(longProfile.getApnName(), std::string(150, 'x'));
    EXPECT_TRUE(longProfile.match(
            filter([](auto& f) { f.setApnName(std::string(150, 'X') + std::string(50, 'z')); })));

    Modem3gppProfile nameless{ProfileParams()};
    EXPECT_FALSE(nameless.match(filter([](auto& f) {
        f.setApnName("");
        f.addFilterMatchCriteria(ApnNameSubset);
    })));
}

TEST(Modem3gppProfileTest, MatchIPTypesNamesAndExtras) {
    auto withHome = [](IPType home, uint32_t criteria) {
        FilterProfileParams f;
        f.setHomeIPType(home);
        f.addFilterMatchCriteria(criteria);
        return f;
    };
    ProfileParams dual;
    dual.setHomeIPType(IPType::V4V6);
    Modem3gppProfile v4v6(dual);
    EXPECT_FALSE(v4v6.match(withHome(IPType::V4, 0)));
    EXPECT_TRUE(v4v6.match(withHome(IPType::V4, HomeIPSubset)));
    EXPECT_FALSE(v4v6.match(withHome(IPType::V4, HomeIPSuperset)));

    ProfileParams single;
    single.setHomeIPType(IPType::V4);
    Modem3gppProfile v4(single);
    EXPECT_TRUE(v4.match(withHome(IPType::V4V6, HomeIPSuperset)));
    EXPECT_FALSE(v4.match(withHome(IPType::V4V6, HomeIPSubset)));
    EXPECT_FALSE(Modem3gppProfile(ProfileParams()).match(withHome(IPType::V4, 0x11)));

    // The override stands for the home type.
    v4v6.setOverrideHomeIPType(IPType::V6);
    EXPECT_TRUE(v4v6.match(withHome(IPType::V6, 0)));
    v4v6.setOverrideHomeIPType(IPType::UNKNOWN);
    EXPECT_TRUE(v4v6.match(withHome(IPType::V4V6, 0)));

    // Roaming: LTE and UMTS must agree; without either, the common type counts.
    FilterProfileParams roamV4;
    roamV4.setRoamIPType(IPType::V4);
    roamV4.addFilterMatchCriteria(RoamIPSubset | RoamIPSuperset);
    EXPECT_TRUE(v4.match(roamV4));
    v4.setLteRoamIPType(IPType::V4);
    EXPECT_FALSE(v4.match(roamV4));
    v4.setUmtsRoamIPType(IPType::V6);
    EXPECT_FALSE(v4.match(roamV4));
    v4.setUmtsRoamIPType(IPType::V4);
    EXPECT_TRUE(v4.match(roamV4));
    Modem3gppProfile umtsOnly(single);
    umtsOnly.setUmtsRoamIPType(IPType::V4);
    EXPECT_FALSE(umtsOnly.match(roamV4));

    // Library profile names.
    Modem3gppProfile ia{ProfileParams()}, kiv{ProfileParams()}, other{ProfileParams()};
    ia.setProfileName("kiv_profile_ia");
    kiv.setProfileName("kiv_profile");
    other.setProfileName("KIV_PROFILE");
    FilterProfileParams wantIA, wantKiv, wantForeign, wantNotIA;
    wantIA.setFilterByIsIAProfile(true);
    wantNotIA.setFilterByIsIAProfile(false);
    wantKiv.setFilterByIsKivProfile(true);
    wantForeign.setFilterByIsKivProfile(false);
    EXPECT_TRUE(ia.match(wantIA));
    EXPECT_FALSE(kiv.match(wantIA));
    EXPECT_TRUE(kiv.match(wantNotIA));
    EXPECT_TRUE(ia.match(wantKiv));
    EXPECT_TRUE(kiv.match(wantKiv));
    EXPECT_FALSE(other.match(wantKiv));
    EXPECT_TRUE(other.match(wantForeign));
    // The IA condition decides alone when both are given.
    wantNotIA.setFilterByIsKivProfile(true);
    EXPECT_TRUE(other.match(wantNotIA));

    ProfileParams extras;
    extras.setMaxPdnsConnPerBlock(20);
    extras.setIsApnDisabled(false);
    Modem3gppProfile throttled(extras);
    FilterProfileParams f;
    f.setMaxPdnsConnPerBlock(20);
    f.setIsApnDisabled(false);
    EXPECT_TRUE(throttled.match(f));
    f.setIsEmergencySupported(false);
    EXPECT_FALSE(throttled.match(f));
}

TEST(Modem3gpp2ProfileTest, MatchThreeGppOnlyConditionsNeverMatch) {
    ProfileParams p;
    p.setApnName("cdma");
    Modem3gpp2Profile profile(p);
    FilterProfileParams byName;
    byName.setApnName("cdma");
    ASSERT_TRUE(profile.match(byName));

    std::vector<std::function<void(FilterProfileParams&)>> threeGppOnly = {
            [](auto& f) { f.setFilterByIsIAProfile(false); },
            [](auto& f) { f.setFilterByIsKivProfile(false); },
            [](auto& f) { f.setRoamIPType(IPType::V4); },
            [](auto& f) { f.setMaxPdnsConnPerBlock(1); },
            [](auto& f) { f.setMaxPdnConnTimer(1); },
            [](auto& f) { f.setPdnReqWaitInterval(1); },
            [](auto& f) { f.setIsApnDisabled(false); },
            [](auto& f) { f.setIsEmergencySupported(false); },
    };
    for (const auto& add : threeGppOnly) {
        FilterProfileParams f = byName;
        add(f);
        EXPECT_FALSE(profile.match(f)) << f.dump();
    }

    // No IP type reads as UNKNOWN: a superset of nothing.
    FilterProfileParams home;
    home.setHomeIPType(IPType::V4);
    EXPECT_FALSE(profile.match(home));
    home.addFilterMatchCriteria(HomeIPSuperset);
    EXPECT_TRUE(profile.match(home));
}

TEST(Modem3gppProfileTest, DiffOnlyChangesWithIPFoldAndNameAsymmetry) {
    ProfileParams p;
    p.setApnName("internet");
    p.setHomeIPType(IPType::V4);
    p.setRoamIPType(IPType::V4);
    p.setMaxPdnConnTimer(300);
    Modem3gppProfile profile(p);
    EXPECT_FALSE(profile.hasOverrideHomeIPType());
    EXPECT_EQ(profile.getLteRoamIPType(), IPType::V4);

    ModifyProfileParams same;
    same.setApnName("INTERNET");
    same.setHomeIPType(IPType::V4);
    same.setMaxPdnConnTimer(300);
    EXPECT_EQ(profile.diff(same), nullptr);

    ModifyProfileParams roamV6;
    roamV6.setRoamIPType(IPType::V6);
    auto update = std::dynamic_pointer_cast<Modem3gppProfile>(profile.diff(roamV6));
    ASSERT_TRUE(update);
    EXPECT_EQ(update->getCommonIPType(), IPType::V4V6);
    EXPECT_EQ(update->getLteRoamIPType(), IPType::V6);
    EXPECT_EQ(update->getUmtsRoamIPType(), IPType::V6);
    EXPECT_EQ(update->getOverrideHomeIPType(), IPType::V4);
    EXPECT_FALSE(update->hasApnName());
    EXPECT_FALSE(update->hasMaxPdnConnTimer());

    profile.apply(update);
    profile.apply(nullptr);
    ProfileParams seen = profile.get();
    EXPECT_EQ(seen.getHomeIPType(), IPType::V4);
    EXPECT_EQ(seen.getRoamIPType(), IPType::V6);
    EXPECT_EQ(seen.getApnName(), "internet");

    // Back to equal types: the override is cleared with UNKNOWN.
    ModifyProfileParams roamV4;
    roamV4.setRoamIPType(IPType::V4);
    update = std::dynamic_pointer_cast<Modem3gppProfile>(profile.diff(roamV4));
    ASSERT_TRUE(update);
    EXPECT_EQ(update->getOverrideHomeIPType(), IPType::UNKNOWN);
    EXPECT_EQ(update->getCommonIPType(), IPType::V4);

    // The first 150 characters decide; a change carries the whole name.
    ProfileParams longName;
    longName.setApnName(std::string(150, 'a'));
    Modem3gppProfile stored(longName);
    ModifyProfileParams sameStart;
    sameStart.setApnName(std::string(160, 'A'));
    ProfileParams changes;
    bool changed = false;
    stored.updateDiffParameters(sameStart, changes, changed);
    EXPECT_FALSE(changed);
    ModifyProfileParams differs;
    differs.setApnName(std::string(149, 'A') + std::string(11, 'B'));
    stored.updateDiffParameters(differs, changes, changed);
    EXPECT_TRUE(changed);
    EXPECT_EQ(changes.getApnName(), std::string(149, 'a') + std::string(11, 'b'));

    // APN types are compared in library bits.
    ProfileParams typed;
    typed.setApnTypesMask(APN_TYPE_MCX);
    Modem3gppProfile typedProfile(typed);
    ModifyProfileParams sameTypes;
    sameTypes.setApnTypesMask(APN_TYPE_MCX);
    EXPECT_EQ(typedProfile.diff(sameTypes), nullptr);
}

TEST(Modem3gpp2ProfileTest, DiffHomeTypeOnlyAndNoPasswordReadBack) {
    ProfileParams p;
    p.setHomeIPType(IPType::V4);
    p.setPassword("pw");
    Modem3gpp2Profile profile(p);
    ModifyProfileParams request;
    request.setHomeIPType(IPType::V6);
    request.setRoamIPType(IPType::V4);
    request.setIsApnDisabled(true);
    auto update = profile.diff(request);
    ASSERT_TRUE(update);
    EXPECT_EQ(update->getCommonIPType(), IPType::V6);
    profile.apply(update);
    EXPECT_EQ(profile.get().getHomeIPType(), IPType::V6);
    EXPECT_FALSE(profile.get().hasRoamIPType());
    EXPECT_EQ(profile.diff(request), nullptr);

    test::ScopedLogCapture log;
    auto r = emptySettings();
    r.password_valid = 1;
    fill(r.password, "pw");
    r.auth_password_valid = 1;
    fill(r.auth_password, "pw");
    r.pdn_type_valid = 1;
    r.pdn_type = static_cast<wds_profile_pdn_type_enum_v01>(5);
    r.auth_protocol_valid = 1;
    r.auth_protocol = static_cast<wds_profile_auth_protocol_enum_v01>(8);
    r.user_id_valid = 1;
    fill(r.user_id, "Id");
    Modem3gpp2Profile read(101, r);
    EXPECT_FALSE(read.hasPassword());
    EXPECT_TRUE(read.hasCommonIPType());
    EXPECT_EQ(read.getCommonIPType(), IPType::UNKNOWN);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown profile_pdn_type_enum 5"));
    EXPECT_EQ(read.getAuthType(), AuthType::NONE);
    EXPECT_EQ(read.getUserName(), "Id");
    FilterProfileParams byPassword;
    byPassword.setPassword("pw");
    EXPECT_FALSE(read.match(byPassword));
    EXPECT_EQ(read.dump(),
              "TechType=3GPP2,ProfileId=101,UserName=Id,AuthType=NONE,"
              "CommonIPType=UNKNOWN,");
}

TEST(Modem3gppProfileTest, FromSettingsRoamingSentinelOverrideAndReadBack) {
    test::ScopedLogCapture log;
    auto r = emptySettings();
    r.profile_name_valid = 1;
    fill(r.profile_name, "kiv_profile_ia");
    r.pdp_type_valid = 1;
    r.pdp_type = WDS_PDP_TYPE_PDP_IPV4V6_V01;
    r.override_home_pdp_type_valid = 1;
    r.override_home_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
    r.lte_roaming_pdp_type_valid = 1;
    r.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
    r.umts_roaming_pdp_type_valid = 1;
    r.umts_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
    r.apn_name_valid = 1;
    fill(r.apn_name, "IMS");
    r.apn_type_mask_valid = 1;
    r.apn_type_mask = 0x3 | 0x1000;
    r.authentication_preference_valid = 1;
    r.authentication_preference = 0xFD;
    r.persistent_valid = 1;
    r.persistent = 1;
    r.max_pdn_conn_per_block_valid = 1;
    r.max_pdn_conn_per_block = 65535;
    Modem3gppProfile profile(7, r);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(profile.getIsPersistent());
    EXPECT_FALSE(profile.getIsKivCreated());

    ProfileParams seen = profile.get();
    EXPECT_TRUE(seen.getIsIAProfile());
    EXPECT_TRUE(seen.getIsKivProfile());
    EXPECT_EQ(seen.getHomeIPType(), IPType::V6);  // the override
    EXPECT_EQ(seen.getRoamIPType(), IPType::V4);
    EXPECT_EQ(seen.getApnName(), "ims");
    EXPECT_EQ(seen.getApnTypesMask(), uint32_t{APN_TYPE_DEFAULT | APN_TYPE_IMS});
    EXPECT_EQ(seen.getAuthType(), AuthType::PAP);
    EXPECT_EQ(seen.getMaxPdnsConnPerBlock(), 65535);
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP,ProfileId=7,ApnName=ims,AuthType=PAP,CommonIPType=V4V6,"
              "ApnTypesMask=4099,OverrideHomeIPType=V6,LteRoamIP=V4,UmtsRoamIP=V4,"
              "MaxPdnsConnPerBlock=65535,ProfileName=kiv_profile_ia,");

    // 255 means "no roaming type" quietly, but is an unknown home override.
    r.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
    r.umts_roaming_pdp_type = static_cast<wds_common_pdp_type_enum_v01>(7);
    r.override_home_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
    r.pdp_type = WDS_PDP_TYPE_PDP_PPP_V01;
    r.profile_name_valid = 0;
    Modem3gppProfile odd(8, r);
    EXPECT_FALSE(odd.hasLteRoamIPType());
    EXPECT_TRUE(odd.hasUmtsRoamIPType());
    EXPECT_EQ(odd.getUmtsRoamIPType(), IPType::UNKNOWN);
    EXPECT_TRUE(odd.hasOverrideHomeIPType());
    EXPECT_EQ(odd.getOverrideHomeIPType(), IPType::UNKNOWN);
    EXPECT_EQ(log.count(LogLevel::Debug, "Unknown pdp_type_enum 255"), 1u);
    EXPECT_EQ(log.count(LogLevel::Debug, "Unknown pdp_type_enum 7"), 1u);
    EXPECT_EQ(log.count(LogLevel::Debug, "Unknown pdp_type_enum 1"), 1u);
    seen = odd.get();
    EXPECT_EQ(seen.getHomeIPType(), IPType::UNKNOWN);  // common, the override being UNKNOWN
    EXPECT_FALSE(seen.hasRoamIPType());
    EXPECT_FALSE(seen.getIsKivProfile());
}

TEST(ModemProfileTest, FromSettingsUnterminatedStringsReadWithinTheirArrays) {
    auto r = emptySettings();
    r.profile_name_valid = r.apn_name_valid = r.username_valid = r.password_valid = 1;
    r.apn_string_valid = r.user_id_valid = 1;
    memset(r.profile_name, 'N', sizeof(r.profile_name));
    memset(r.apn_name, 'A', sizeof(r.apn_name));
    memset(r.username, 'U', sizeof(r.username));
    memset(r.password, 'P', sizeof(r.password));
    memset(r.apn_string, 'S', sizeof(r.apn_string));
    memset(r.user_id, 'I', sizeof(r.user_id));
    Modem3gppProfile threeGpp(1, r);
    EXPECT_EQ(threeGpp.getProfileName(), std::string(50, 'N'));
    EXPECT_EQ(threeGpp.getApnName(), std::string(150, 'a'));
    EXPECT_EQ(threeGpp.getUserName(), std::string(127, 'U'));
    EXPECT_EQ(threeGpp.getPassword(), std::string(127, 'P'));
    Modem3gpp2Profile threeGpp2(101, r);
    EXPECT_EQ(threeGpp2.getApnName(), std::string(150, 's'));
    EXPECT_EQ(threeGpp2.getUserName(), std::string(127, 'I'));

    // Arbitrary bytes: every field of every kind, read and used.
    std::mt19937 random(1234);
    for (int round = 0; round < 200; ++round) {
        for (size_t i = 0; i < sizeof(r); ++i) {
            reinterpret_cast<uint8_t*>(&r)[i] = static_cast<uint8_t>(random());
        }
        test::ScopedLogCapture quiet;
        Modem3gppProfile a(round, r);
        Modem3gpp2Profile b(round, r);
        FilterProfileParams f(a.get());
        f.addFilterMatchCriteria(0x3F);
        EXPECT_TRUE(a.match(f));
        b.match(f);
        EXPECT_FALSE(a.dump().empty());
        EXPECT_FALSE(b.dump().empty());
        a.constructModifyRequest();
        b.constructAddRequest();
    }
}

TEST(ModemProfileTest, ListenersOnlyLiveHandlesHearTheProfileGo) {
    test::ScopedLogCapture log;
    int aliveCalls = 0, goneCalls = 0;
    auto alive = detachedKey();
    {
        auto profile = std::make_unique<Modem3gppProfile>(ProfileParams());
        auto gone = detachedKey();
        profile->registerExpirationListener([&] { ++aliveCalls; }, alive);
        profile->registerExpirationListener([&] { ++goneCalls; }, gone);
        profile->registerExpirationListener([&] { ++goneCalls; }, std::weak_ptr<IProfileKey>());
        gone.reset();
        EXPECT_EQ(profile->getListenerCount(), 3u);
        profile->clearExpiredListeners();
        EXPECT_EQ(profile->getListenerCount(), 1u);
        profile->registerExpirationListener([&] { ++goneCalls; }, detachedKey());
        profile->registerExpirationListener([]() { throw std::runtime_error("client bug"); },
                                            alive);

        EXPECT_EQ(profile->getRefCount(), 0);
        profile->decRefCount();
        EXPECT_EQ(profile->getRefCount(), -1);
    }
    EXPECT_EQ(aliveCalls, 1);
    EXPECT_EQ(goneCalls, 0);
    EXPECT_EQ(log.count(LogLevel::Debug, "~ModemProfile()"), 1u);
    EXPECT_EQ(log.count(LogLevel::Debug, "invoke callback"), 2u);
    EXPECT_TRUE(
            log.contains(LogLevel::Error, "ModemProfile: expiration listener failed: client bug"));
}

}  // namespace
}  // namespace kiv
