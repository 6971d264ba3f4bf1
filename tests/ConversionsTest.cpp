#include <gtest/gtest.h>

#include <iterator>

#include "src/Conversions.h"
#include "support/CapturingLog.h"

namespace kiv {
namespace {

TEST(ConversionsTest, ApnTypesEachBitToItsModemBitAndBackUnknownBitsDropped) {
    // The modem's bit for each library bit, from DEFAULT to XCAP.
    const uint64_t modem[] = {0x1, 0x4,  0x10,  0x8,   0x20,  0x40,
                              0x2, 0x80, 0x100, 0x200, 0x800, 0x400};
    for (size_t i = 0; i < std::size(modem); ++i) {
        const uint32_t bit = 1u << i;
        EXPECT_EQ(convertToSingleXalApnType(static_cast<ApnTypes>(bit)), modem[i]) << bit;
        EXPECT_EQ(convertToXalApnTypeMask(bit), modem[i]) << bit;
        EXPECT_EQ(convertToSingleCommonApnType(modem[i]), bit) << bit;
        EXPECT_EQ(convertToCommonApnTypeMask(modem[i]), bit) << bit;
    }
    EXPECT_EQ(convertToXalApnTypeMask(APN_TYPE_DEFAULT | APN_TYPE_IMS | 0x1000), 0x3u);
    EXPECT_EQ(convertToCommonApnTypeMask(0x3 | 0x1000), 0x41u);
    EXPECT_EQ(convertToSingleXalApnType(static_cast<ApnTypes>(0x3)), 0u);
    EXPECT_EQ(convertToSingleCommonApnType(0x6), 0u);
}

// The known values go both ways through every library test; these are the
// values outside the enumerations.
TEST(ConversionsTest, UnknownValuesLoggedAndMappedLopsidedly) {
    test::ScopedLogCapture log;
    EXPECT_EQ(convertPdnType(WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01), IPType::UNKNOWN);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(convertPdnType(static_cast<wds_profile_pdn_type_enum_v01>(4)), IPType::UNKNOWN);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown profile_pdn_type_enum 4"));
    EXPECT_EQ(convertPdpType(WDS_PDP_TYPE_PDP_PPP_V01), IPType::UNKNOWN);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown pdp_type_enum 1"));
    EXPECT_EQ(convertProfileType(WDS_PROFILE_TYPE_EPC_V01), TechType::TECH_3GPP);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown tech type 2"));
    EXPECT_EQ(convertToAuthType(static_cast<unsigned char>(0xFE)), AuthType::CHAP);
    EXPECT_EQ(convertToAuthType(static_cast<wds_profile_auth_protocol_enum_v01>(9)),
              AuthType::NONE);

    EXPECT_EQ(convertToXalCommonPdpType(static_cast<IPType>(7)),
              WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(convertToXalProfilePdnType(IPType::UNKNOWN), WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01);
    EXPECT_EQ(convertToXalPdpType(IPType::UNKNOWN), WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(convertToXalAuthPref(static_cast<AuthType>(7)), 3);
    EXPECT_EQ(convertToXalAuthProtocol(static_cast<AuthType>(4)),
              WDS_PROFILE_AUTH_PROTOCOL_NONE_V01);
    EXPECT_EQ(convertToXalPdnLevelAuthProtocol(static_cast<AuthType>(4)),
              WDS_PROFILE_AUTH_PROTOCOL_NONE_V01);
    const auto id = convertToProfileIdentifier(static_cast<TechType>(9), 0x1AC);
    EXPECT_EQ(id.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_EQ(id.profile_index, 0xAC);
}

TEST(ConversionsTest, LowerOnlyAsciiLettersChange) {
    EXPECT_EQ(convertToLower("VzW-IMS.Mnc480.3GPPnetwork"), "vzw-ims.mnc480.3gppnetwork");
    EXPECT_EQ(convertToLower("\xC3\x89Z@[`{"), "\xC3\x89z@[`{");
}

}  // namespace
}  // namespace kiv
