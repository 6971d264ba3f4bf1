#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>
#include <stdexcept>

#include "src/Modem3gpp2Profile.h"
#include "src/Modem3gppProfile.h"
#include "support/CapturingLog.h"
#include "xal/wds_v01_fields.h"

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

// What the modem stores for the profile's create request.
Settings storedOnModem(const ModemProfile& profile) {
    Settings stored = emptySettings();
    wds::copyValidFields(stored, profile.constructAddRequest());
    return stored;
}

std::shared_ptr<IProfileKey> detachedKey() {
    return std::make_shared<ProfileKey>(TechType::TECH_3GPP, 1, 0,
                                        [](auto) { return std::shared_ptr<ClientResponse>(); });
}

// Each member on its own goes out in a create request and comes back from
// the modem's settings as it was, with nothing else beside it; on 3GPP2 too
// for the members it has (a password is never read back from it).
TEST(ModemProfileTest, RequestsEachMemberAloneReadsBackOnBothTechnologies) {
    struct Member {
        std::function<void(ProfileParams&)> set;
        bool on3gpp2;
    };
    const Member members[] = {
            {[](auto& p) { p.setApnName("ims"); }, true},
            {[](auto& p) { p.setUserName("User"); }, true},
            {[](auto& p) { p.setPassword("pw"); }, false},
            {[](auto& p) { p.setAuthType(AuthType::PAP_CHAP); }, true},
            {[](auto& p) { p.setHomeIPType(IPType::V6); }, true},
            {[](auto& p) { p.setApnTypesMask(APN_TYPE_SUPL | APN_TYPE_XCAP); }, true},
            {[](auto& p) { p.setApnClass(ApnClass::APP); }, true},
            {[](auto& p) { p.setIsClatEnabled(false); }, true},
            {[](auto& p) { p.setMaxPdnsConnPerBlock(20); }, false},
            {[](auto& p) { p.setMaxPdnConnTimer(300); }, false},
            {[](auto& p) { p.setPdnReqWaitInterval(5); }, false},
            {[](auto& p) { p.setIsApnDisabled(false); }, false},
            {[](auto& p) { p.setIsEmergencySupported(true); }, false},
            {[](auto& p) { p.setRoamIPType(IPType::V6); }, false},
            {[](auto& p) {
                 p.setHomeIPType(IPType::V4);
                 p.setRoamIPType(IPType::V6);
             },
             false},
    };
    for (const auto& member : members) {
        ProfileParams p;
        member.set(p);
        SCOPED_TRACE(p.dump());
        EXPECT_EQ(Modem3gppProfile(1, storedOnModem(Modem3gppProfile(p))).get().dump(),
                  p.dump() + "IsKivProfile=false,IsIAProfile=false,");
        if (member.on3gpp2) {
            EXPECT_EQ(Modem3gpp2Profile(101, storedOnModem(Modem3gpp2Profile(p))).get().dump(),
                      p.dump());
        }
    }
}

