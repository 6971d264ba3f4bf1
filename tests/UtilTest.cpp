#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "Util.h"
#include "src/Conversions.h"
#include "support/LibraryFixture.h"

namespace kiv {
namespace {

// Modem profiles: 1 "internet" (V4V6, DEFAULT) and 2 "ims" (V6, IMS), both
// persistent and not made by the library.
class UtilFixture : public test::LibraryFixture {
  protected:
    static xalsim::Settings modem(uint8_t index,
                                  wds_profile_type_enum_v01 type = WDS_PROFILE_TYPE_3GPP_V01) {
        auto settings = sim().getProfile(type, index);
        EXPECT_TRUE(settings) << "no modem profile " << int(index);
        return settings.value_or(xalsim::emptySettings());
    }
    static ProfileParams apn(const std::string& name, std::optional<IPType> home = std::nullopt) {
        ProfileParams params;
        params.setApnName(name);
        if (home) params.setHomeIPType(*home);
        return params;
    }
    // Adds a profile straight to the modem and rereads the table.
    int seed(const xalsim::Settings& settings,
             wds_profile_type_enum_v01 type = WDS_PROFILE_TYPE_3GPP_V01) {
        const int index = sim().seedProfile(type, settings);
        manager().refresh(PDC_REFRESH_COMPLETED);
        return index;
    }
    static uint64_t modemMask(uint32_t apnTypes) { return convertToXalApnTypeMask(apnTypes); }

    Util util;
};

class UtilTest : public UtilFixture {};

TEST_F(UtilTest, LteAttachExactAndLooseMatchesAreOverwritten) {
    // Exact: the modem's own profile, overwritten with the caller's credentials.
    ProfileParams params = apn("INTERNET", IPType::V4V6);
    params.setUserName("user");
    params.setMaxPdnConnTimer(60);
    auto key = util.findOrCreateProfileForLteAttach(params);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_TRUE(log->contains(LogLevel::Info,
                              "kiv Found an exact match modem or KIV IA profile for attach"));
    EXPECT_STREQ(modem(1).username, "user");
    EXPECT_EQ(modem(1).max_pdn_conn_timer, 60);

    // Loose, update not allowed: a superset home type will do, left as it is.
    log->clear();
    key = util.findOrCreateProfileForLteAttach(apn("internet", IPType::V4));
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv Found a loose match profile for attach"));
    EXPECT_TRUE(log->contains(LogLevel::Info, "It is KIV_IA profile or modem profile."));
    EXPECT_EQ(modem(1).pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);

    // Loose, update allowed: IP types are not filtered and are written.
    util.setProfileUpdateAllowed(true);
    log->clear();
    key = util.findOrCreateProfileForLteAttach(apn("internet", IPType::V6));
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv Found a loose match profile for attach"));
    EXPECT_EQ(modem(1).pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(sim().profiles().size(), 2u);
}

TEST_F(UtilTest, LteAttachLibraryProfilesSkippedReusedOrCreated) {
    // A library data profile that matches exactly is never chosen: one
    // persistent attach profile is created instead.
    AddProfileParams data(false, TechType::TECH_3GPP, false);
    data.setApnName("attach");
    data.setHomeIPType(IPType::V4);
    auto dataKey = manager().addProfile(data);
    ASSERT_TRUE(dataKey);
    auto key = util.findOrCreateProfileForLteAttach(apn("attach", IPType::V4));
    ASSERT_TRUE(key);
    EXPECT_NE(key->getProfileId(), dataKey->getProfileId());
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv KIV IA profile created for attach"));
    const auto created = modem(static_cast<uint8_t>(key->getProfileId()));
    EXPECT_STREQ(created.profile_name, "kiv_profile_ia");
    EXPECT_EQ(created.persistent, 1);

    // The attach profile is found again by its name, and takes new IP types.
    log->clear();
    auto again = util.findOrCreateProfileForLteAttach(apn("attach", IPType::V6));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getProfileId(), key->getProfileId());
    EXPECT_TRUE(log->contains(LogLevel::Info,
                              "kiv Found a KIV IA profile that matches APN name for attach"));
    EXPECT_EQ(modem(static_cast<uint8_t>(key->getProfileId())).pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);

    // Any attach profile of the library is renamed rather than a second made.
    log->clear();
    auto renamed = util.findOrCreateProfileForLteAttach(apn("elsewhere", IPType::V6));
    ASSERT_TRUE(renamed);
    EXPECT_EQ(renamed->getProfileId(), key->getProfileId());
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv Found any KIV IA profile for attach"));
    EXPECT_STREQ(modem(static_cast<uint8_t>(key->getProfileId())).apn_name, "elsewhere");

    // Without an APN name every stage searches without one.
    log->clear();
    EXPECT_TRUE(util.findOrCreateProfileForLteAttach(ProfileParams()));
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv NULL apn scenario"));
    EXPECT_EQ(sim().profiles().size(), 4u);
}

TEST_F(UtilTest, MatchLteAttachProfileIdRelaxedOnlyForModemProfiles) {
    EXPECT_TRUE(util.matchLteAttachProfileId(1, apn("internet", IPType::V4)));
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv matchLteAttachList < 1"));
    EXPECT_FALSE(util.matchLteAttachProfileId(1, apn("other")));
    EXPECT_FALSE(util.matchLteAttachProfileId(9, apn("internet")));
    EXPECT_TRUE(log->contains(LogLevel::Info,
                              "kiv matchLteAttachProfileId < did not match input params"));
    util.setProfileUpdateAllowed(true);
    EXPECT_FALSE(util.matchLteAttachProfileId(1, apn("internet", IPType::V4)));
    EXPECT_TRUE(util.matchLteAttachProfileId(1, apn("internet", IPType::V4V6)));

    auto data =
            manager().addProfile(AddProfileParams(apn("data"), false, TechType::TECH_3GPP, false));
    ASSERT_TRUE(data);
    EXPECT_FALSE(util.matchLteAttachProfileId(data->getProfileId(), apn("data")));
    EXPECT_TRUE(log->contains(LogLevel::Error,
                              "Profile id 3 is a KIV profile which is not an IA profile, cannot "
                              "be used for attach"));
}

TEST_F(UtilTest, SetupDataCallSearchesThenCreatesTemporary) {
    // Not allowed: home V4 has no exact match; the relaxed search finds V4V6.
    auto key = util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP,
                                                        apn("internet", IPType::V4));
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_TRUE(log->contains(LogLevel::Info, "found existing setupDataCall profile"));
    EXPECT_EQ(modem(1).pdp_type, WDS_PDP_TYPE_PDP_IPV4V6_V01);

