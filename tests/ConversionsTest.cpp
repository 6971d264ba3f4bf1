#include <gtest/gtest.h>

#include "CapturingLog.h"
#include "Conversions.h"

namespace kiv {
namespace {

TEST(ConversionsTest, ApnTypesPermutationBothWaysDropsUnknownBits) {
    EXPECT_EQ(convertToXalApnTypeMask(0xFFF), 0xFFFu);
    EXPECT_EQ(convertToXalApnTypeMask(0x1000), 0u);
    EXPECT_EQ(convertToXalApnTypeMask(0x400), 0x800u);
    EXPECT_EQ(convertToXalApnTypeMask(0x800), 0x400u);
    EXPECT_EQ(convertToXalApnTypeMask(APN_TYPE_DEFAULT | APN_TYPE_IMS), 0x3u);
    EXPECT_EQ(convertToCommonApnTypeMask(0x3), 0x41u);
    EXPECT_EQ(convertToCommonApnTypeMask(0x1000), 0u);
    EXPECT_EQ(convertToSingleXalApnType(APN_TYPE_MMS), 0x4u);
    EXPECT_EQ(convertToSingleXalApnType(static_cast<ApnTypes>(0x3)), 0u);
    EXPECT_EQ(convertToSingleCommonApnType(0x10), 0x4u);
    EXPECT_EQ(convertToSingleCommonApnType(0x6), 0u);
    for (uint32_t bit = 1; bit <= 0x800; bit <<= 1) {
        const uint64_t modem = convertToSingleXalApnType(static_cast<ApnTypes>(bit));
        EXPECT_EQ(convertToSingleCommonApnType(modem), bit);
        EXPECT_EQ(convertToCommonApnTypeMask(convertToXalApnTypeMask(bit)), bit);
    }
}

TEST(ConversionsTest, ModemToLibraryUnknownValuesLoggedAndMapped) {
    test::ScopedLogCapture log;
    EXPECT_EQ(convertPdnType(WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01), IPType::V4V6);
    EXPECT_EQ(convertPdnType(WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01), IPType::UNKNOWN);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(convertPdnType(static_cast<wds_profile_pdn_type_enum_v01>(4)), IPType::UNKNOWN);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown profile_pdn_type_enum 4"));

    EXPECT_EQ(convertPdpType(WDS_PDP_TYPE_PDP_IPV6_V01), IPType::V6);
    EXPECT_EQ(convertPdpType(WDS_PDP_TYPE_PDP_PPP_V01), IPType::UNKNOWN);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown pdp_type_enum 1"));
    EXPECT_EQ(convertPdpType(WDS_COMMON_PDP_TYPE_PDP_IPV6_V01), IPType::V6);
    EXPECT_EQ(convertPdpType(WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01), IPType::UNKNOWN);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown pdp_type_enum 255"));

    EXPECT_EQ(convertProfileType(WDS_PROFILE_TYPE_3GPP2_V01), TechType::TECH_3GPP2);
    EXPECT_EQ(convertProfileType(WDS_PROFILE_TYPE_EPC_V01), TechType::TECH_3GPP);
    EXPECT_TRUE(log.contains(LogLevel::Debug, "Unknown tech type 2"));
    for (const auto& line : log.lines()) EXPECT_EQ(line.level, LogLevel::Debug);

    EXPECT_EQ(convertToAuthType(static_cast<unsigned char>(0xFE)), AuthType::CHAP);
    EXPECT_EQ(convertToAuthType(WDS_PROFILE_AUTH_PROTOCOL_PAP_CHAP_V01), AuthType::PAP_CHAP);
    EXPECT_EQ(convertToAuthType(static_cast<wds_profile_auth_protocol_enum_v01>(9)),
              AuthType::NONE);
}

TEST(ConversionsTest, LibraryToModemLopsidedUnknownHandling) {
    EXPECT_EQ(convertToXalCommonPdpType(IPType::UNKNOWN), 255);
    EXPECT_EQ(convertToXalCommonPdpType(static_cast<IPType>(7)),
              WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(convertToXalProfilePdnType(IPType::UNKNOWN), WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01);
    EXPECT_EQ(convertToXalProfilePdnType(IPType::V6), WDS_PROFILE_PDN_TYPE_IPV6_V01);
    EXPECT_EQ(convertToXalPdpType(IPType::UNKNOWN), WDS_PDP_TYPE_PDP_IPV4V6_V01);
    EXPECT_EQ(convertToXalPdpType(IPType::V6), WDS_PDP_TYPE_PDP_IPV6_V01);
    EXPECT_EQ(convertToXalAuthPref(static_cast<AuthType>(7)), 3);
    EXPECT_EQ(convertToXalAuthProtocol(static_cast<AuthType>(4)),
              WDS_PROFILE_AUTH_PROTOCOL_NONE_V01);
    EXPECT_EQ(convertToXalPdnLevelAuthProtocol(AuthType::CHAP), WDS_PROFILE_AUTH_PROTOCOL_CHAP_V01);

    const auto id = convertToProfileIdentifier(TechType::TECH_3GPP, 300);
    EXPECT_EQ(id.profile_type, WDS_PROFILE_TYPE_3GPP_V01);
    EXPECT_EQ(id.profile_index, 44);
    EXPECT_EQ(convertToProfileIdentifier(TechType::TECH_3GPP2, 101).profile_type,
              WDS_PROFILE_TYPE_3GPP2_V01);
    EXPECT_EQ(convertToProfileIdentifier(static_cast<TechType>(9), 1).profile_type,
              WDS_PROFILE_TYPE_3GPP_V01);
}

TEST(ConversionsTest, LowerOnlyAsciiLettersChange) {
    EXPECT_EQ(convertToLower("VzW-IMS.Mnc480.3GPPnetwork"), "vzw-ims.mnc480.3gppnetwork");
    EXPECT_EQ(convertToLower("\xC3\x89Z@[`{"), "\xC3\x89z@[`{");
    EXPECT_EQ(convertToLower(""), "");
}

}  // namespace
}  // namespace kiv