TEST(ModemProfileTest, RequestsCutToTheModemsSizesFoldIPTypesAndKeepToTheirTechnology) {
    ProfileParams p;
    p.setApnName(std::string(200, 'A'));
    p.setUserName(std::string(130, 'u'));
    p.setPassword(std::string(130, 'p'));
    p.setAuthType(AuthType::CHAP);
    p.setHomeIPType(IPType::V4);
    p.setRoamIPType(IPType::V6);
    p.setMaxPdnConnTimer(0x1ABCD);
    p.setMaxPdnsConnPerBlock(0x2BCDE);
    Modem3gppProfile threeGpp(p);
    threeGpp.setProfileName(std::string(60, 'n'));
    const auto req = threeGpp.constructAddRequest();
    EXPECT_EQ(std::string(req.profile_name), std::string(50, 'n'));
    EXPECT_EQ(std::string(req.apn_name), std::string(150, 'a'));
    EXPECT_EQ(std::string(req.username), std::string(127, 'u'));
    EXPECT_EQ(std::string(req.password), std::string(127, 'p'));
    // Home V4 with roam V6: dual-stack home, the real home in the override.
    EXPECT_EQ(req.pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(req.override_home_pdp_type, WDS_COMMON_PDP_TYPE_PDP_IPV4_V01);
    EXPECT_EQ(req.max_pdn_conn_timer, 0xABCD);  // 16 bits on the modem
    EXPECT_EQ(req.max_pdn_conn_per_block, 0xBCDE);
    EXPECT_EQ(req.apn_string_valid + req.user_id_valid + req.auth_password_valid +
                      req.pdn_type_valid + req.pdn_level_auth_protocol_valid,
              0);

    // 3GPP2: credentials and authentication written twice, no roaming type.
    const auto cdma = Modem3gpp2Profile(p).constructAddRequest();
    EXPECT_EQ(std::string(cdma.apn_string), std::string(150, 'a'));
    EXPECT_EQ(std::string(cdma.pdn_level_user_id), std::string(127, 'u'));
    EXPECT_EQ(std::string(cdma.auth_password), std::string(127, 'p'));
    EXPECT_EQ(std::string(cdma.pdn_level_auth_password), std::string(127, 'p'));
    EXPECT_EQ(cdma.pdn_level_auth_protocol_valid, 1);
    EXPECT_EQ(cdma.pdn_level_auth_protocol, WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01);
    EXPECT_EQ(cdma.pdn_type, WDS_PROFILE_PDN_TYPE_IPV4_V01);
    EXPECT_EQ(cdma.apn_name_valid + cdma.username_valid + cdma.pdp_type_valid +
                      cdma.lte_roaming_pdp_type_valid + cdma.max_pdn_conn_timer_valid,
              0);
}

TEST(ModemProfileTest, MatchCommonCriteriaAndSubsetRules) {
    ProfileParams p;
    p.setApnName("VzW-IMS.example");
    p.setUserName("User");
    p.setApnTypesMask(APN_TYPE_DEFAULT | APN_TYPE_IMS | APN_TYPE_MMS);
    p.setApnClass(ApnClass::IMS);
    Modem3gppProfile profile(p);
    profile.setProfileId(3);

    auto filter = [](auto setup, uint32_t criteria = 0) {
        FilterProfileParams f;
        setup(f);
        f.addFilterMatchCriteria(criteria);
        return f;
    };
    EXPECT_TRUE(profile.match(FilterProfileParams()));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setApnName("ims"); })));
    EXPECT_TRUE(profile.match(filter([](auto& f) { f.setApnName("IMS"); }, ApnNameSubset)));
    EXPECT_TRUE(profile.match(filter([](auto& f) { f.setApnName(""); }, ApnNameSubset)));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setUserName("user"); })));
    // Members the profile does not hold never match.
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setPassword(""); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setAuthType(AuthType::NONE); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setIsClatEnabled(false); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setApnClass(ApnClass::INET); })));
    EXPECT_FALSE(profile.match(filter([](auto& f) { f.setFilterByProfileId(4); })));
    EXPECT_FALSE(
            profile.match(filter([](auto& f) { f.setFilterByTechType(TechType::TECH_3GPP2); })));

    // APN types: exact equality unless the subset criterion is given.
    auto types = [&](uint32_t mask, uint32_t criteria) {
        return profile.match(filter([&](auto& f) { f.setApnTypesMask(mask); }, criteria));
    };
    const uint32_t two = APN_TYPE_DEFAULT | APN_TYPE_IMS;
    EXPECT_TRUE(types(two | APN_TYPE_MMS | 0x1000, 0));
    EXPECT_FALSE(types(two, 0));
    EXPECT_TRUE(types(two, ApnTypeBitmaskSubset));
    EXPECT_TRUE(types(0, ApnTypeBitmaskSubset));
    EXPECT_FALSE(types(APN_TYPE_SUPL, ApnTypeBitmaskSubset));

    // A 200-character name is stored and compared as its first 150, lowered.
    ProfileParams longName;
    longName.setApnName(std::string(150, 'x') + std::string(50, 'Y'));
    Modem3gppProfile longProfile(longName);
    EXPECT_EQ(longProfile.getApnName(), std::string(150, 'x'));
    EXPECT_TRUE(longProfile.match(
            filter([](auto& f) { f.setApnName(std::string(150, 'X') + std::string(50, 'z')); })));

    Modem3gppProfile nameless{ProfileParams()};
    EXPECT_FALSE(nameless.match(filter([](auto& f) { f.setApnName(""); }, ApnNameSubset)));
}