    // The user name takes part only for 3GPP2.
    ProfileParams withUser = apn("internet");
    withUser.setUserName("someone");
    key = util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP, withUser);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    auto cdma = xalsim::make3gpp2Settings("cdma", WDS_PROFILE_PDN_TYPE_IPV4_V01, true);
    xalsim::setText(cdma.user_id_valid, cdma.user_id, "owner");
    ASSERT_EQ(seed(cdma, WDS_PROFILE_TYPE_3GPP2_V01), 101);
    ProfileParams other = apn("cdma");
    other.setUserName("someone");
    key = util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP2, other);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 102);  // created: the user differs
    EXPECT_TRUE(log->contains(LogLevel::Info, "setupDataCall profile added"));
    EXPECT_EQ(modem(102, WDS_PROFILE_TYPE_3GPP2_V01).persistent, 0);
    key.reset();  // temporary: gone with its key
    EXPECT_FALSE(sim().getProfile(WDS_PROFILE_TYPE_3GPP2_V01, 102));

    // Allowed: found by name and technology alone, then overwritten.
    util.setProfileUpdateAllowed(true);
    ProfileParams rewrite = apn("internet", IPType::V6);
    rewrite.setPassword("secret");
    key = util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP, rewrite);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->getProfileId(), 1);
    EXPECT_TRUE(log->contains(LogLevel::Info, "Modifying profile with input parameters"));
    EXPECT_EQ(modem(1).pdp_type, WDS_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_STREQ(modem(1).password, "secret");
}

