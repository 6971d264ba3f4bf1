#include <gtest/gtest.h>

#include <sstream>

#include "ProfileParams.h"
#include "src/Secrets.h"

namespace kiv {
namespace {

template <typename T>
std::string print(T value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

// Known values by name (the dumps below and kivctl's show most of them),
// others by number.
TEST(ProfileParamsTest, PrintersKnownValuesByNameOthersByNumber) {
    EXPECT_EQ(print(static_cast<ApnTypes>(0)), "NONE");
    EXPECT_EQ(print(static_cast<ApnTypes>(0x1000)), "");
    EXPECT_EQ(print(static_cast<FilterMatchType>(0)), "None");
    EXPECT_EQ(print(static_cast<FilterMatchType>(0x3F)),
              "HomeIPSubset|RoamIPSubset|ApnNameSubset|ApnTypeBitmaskSubset|HomeIPSuperset|"
              "RoamIPSuperset|");
    EXPECT_EQ(print(static_cast<ApnClass>(0)), "0");
    EXPECT_EQ(print(ApnClass::APP), "APP");
    EXPECT_EQ(print(static_cast<AuthType>(7)), "7");
    EXPECT_EQ(print(static_cast<TechType>(2)), "2");
    EXPECT_EQ(print(static_cast<IPType>(9)), "9");
}

TEST(ProfileParamsTest, DumpPresentFieldsInDumpOrder) {
    const ProfileParams empty;
    EXPECT_EQ(empty.dump(), "");
    EXPECT_FALSE(empty.getIsKivProfile() || empty.getIsIAProfile());

    ProfileParams p;
    // Set in an order different from the dump order on purpose.
    p.setIsEmergencySupported(false);
    p.setIsApnDisabled(true);
    p.setPdnReqWaitInterval(3);
    p.setMaxPdnConnTimer(2);
    p.setMaxPdnsConnPerBlock(1);
    p.setIsClatEnabled(true);
    p.setApnClass(ApnClass::INET);
    p.setApnTypesMask(0x41);
    p.setRoamIPType(IPType::V6);
    p.setHomeIPType(IPType::V4);
    p.setAuthType(AuthType::CHAP);
    p.setPassword("secret");
    p.setUserName("user");
    p.setApnName("Internet");
    EXPECT_EQ(p.dump(),
              std::string("ApnName=Internet,UserName=user,Password=") +
                      (kSecretFreeLog ? "(hidden)" : "secret") +
                      ",AuthType=CHAP,HomeIPType=V4,"
                      "RoamIPType=V6,ApnTypesMask=DEFAULT|IMS|,ApnClass=INET,IsClatEnabled=true,"
                      "MaxPdnsConnPerBlock=1,MaxPdnConnTimer=2,PdnReqWaitInterval=3,"
                      "IsApnDisabled=true,IsEmergencySupported=false,");
}

TEST(ProfileParamsTest, CopyPresenceTravelsWithTheValues) {
    ProfileParams source;
    source.setApnName("ims");
    ProfileParams target;
    target.setUserName("old");
    target.setPassword("old");
    target = source;
    EXPECT_EQ(target.dump(), "ApnName=ims,");

    // Assigning through the base keeps the target's own type and extras.
    FilterProfileParams filter;
    filter.setFilterByProfileId(4);
    static_cast<ProfileParams&>(filter) = source;
    EXPECT_EQ(filter.dump(), "None: id=4,ApnName=ims,");
}

TEST(AddProfileParamsTest, ConstructInitialAttachFlagAlwaysFromArgument) {
    EXPECT_EQ(AddProfileParams(true, TechType::TECH_3GPP, true).dump(),
              "3GPP persist=true: IsIAProfile=true,");

    FilterProfileParams flags;
    flags.setFilterByIsKivProfile(true);
    flags.setFilterByIsIAProfile(true);
    flags.setApnName("ia");
    const AddProfileParams copied(flags, false, static_cast<TechType>(5), false);
    EXPECT_EQ(copied.dump(), "5 persist=false: ApnName=ia,IsKivProfile=true,IsIAProfile=false,");
}

TEST(FilterProfileParamsTest, CriteriaMaskAndDumpIndependentOfOrder) {
    FilterProfileParams f;
    f.addFilterMatchCriteria(RoamIPSuperset);
    f.addFilterMatchCriteria(HomeIPSubset | ApnNameSubset);
    f.removeFilterMatchCriteria(ApnTypeBitmaskSubset);  // not set: no change
    EXPECT_EQ(f.getFilterMatchCriteria(), 0x25u);
    f.removeFilterMatchCriteria(ApnNameSubset);
    f.setFilterByProfileId(7);
    f.setFilterByTechType(TechType::TECH_3GPP2);
    f.setFilterByIsIAProfile(false);
    EXPECT_EQ(f.dump(), "HomeIPSubset|RoamIPSuperset|: tech=3GPP2,id=7,IsIAProfile=false,");

    // From a plain record: its members only, no criteria, id or technology.
    ProfileParams base;
    base.setApnName("x");
    EXPECT_EQ(FilterProfileParams(base).dump(), "None: ApnName=x,");
}

}  // namespace
}  // namespace kiv