TEST(Modem3gppProfileTest, MatchIPTypesAndLibraryNames) {
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
    Modem3gppProfile profile(p);
    EXPECT_FALSE(profile.hasOverrideHomeIPType());

    ModifyProfileParams roamV6;
    roamV6.setRoamIPType(IPType::V6);
    auto update = std::dynamic_pointer_cast<Modem3gppProfile>(profile.diff(roamV6));
    ASSERT_TRUE(update);
    EXPECT_EQ(update->getCommonIPType(), IPType::V4V6);
    EXPECT_EQ(update->getLteRoamIPType(), IPType::V6);
    EXPECT_EQ(update->getUmtsRoamIPType(), IPType::V6);
    EXPECT_EQ(update->getOverrideHomeIPType(), IPType::V4);
    EXPECT_FALSE(update->hasApnName());
    profile.apply(update);
    profile.apply(nullptr);
    const ProfileParams seen = profile.get();
    EXPECT_EQ(seen.getHomeIPType(), IPType::V4);
    EXPECT_EQ(seen.getRoamIPType(), IPType::V6);
    EXPECT_EQ(seen.getApnName(), "internet");

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

TEST(Modem3gpp2ProfileTest, DiffHomeTypeOnly) {
    ProfileParams p;
    p.setHomeIPType(IPType::V4);
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
}

TEST(Modem3gppProfileTest, FromSettingsRoamingSentinelOverrideAndDump) {
    test::ScopedLogCapture log;
    auto r = emptySettings();
    r.profile_name_valid = 1;
    fill(r.profile_name, "kiv_profile_ia");
    r.pdp_type_valid = 1;
    r.pdp_type = WDS_PDP_TYPE_PDP_IPV4V6_V01;
    r.override_home_pdp_type_valid = 1;
    r.override_home_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
    r.lte_roaming_pdp_type_valid = r.umts_roaming_pdp_type_valid = 1;
    r.lte_roaming_pdp_type = r.umts_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
    r.apn_name_valid = 1;
    fill(r.apn_name, "IMS");
    r.apn_type_mask_valid = 1;
    r.apn_type_mask = 0x3 | 0x1000;
    r.max_pdn_conn_per_block_valid = 1;
    r.max_pdn_conn_per_block = 65535;
    Modem3gppProfile profile(7, r);
    EXPECT_TRUE(log.lines().empty());
    ProfileParams seen = profile.get();
    EXPECT_TRUE(seen.getIsIAProfile());
    EXPECT_TRUE(seen.getIsKivProfile());
    EXPECT_EQ(seen.getHomeIPType(), IPType::V6);  // the override
    EXPECT_EQ(seen.getApnName(), "ims");
    EXPECT_EQ(seen.getApnTypesMask(), uint32_t{APN_TYPE_DEFAULT | APN_TYPE_IMS});
    EXPECT_EQ(profile.dump(),
              "TechType=3GPP,ProfileId=7,ApnName=ims,CommonIPType=V4V6,ApnTypesMask=4099,"
              "OverrideHomeIPType=V6,LteRoamIP=V4,UmtsRoamIP=V4,MaxPdnsConnPerBlock=65535,"
              "ProfileName=kiv_profile_ia,");

    // 255 means "no roaming type" quietly, but is an unknown home override.
    r.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
    r.umts_roaming_pdp_type = static_cast<wds_common_pdp_type_enum_v01>(7);
    r.override_home_pdp_type = WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
    r.profile_name_valid = 0;
    Modem3gppProfile odd(8, r);
    EXPECT_FALSE(odd.hasLteRoamIPType());
    EXPECT_TRUE(odd.hasUmtsRoamIPType());
    EXPECT_EQ(odd.getUmtsRoamIPType(), IPType::UNKNOWN);
    EXPECT_TRUE(odd.hasOverrideHomeIPType());
    EXPECT_EQ(log.count(LogLevel::Debug, "Unknown pdp_type_enum 255"), 1u);
    EXPECT_EQ(log.count(LogLevel::Debug, "Unknown pdp_type_enum 7"), 1u);
    seen = odd.get();
    EXPECT_EQ(seen.getHomeIPType(), IPType::V4V6);  // common, the override being UNKNOWN
    EXPECT_FALSE(seen.hasRoamIPType());
    EXPECT_FALSE(seen.getIsKivProfile());

    // LTE and UMTS roaming types that differ give no roaming type.
    r.lte_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
    r.umts_roaming_pdp_type = WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
    EXPECT_FALSE(Modem3gppProfile(9, r).get().hasRoamIPType());
}

// Whatever the modem sends, a profile matches what it says it is.
TEST(ModemProfileTest, FromSettingsArbitraryBytesMatchesItself) {
    std::mt19937 random(1234);
    auto r = emptySettings();
    for (int round = 0; round < 200; ++round) {
        for (size_t i = 0; i < sizeof(r); ++i) {
            reinterpret_cast<uint8_t*>(&r)[i] = static_cast<uint8_t>(random());
        }
        test::ScopedLogCapture quiet;
        Modem3gppProfile a(round, r);
        Modem3gpp2Profile b(round, r);
        for (const ModemProfile* profile :
             {static_cast<ModemProfile*>(&a), static_cast<ModemProfile*>(&b)}) {
            FilterProfileParams f(profile->get());
            f.addFilterMatchCriteria(0x3F);
            EXPECT_TRUE(profile->match(f)) << profile->dump();
            profile->constructModifyRequest();
        }
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
