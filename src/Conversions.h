// Translations between the library's enumerations and the modem's values.
#pragma once

#include <cstdint>
#include <string>

#include "ProfileParams.h"
#include "xal/wds_v01.h"

namespace kiv {

// Modem to library. The three that meet an unknown modem value log it and
// give UNKNOWN (or 3GPP).
TechType convertProfileType(wds_profile_type_enum_v01 type);
IPType convertPdnType(wds_profile_pdn_type_enum_v01 type);
IPType convertPdpType(wds_pdp_type_enum_v01 type);
IPType convertPdpType(wds_common_pdp_type_enum_v01 type);
AuthType convertToAuthType(unsigned char authPreference);
AuthType convertToAuthType(wds_profile_auth_protocol_enum_v01 protocol);

// A profile's name on the modem: type 1 for 3GPP2, 0 otherwise; index = the
// low 8 bits of the id.
wds_profile_identifier_type_v01 convertToProfileIdentifier(TechType techType, int profileId);

// APN types: the library's twelve bits are a permutation of the modem's low
// twelve bits. Bits outside them vanish in either direction.
uint64_t convertToSingleXalApnType(ApnTypes bit);
uint64_t convertToXalApnTypeMask(uint32_t apnTypes);
uint32_t convertToSingleCommonApnType(uint64_t modemBit);
uint32_t convertToCommonApnTypeMask(uint64_t modemMask);

// Library to modem.
wds_profile_pdn_type_enum_v01 convertToXalProfilePdnType(IPType type);
wds_pdp_type_enum_v01 convertToXalPdpType(IPType type);
wds_common_pdp_type_enum_v01 convertToXalCommonPdpType(IPType type);
uint8_t convertToXalAuthPref(AuthType type);
wds_profile_auth_protocol_enum_v01 convertToXalAuthProtocol(AuthType type);
wds_profile_auth_protocol_enum_v01 convertToXalPdnLevelAuthProtocol(AuthType type);

// ASCII 'A' to 'Z' lower-cased; every other byte kept; no locale.
std::string convertToLower(const std::string& text);

}  // namespace kiv