TEST_F(UtilTest, EmergencyDataCallByNameBySupportOrCreatedPersistent) {
    ProfileParams params = apn("sos");
    params.setApnTypesMask(APN_TYPE_DEFAULT);
    auto key = util.findOrCreateProfileForEmergencyDataCall(params);
    ASSERT_TRUE(key);
    EXPECT_TRUE(log->contains(LogLevel::Info, "emergency profile created"));
    const auto created = modem(static_cast<uint8_t>(key->getProfileId()));
    EXPECT_EQ(created.persistent, 1);
    EXPECT_EQ(created.support_emergency_calls, 1);
    EXPECT_EQ(created.apn_type_mask, modemMask(APN_TYPE_EMERGENCY));
    EXPECT_STREQ(created.apn_name, "sos");

    log->clear();
    auto byName = util.findOrCreateProfileForEmergencyDataCall(apn("SOS"));
    ASSERT_TRUE(byName);
    EXPECT_EQ(byName->getProfileId(), key->getProfileId());
    EXPECT_TRUE(log->contains(LogLevel::Info, "found an emergency profile by name"));

    log->clear();
    auto bySupport = util.findOrCreateProfileForEmergencyDataCall(ProfileParams());
    ASSERT_TRUE(bySupport);
    EXPECT_EQ(bySupport->getProfileId(), key->getProfileId());
    EXPECT_TRUE(log->contains(LogLevel::Info, "found a profile that supports emergency calls"));
    EXPECT_EQ(log->mentions("found an emergency profile by name"), 0u);
    EXPECT_EQ(sim().profiles().size(), 3u);
}

TEST_F(UtilTest, ApnClassModifiesEveryMatchOrCreatesOnePersistent) {
    auto inet = xalsim::make3gppSettings("second", "second", WDS_PDP_TYPE_PDP_IPV4_V01, 1, true);
    inet.apn_class_valid = 1;
    inet.apn_class = static_cast<uint8_t>(ApnClass::INET);
    const int first = seed(inet);
    const int second = seed(inet);

    ProfileParams inetClass = apn("carrier.inet");
    inetClass.setApnClass(ApnClass::INET);
    ProfileParams imsClass = apn("carrier.ims");
    imsClass.setApnClass(ApnClass::IMS);
    util.updateModemProfileByApnClass({inetClass, apn("no.class")}, {imsClass});
    EXPECT_STREQ(modem(static_cast<uint8_t>(first)).apn_name, "carrier.inet");
    EXPECT_STREQ(modem(static_cast<uint8_t>(second)).apn_name, "carrier.inet");
    EXPECT_TRUE(log->contains(LogLevel::Debug, "kiv either tech type or apn class is missing"));
    const auto created = modem(101, WDS_PROFILE_TYPE_3GPP2_V01);
    EXPECT_STREQ(created.apn_string, "carrier.ims");
    EXPECT_EQ(created.apn_class_3gpp2, static_cast<uint8_t>(ApnClass::IMS));
    EXPECT_EQ(created.persistent, 1);
    EXPECT_EQ(sim().profiles().size(), 5u);
    EXPECT_TRUE(log->contains(LogLevel::Info, "kiv updateModemProfileByApnClass < OK"));
}

