// The simulated modem's profile table: what one profile holds, where it
// stands, the table a new modem ships with, and what a power-on keeps.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "xal/wds_v01.h"

namespace xalsim {

// The stored settings of one profile: the fields of the settings response
// (the response header unused).
using Settings = wds_get_profile_settings_resp_msg_v01;

// A place in the table: (profile type, index).
using Slot = std::pair<int32_t, uint8_t>;
using Table = std::map<Slot, Settings>;

// Error codes the simulated service puts in a failure response.
enum SimError : uint32_t {
    kErrMalformedMessage = 0x01,
    kErrNoFreeProfile = 0x02,
    kErrInvalidProfile = 0x03,
    kErrInvalidProfileType = 0x04,
    // The change could not be stored; nothing changed. A create, modify or
    // delete response refused so carries the system's error number of the
    // failed save (errno) as its extended error code, when there is one.
    kErrStorage = 0x05,
    kErrInjected = 0xFF,
};

inline constexpr uint8_t kFirst3gppIndex = 1;
inline constexpr uint8_t kFirst3gpp2Index = 101;
inline constexpr int kMaxCapacity3gpp = 255;   // indexes 1..255
inline constexpr int kMaxCapacity3gpp2 = 155;  // indexes 101..255

struct Profile {
    wds_profile_type_enum_v01 type;
    uint8_t index;
    Settings settings;  // persistent_valid / persistent carry persistence
};

// Helpers to fill settings in tests and tools.
template <size_t N>
void setText(uint8_t& valid, char (&field)[N], const std::string& text) {
    valid = 1;
    size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (size_t i = 0; i < N; ++i) field[i] = i < n ? text[i] : '\0';
}
Settings emptySettings();
// A 3GPP profile as carriers ship them.
Settings make3gppSettings(const std::string& profileName, const std::string& apn,
                          wds_pdp_type_enum_v01 pdpType, uint64_t apnTypeMask, bool persistent);
// A 3GPP2 profile.
Settings make3gpp2Settings(const std::string& apn, wds_profile_pdn_type_enum_v01 pdnType,
                           bool persistent);
// The table a new modem ships with: "internet", "ims" and "mms" (3GPP) and
// "cdma.internet" (3GPP2), all persistent.
Table factoryTable();
// What a modem keeps when it powers on: the profiles it stores persistently.
void keepPersistent(Table& table);
// The profile types a modem holds: 3GPP and 3GPP2.
inline bool knownProfileType(int32_t type) {
    return type == WDS_PROFILE_TYPE_3GPP_V01 || type == WDS_PROFILE_TYPE_3GPP2_V01;
}
// "3gpp" or "3gpp2", the names used in files and on the command line.
const char* typeName(int32_t profileType);

}  // namespace xalsim
