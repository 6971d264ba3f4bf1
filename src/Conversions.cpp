#include "Conversions.h"

#include <iterator>

#include "LogWrapper.h"

namespace kiv {

namespace {

// Modem APN type bit of each library bit, indexed by the library bit's position.
constexpr uint64_t kModemApnTypeBits[] = {0x1, 0x4,  0x10,  0x8,   0x20,  0x40,
                                          0x2, 0x80, 0x100, 0x200, 0x800, 0x400};
constexpr size_t kApnTypeBitCount = std::size(kModemApnTypeBits);

AuthType authTypeFromProtocol(uint32_t value) {
    return (value >= 1 && value <= 3) ? static_cast<AuthType>(value) : AuthType::NONE;
}

wds_profile_auth_protocol_enum_v01 protocolFromAuthType(AuthType type) {
    const auto value = static_cast<uint32_t>(type);
    return (value >= 1 && value <= 3) ? static_cast<wds_profile_auth_protocol_enum_v01>(value)
                                      : WDS_PROFILE_AUTH_PROTOCOL_NONE_V01;
}

}  // namespace

TechType convertProfileType(wds_profile_type_enum_v01 type) {
    switch (type) {
        case WDS_PROFILE_TYPE_3GPP_V01:
            return TechType::TECH_3GPP;
        case WDS_PROFILE_TYPE_3GPP2_V01:
            return TechType::TECH_3GPP2;
        default:
            KLOGD("Unknown tech type %d", static_cast<int>(type));
            return TechType::TECH_3GPP;
    }
}

IPType convertPdnType(wds_profile_pdn_type_enum_v01 type) {
    switch (type) {
        case WDS_PROFILE_PDN_TYPE_IPV4_V01:
            return IPType::V4;
        case WDS_PROFILE_PDN_TYPE_IPV6_V01:
            return IPType::V6;
        case WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01:
            return IPType::V4V6;
        case WDS_PROFILE_PDN_TYPE_UNSPECIFIED_V01:
            return IPType::UNKNOWN;
        default:
            KLOGD("Unknown profile_pdn_type_enum %d", static_cast<int>(type));
            return IPType::UNKNOWN;
    }
}

IPType convertPdpType(wds_pdp_type_enum_v01 type) {
    switch (type) {
        case WDS_PDP_TYPE_PDP_IPV4_V01:
            return IPType::V4;
        case WDS_PDP_TYPE_PDP_IPV6_V01:
            return IPType::V6;
        case WDS_PDP_TYPE_PDP_IPV4V6_V01:
            return IPType::V4V6;
        default:
            KLOGD("Unknown pdp_type_enum %d", static_cast<int>(type));
            return IPType::UNKNOWN;
    }
}

IPType convertPdpType(wds_common_pdp_type_enum_v01 type) {
    switch (type) {
        case WDS_COMMON_PDP_TYPE_PDP_IPV4_V01:
            return IPType::V4;
        case WDS_COMMON_PDP_TYPE_PDP_IPV6_V01:
            return IPType::V6;
        case WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01:
            return IPType::V4V6;
        default:
            KLOGD("Unknown pdp_type_enum %d", static_cast<int>(type));
            return IPType::UNKNOWN;
    }
}

AuthType convertToAuthType(unsigned char authPreference) {
    return static_cast<AuthType>(authPreference & 3u);
}

AuthType convertToAuthType(wds_profile_auth_protocol_enum_v01 protocol) {
    return authTypeFromProtocol(static_cast<uint32_t>(protocol));
}

wds_profile_identifier_type_v01 convertToProfileIdentifier(TechType techType, int profileId) {
    wds_profile_identifier_type_v01 identifier{};
    identifier.profile_type = techType == TechType::TECH_3GPP2 ? WDS_PROFILE_TYPE_3GPP2_V01
                                                               : WDS_PROFILE_TYPE_3GPP_V01;
    identifier.profile_index = static_cast<uint8_t>(static_cast<unsigned>(profileId) & 0xFFu);
    return identifier;
}

uint64_t convertToSingleXalApnType(ApnTypes bit) {
    for (size_t i = 0; i < kApnTypeBitCount; ++i) {
        if (static_cast<uint32_t>(bit) == (1u << i)) return kModemApnTypeBits[i];
    }
    return 0;
}

uint64_t convertToXalApnTypeMask(uint32_t apnTypes) {
    uint64_t modemMask = 0;
    for (size_t i = 0; i < kApnTypeBitCount; ++i) {
        if (apnTypes & (1u << i)) modemMask |= kModemApnTypeBits[i];
    }
    return modemMask;
}

uint32_t convertToSingleCommonApnType(uint64_t modemBit) {
    for (size_t i = 0; i < kApnTypeBitCount; ++i) {
        if (modemBit == kModemApnTypeBits[i]) return 1u << i;
    }
    return 0;
}

uint32_t convertToCommonApnTypeMask(uint64_t modemMask) {
    uint32_t apnTypes = 0;
    for (size_t i = 0; i < kApnTypeBitCount; ++i) {
        if (modemMask & kModemApnTypeBits[i]) apnTypes |= 1u << i;
    }
    return apnTypes;
}

wds_profile_pdn_type_enum_v01 convertToXalProfilePdnType(IPType type) {
    switch (type) {
        case IPType::V4:
            return WDS_PROFILE_PDN_TYPE_IPV4_V01;
        case IPType::V6:
            return WDS_PROFILE_PDN_TYPE_IPV6_V01;
        default:
            return WDS_PROFILE_PDN_TYPE_IPV4_IPV6_V01;
    }
}

wds_pdp_type_enum_v01 convertToXalPdpType(IPType type) {
    switch (type) {
        case IPType::V4:
            return WDS_PDP_TYPE_PDP_IPV4_V01;
        case IPType::V6:
            return WDS_PDP_TYPE_PDP_IPV6_V01;
        default:
            return WDS_PDP_TYPE_PDP_IPV4V6_V01;
    }
}

wds_common_pdp_type_enum_v01 convertToXalCommonPdpType(IPType type) {
    switch (type) {
        case IPType::UNKNOWN:
            return WDS_COMMON_PDP_TYPE_PDP_UNKNOWN_V01;
        case IPType::V4:
            return WDS_COMMON_PDP_TYPE_PDP_IPV4_V01;
        case IPType::V6:
            return WDS_COMMON_PDP_TYPE_PDP_IPV6_V01;
        default:
            return WDS_COMMON_PDP_TYPE_PDP_IPV4V6_V01;
    }
}

uint8_t convertToXalAuthPref(AuthType type) {
    return static_cast<uint8_t>(static_cast<uint32_t>(type) & 3u);
}

wds_profile_auth_protocol_enum_v01 convertToXalAuthProtocol(AuthType type) {
    return protocolFromAuthType(type);
}

wds_profile_auth_protocol_enum_v01 convertToXalPdnLevelAuthProtocol(AuthType type) {
    return protocolFromAuthType(type);
}

std::string convertToLower(const std::string& text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    return lower;
}

}  // namespace kiv