TEST_F(UtilTest, ApnTypesMergedPerNameAndFallBackAcrossIPFamilies) {
    auto record = [](const std::string& name, std::optional<uint32_t> mask,
                     std::optional<IPType> home) {
        ProfileParams params = apn(name, home);
        if (mask) params.setApnTypesMask(*mask);
        return params;
    };
    // "IMS" and "ims" are one name, both V6: merged onto the V6 profile.
    // "internet" V4 has no V4 profile: it lands on the V4V6 one. A record
    // with neither mask nor IP type counts as V4V6 and contributes nothing.
    util.updateAPNTypeBitmaskOnModemProfile({
            record("IMS", APN_TYPE_IMS | APN_TYPE_XCAP, IPType::V6),
            record("ims", APN_TYPE_MMS, IPType::V6),
            record("internet", APN_TYPE_DEFAULT | APN_TYPE_SUPL, IPType::V4),
            record("internet", std::nullopt, std::nullopt),
    });
    EXPECT_EQ(modem(2).apn_type_mask, modemMask(APN_TYPE_IMS | APN_TYPE_XCAP | APN_TYPE_MMS));
    EXPECT_EQ(modem(1).apn_type_mask, modemMask(APN_TYPE_DEFAULT | APN_TYPE_SUPL));
    EXPECT_TRUE(log->contains(LogLevel::Error, "kiv APN type mask not present, setting to 0"));
    EXPECT_TRUE(log->contains(LogLevel::Error, "kiv Home IP type not present, setting to v4v6"));
    EXPECT_TRUE(log->contains(LogLevel::Debug,
                              "kiv processing APN name ims, V4 mask:0x0, v6 mask0x842:, "
                              "v4v6 mask:0x0"));

    // No V4 and no V4V6 profile: the V4 and V4V6 types end on the V6 profile.
    const int v6 = seed(xalsim::make3gppSettings("fb", "fb", WDS_PDP_TYPE_PDP_IPV6_V01, 0, true));
    util.updateAPNTypeBitmaskOnModemProfile(
            {record("fb", APN_TYPE_DUN, IPType::V4), record("fb", APN_TYPE_CBS, IPType::V4V6)});
    EXPECT_EQ(modem(static_cast<uint8_t>(v6)).apn_type_mask,
              modemMask(APN_TYPE_DUN | APN_TYPE_CBS));

    // Only an IPv6 profile, for IPv6 and dual-stack types: it ends holding
    // both, its own first and the dual-stack ones falling back onto it.
    const int only =
            seed(xalsim::make3gppSettings("v6", "v6only", WDS_PDP_TYPE_PDP_IPV6_V01, 0, true));
    util.updateAPNTypeBitmaskOnModemProfile({record("v6only", APN_TYPE_IMS, IPType::V6),
                                             record("v6only", APN_TYPE_DEFAULT, IPType::V4V6)});
    EXPECT_EQ(modem(static_cast<uint8_t>(only)).apn_type_mask,
              modemMask(APN_TYPE_IMS | APN_TYPE_DEFAULT));

    // Allowed: the union goes onto every profile with the name, any
    // technology and IP type.
    seed(xalsim::make3gpp2Settings("internet", WDS_PROFILE_PDN_TYPE_IPV4_V01, true),
         WDS_PROFILE_TYPE_3GPP2_V01);
    util.setProfileUpdateAllowed(true);
    util.updateAPNTypeBitmaskOnModemProfile({record("internet", APN_TYPE_FOTA, IPType::V6),
                                             record("Internet", APN_TYPE_HIPRI, IPType::V4)});
    const uint64_t both = modemMask(APN_TYPE_FOTA | APN_TYPE_HIPRI);
    EXPECT_EQ(modem(1).apn_type_mask, both);
    EXPECT_EQ(modem(101, WDS_PROFILE_TYPE_3GPP2_V01).apn_type_mask, both);
    EXPECT_EQ(modem(2).apn_type_mask, modemMask(APN_TYPE_IMS | APN_TYPE_XCAP | APN_TYPE_MMS));
}

// What each helper must leave alone: exactly the profiles named change on the
// modem, whatever else has a similar name, IP family, class or technology.
TEST_F(UtilTest, HelpersChangeOnlyTheProfilesTheirRulesName) {
    seed(xalsim::make3gppSettings("internet4", "internet", WDS_PDP_TYPE_PDP_IPV4_V01, 0, true));
    auto corp = xalsim::make3gppSettings("corp", "corp", WDS_PDP_TYPE_PDP_IPV4V6_V01, 0, true);
    corp.apn_class_valid = 1;
    corp.apn_class = static_cast<uint8_t>(ApnClass::INET);
    seed(corp);
    seed(xalsim::make3gpp2Settings("internet", WDS_PROFILE_PDN_TYPE_IPV4_V01, true),
         WDS_PROFILE_TYPE_3GPP2_V01);
    // 3GPP: 1 internet V4V6, 2 ims V6, 3 internet V4, 4 corp V4V6 INET;
    // 3GPP2: 101 internet V4.
    using Slot = std::pair<int, int>;
    auto snapshot = [] {
        std::map<Slot, xalsim::Settings> all;
        for (const auto& p : sim().profiles()) all[{p.type, p.index}] = p.settings;
        return all;
    };
    auto typed = [](const char* name, uint32_t mask, IPType home) {
        ProfileParams params = apn(name, home);
        params.setApnTypesMask(mask);
        return params;
    };
    struct Row {
        const char* name;
        std::function<void()> run;
        std::set<Slot> changes;
    };
    const int k3gpp = WDS_PROFILE_TYPE_3GPP_V01, k3gpp2 = WDS_PROFILE_TYPE_3GPP2_V01;
    const std::vector<Row> rows = {
            // V6 types with no V6 profile: onto the dual-stack one; the V4
            // profile of the same name is another family and stays. The
            // 3GPP2 technology has no dual-stack profile: onto its V4 one.
            {"APN types for a missing family",
             [&] {
                 util.updateAPNTypeBitmaskOnModemProfile(
                         {typed("internet", APN_TYPE_MMS, IPType::V6)});
             },
             {{k3gpp, 1}, {k3gpp2, 101}}},
            // V4 types with a V4 profile: that one only, not the dual-stack one.
            {"APN types for a present family",
             [&] {
                 util.updateAPNTypeBitmaskOnModemProfile(
                         {typed("internet", APN_TYPE_DUN, IPType::V4)});
             },
             {{k3gpp, 3}, {k3gpp2, 101}}},
            {"APN types of an unknown name",
             [&] {
                 util.updateAPNTypeBitmaskOnModemProfile(
                         {typed("nowhere", APN_TYPE_DUN, IPType::V4)});
             },
             {}},
            {"APN class",
             [&] {
                 ProfileParams inet = apn("carrier");
                 inet.setApnClass(ApnClass::INET);
                 util.updateModemProfileByApnClass({inet}, {});
             },
             {{k3gpp, 4}}},
            // Found, but an update is not allowed: nothing is written.
            {"data call found",
             [&] {
                 EXPECT_EQ(util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP,
                                                                    apn("internet", IPType::V4))
                                   ->getProfileId(),
                           3);
             },
             {}},
            {"emergency created",
             [&] {
                 EXPECT_EQ(util.findOrCreateProfileForEmergencyDataCall(apn("sos"))->getProfileId(),
                           5);
             },
             {{k3gpp, 5}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto before = snapshot();
        row.run();
        const auto after = snapshot();
        std::set<Slot> changed;
        for (const auto& [slot, settings] : after) {
            auto old = before.find(slot);
            if (old == before.end() || memcmp(&old->second, &settings, sizeof(settings)) != 0) {
                changed.insert(slot);
            }
        }
        for (const auto& [slot, settings] : before) {
            if (after.count(slot) == 0) changed.insert(slot);
        }
        EXPECT_EQ(changed, row.changes);
    }

    // The relaxed IP match is for the modem's own profiles: the library's
    // attach profile must match as it is.
    util.setProfileUpdateAllowed(false);
    auto attach = util.findOrCreateProfileForLteAttach(apn("attach.here", IPType::V4V6));
    ASSERT_TRUE(attach);
    EXPECT_TRUE(util.matchLteAttachProfileId(1, apn("internet", IPType::V4)));
    EXPECT_FALSE(
            util.matchLteAttachProfileId(attach->getProfileId(), apn("attach.here", IPType::V4)));
    EXPECT_TRUE(
            util.matchLteAttachProfileId(attach->getProfileId(), apn("attach.here", IPType::V4V6)));
}

// A helper whose create or modify the modem refuses: what the caller gets,
// and the modem as it was.
TEST_F(UtilTest, HelpersWhoseRequestFailsReturnWhatTheirRulesSay) {
    struct Row {
        const char* name;
        unsigned int refused;
        std::function<std::shared_ptr<IProfileKey>()> run;
        int expectedId;  // 0: no key
        LogLevel level;
        const char* line;
    };
    const std::vector<Row> rows = {
            {"attach created", XAL_WDS_CREATE_PROFILE_REQ_V01,
             [&] { return util.findOrCreateProfileForLteAttach(apn("new.attach", IPType::V4)); }, 0,
             LogLevel::Info, "kiv KIV IA profile created for attach"},
            // The found profile is returned though the update did not land.
            {"attach found", XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01,
             [&] {
                 ProfileParams params = apn("internet", IPType::V4V6);
                 params.setUserName("ignored");
                 return util.findOrCreateProfileForLteAttach(params);
             },
             1, LogLevel::Info, "kiv Modifying profile identified for IA"},
            {"data call", XAL_WDS_CREATE_PROFILE_REQ_V01,
             [&] {
                 return util.findOrCreateProfileForSetupDataCall(TechType::TECH_3GPP2, apn("x"));
             },
             0, LogLevel::Info, "setupDataCall profile added"},
            {"emergency", XAL_WDS_CREATE_PROFILE_REQ_V01,
             [&] { return util.findOrCreateProfileForEmergencyDataCall(apn("sos")); }, 0,
             LogLevel::Info, "emergency profile created"},
            {"APN class", XAL_WDS_CREATE_PROFILE_REQ_V01,
             [&] {
                 ProfileParams admin = apn("admin");
                 admin.setApnClass(ApnClass::ADMN);
                 util.updateModemProfileByApnClass({admin}, {});
                 return std::shared_ptr<IProfileKey>();
             },
             0, LogLevel::Error, "Could not add profile by APN class"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto modem = modemTable();
        log->clear();
        sim().failNext(row.refused, 1);
        const auto key = row.run();
        EXPECT_EQ(key ? key->getProfileId() : 0, row.expectedId);
        EXPECT_TRUE(log->contains(row.level, row.line));
        EXPECT_EQ(modemTable(), modem);
        EXPECT_EQ(sim().counters().failedRequests, &row - rows.data() + 1u);
    }
}

TEST_F(UtilTest, UpdateByTechTypeZeroMasksSendNothing) {
    const auto modifies = sim().requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01);
    util.handleProfileUpdateByTechType(TechType::TECH_3GPP, 0, 0, 0, "internet");
    EXPECT_EQ(sim().requestCount(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01), modifies);
    EXPECT_FALSE(util.updateByIpType(TechType::TECH_3GPP, IPType::V4, 1, "internet"));
    EXPECT_TRUE(log->contains(LogLevel::Debug,
                              "kiv no match found for apn name:internet, ip type:1, tech type:0"));
    EXPECT_TRUE(util.updateByIpType(TechType::TECH_3GPP, IPType::V4V6, 1, "internet"));
}

}  // namespace
}  // namespace kiv

namespace kiv {
namespace {

class ReclaimTest : public UtilFixture {
  protected:
    AddProfileParams temporary(const std::string& apn, TechType tech = TechType::TECH_3GPP) {
        AddProfileParams params(false, tech, false);
        params.setApnName(apn);
        return params;
    }
    // The library's temporaries on the modem, by (type, index).
    static std::set<std::pair<int, int>> libraryTemporaries() {
        std::set<std::pair<int, int>> found;
        for (const auto& p : sim().profiles()) {
            const std::string name = p.settings.profile_name_valid ? p.settings.profile_name : "";
            if (!p.settings.persistent && (name == "kiv_profile" || name == "kiv_profile_ia")) {
                found.insert({p.type, p.index});
            }
        }
        return found;
    }
    static std::set<std::pair<int, int>> ids(const std::vector<ReclaimedProfile>& profiles) {
        std::set<std::pair<int, int>> found;
        for (const auto& p : profiles) {
            found.insert({p.techType == TechType::TECH_3GPP2 ? WDS_PROFILE_TYPE_3GPP2_V01
                                                             : WDS_PROFILE_TYPE_3GPP_V01,
                          p.profileId});
        }
        return found;
    }
};

// Each way the library's rules leave a temporary on the modem: the reclaim
// removes exactly that one, while persistent profiles, other names and
// profiles with live keys stay.
TEST_F(ReclaimTest, EachCauseLeavesOneLeftoverReclaimTakesOnlyThat) {
    const int k3gpp = WDS_PROFILE_TYPE_3GPP_V01, k3gpp2 = WDS_PROFILE_TYPE_3GPP2_V01;
    struct Cause {
        const char* name;
        std::function<void()> leave;
        std::pair<int, int> leftover;
    };
    const std::vector<Cause> causes = {
            {"a reread voids the key",
             [&] {
                 auto key = manager().addProfile(temporary("reread"));
                 manager().refresh(PDC_REFRESH_COMPLETED);
             },
             {k3gpp, 3}},
            {"a release in a refresh bracket is refused",
             [&] {
                 auto key = manager().addProfile(temporary("bracket"));
                 manager().refresh(PDC_REFRESH_STARTED);
                 key.reset();
                 manager().refresh(PDC_REFRESH_COMPLETED);
             },
             {k3gpp, 3}},
            {"the delete on the last release fails",
             [&] {
                 auto key = manager().addProfile(temporary("undeleted"));
                 sim().failNext(XAL_WDS_DELETE_PROFILE_REQ_V01, 1);
             },
             {k3gpp, 3}},
            {"a 3GPP2 temporary whose delete failed",
             [&] {
                 auto key = manager().addProfile(temporary("cdma", TechType::TECH_3GPP2));
                 sim().failNext(XAL_WDS_DELETE_PROFILE_REQ_V01, 1);
             },
             {k3gpp2, 101}},
            {"another process died holding it",
             [&] {
                 sim().externalCreate(
                         WDS_PROFILE_TYPE_3GPP_V01,
                         xalsim::make3gppSettings("kiv_profile", "dead", WDS_PDP_TYPE_PDP_IPV4_V01,
                                                  0, false));
                 settle();
             },
             {k3gpp, 3}},
    };
    for (const auto& cause : causes) {
        SCOPED_TRACE(cause.name);
        startAfresh();
        cause.leave();
        settle();
        // What must stay: a persistent library profile, a temporary of
        // another name, and a library temporary with a live key.
        auto persistent = manager().addProfile(AddProfileParams(true, TechType::TECH_3GPP, false));
        ASSERT_TRUE(persistent);
        persistent.reset();
        sim().externalCreate(WDS_PROFILE_TYPE_3GPP_V01,
                             xalsim::make3gppSettings("elsewhere", "other",
                                                      WDS_PDP_TYPE_PDP_IPV4_V01, 0, false));
        auto held = manager().addProfile(temporary("held"));
        ASSERT_TRUE(held);
        settle();

        const auto before = modemTable();
        EXPECT_EQ(ids(util.reclaimTemporaryProfiles(/*dryRun=*/true)),
                  (std::set<std::pair<int, int>>{cause.leftover}));
        EXPECT_EQ(modemTable(), before);
        log->clear();
        EXPECT_EQ(ids(util.reclaimTemporaryProfiles()),
                  (std::set<std::pair<int, int>>{cause.leftover}));
        EXPECT_TRUE(log->contains(LogLevel::Info, "kiv reclaimTemporaryProfiles < 1 deleted"));
        EXPECT_FALSE(sim().getProfile(static_cast<wds_profile_type_enum_v01>(cause.leftover.first),
                                      static_cast<uint8_t>(cause.leftover.second)));
        EXPECT_EQ(sim().profiles().size(), 5u);      // 2 seeded, persistent, other, held
        EXPECT_EQ(libraryTemporaries().size(), 1u);  // the held one
        EXPECT_TRUE(manager().getProfile(held));
        // Its own delete's echo is taken for its own, and nothing is left to do.
        settle();
        EXPECT_EQ(pendingLines(), std::vector<std::string>());
        EXPECT_TRUE(util.reclaimTemporaryProfiles().empty());
        held.reset();
        EXPECT_TRUE(libraryTemporaries().empty());
    }
}

// A delete the modem refuses leaves the leftover for the next reclaim, and
// a reclaim in a refresh bracket is refused like every other request.
TEST_F(ReclaimTest, RefusedDeletesAndBracketsLeaveTheLeftoverForLater) {
    auto key = manager().addProfile(temporary("left"));
    manager().refresh(PDC_REFRESH_COMPLETED);
    key.reset();
    sim().failNext(XAL_WDS_DELETE_PROFILE_REQ_V01, 1);
    EXPECT_TRUE(util.reclaimTemporaryProfiles().empty());
    EXPECT_EQ(log->countContaining(LogLevel::Error, "ProfileCache: failed to reclaim profile"), 1u);
    manager().refresh(PDC_REFRESH_STARTED);
    EXPECT_TRUE(util.reclaimTemporaryProfiles().empty());
    manager().refresh(PDC_REFRESH_COMPLETED);
    EXPECT_EQ(ids(util.reclaimTemporaryProfiles()),
              (std::set<std::pair<int, int>>{{WDS_PROFILE_TYPE_3GPP_V01, 3}}));
}

// Any seeded sequence of operations and faults: afterwards, once the keys
// are gone and the table reread, one reclaim leaves no library temporary
// and touches nothing else.
TEST_F(ReclaimTest, AfterAnySequenceOneReclaimLeavesNoTemporary) {
    for (const unsigned seed : {1u, 2u, 3u, 4u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        startAfresh();
        std::mt19937 random(seed);
        auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
        std::vector<std::shared_ptr<IProfileKey>> keys;
        bool bracket = false;
        for (int step = 0; step < 150; ++step) {
            switch (pick(10)) {
                case 0:
                case 1:
                    if (auto key = manager().addProfile(temporary("t" + std::to_string(step)))) {
                        keys.push_back(key);
                    }
                    break;
                case 2:
                    manager().addProfile(AddProfileParams(true, TechType::TECH_3GPP, false));
                    break;
                case 3:
                    if (!keys.empty())
                        keys.erase(keys.begin() + pick(static_cast<int>(keys.size())));
                    break;
                case 4:
                    bracket = !bracket;
                    manager().refresh(bracket ? PDC_REFRESH_STARTED : PDC_REFRESH_COMPLETED);
                    break;
                case 5:
                    sim().failNext(pick(2) ? XAL_WDS_DELETE_PROFILE_REQ_V01
                                           : XAL_WDS_CREATE_PROFILE_REQ_V01,
                                   1 + pick(2));
                    break;
                case 6:
                    sim().timeoutNext(XAL_WDS_DELETE_PROFILE_REQ_V01, 1);
                    break;
                case 7:
                    sim().externalCreate(
                            WDS_PROFILE_TYPE_3GPP_V01,
                            xalsim::make3gppSettings(pick(2) ? "kiv_profile" : "x", "foreign",
                                                     WDS_PDP_TYPE_PDP_IPV4_V01, 0, pick(2) == 0));
                    settle();
                    break;
                case 8:
                    sim().sendProfileReady();
                    settle();
                    break;
                default:
                    if (pick(4) == 0) {
                        sim().restart();
                        waitForConnection(++connections);
                        sim().sendProfileReady();
                        settle();
                    }
                    break;
            }
            if (sim().profiles().size() > 20) keys.clear();  // keep room on the modem
        }
        // The faults end, the keys go, the table is reread.
        sim().clearFaults();
        keys.clear();
        manager().refresh(PDC_REFRESH_COMPLETED);
        settle();
        std::set<std::pair<int, int>> others;
        for (const auto& p : sim().profiles()) others.insert({p.type, p.index});
        const auto left = libraryTemporaries();
        for (const auto& slot : left) others.erase(slot);
        EXPECT_EQ(ids(util.reclaimTemporaryProfiles()), left);
        EXPECT_TRUE(libraryTemporaries().empty());
        std::set<std::pair<int, int>> after;
        for (const auto& p : sim().profiles()) after.insert({p.type, p.index});
        EXPECT_EQ(after, others);
    }
}

}  // namespace
}  // namespace kiv
