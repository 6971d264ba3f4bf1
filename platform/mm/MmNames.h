// The names and numbers of the modem manager's D-Bus interface that both
// sides here use: its bus name, objects, interfaces, errors, modem states
// and the bit sets of its profile dictionaries.
#pragma once

#include <cstdint>

namespace mm {

inline constexpr const char* kBusName = "org.freedesktop.ModemManager1";
inline constexpr const char* kManagerPath = "/org/freedesktop/ModemManager1";
inline constexpr const char* kModemPathPrefix = "/org/freedesktop/ModemManager1/Modem/";
inline constexpr const char* kSimPathPrefix = "/org/freedesktop/ModemManager1/SIM/";

inline constexpr const char* kManagerInterface = "org.freedesktop.ModemManager1";
inline constexpr const char* kModemInterface = "org.freedesktop.ModemManager1.Modem";
inline constexpr const char* kModem3gppInterface = "org.freedesktop.ModemManager1.Modem.Modem3gpp";
inline constexpr const char* kProfileManagerInterface =
        "org.freedesktop.ModemManager1.Modem.Modem3gpp.ProfileManager";
inline constexpr const char* kSimInterface = "org.freedesktop.ModemManager1.Sim";
inline constexpr const char* kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";
inline constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";

// Errors the modem manager answers with.
inline constexpr const char* kErrorInvalidArgs =
        "org.freedesktop.ModemManager1.Error.Core.InvalidArgs";
inline constexpr const char* kErrorNotFound = "org.freedesktop.ModemManager1.Error.Core.NotFound";
inline constexpr const char* kErrorConnected = "org.freedesktop.ModemManager1.Error.Core.Connected";
inline constexpr const char* kErrorWrongState =
        "org.freedesktop.ModemManager1.Error.Core.WrongState";
inline constexpr const char* kErrorUnauthorized =
        "org.freedesktop.ModemManager1.Error.Core.Unauthorized";
inline constexpr const char* kErrorUnsupported =
        "org.freedesktop.ModemManager1.Error.Core.Unsupported";
inline constexpr const char* kErrorThrottled = "org.freedesktop.ModemManager1.Error.Core.Throttled";
inline constexpr const char* kErrorFailed = "org.freedesktop.ModemManager1.Error.Core.Failed";

// Modem.State: below kStateEnabled the profile manager refuses calls.
inline constexpr int32_t kStateFailed = -1;
inline constexpr int32_t kStateDisabled = 3;
inline constexpr int32_t kStateEnabled = 6;
inline constexpr int32_t kStateRegistered = 8;

// ip-type bits.
inline constexpr uint32_t kIpV4 = 1, kIpV6 = 2, kIpV4V6 = 4, kIpNonIp = 8;
// allowed-auth bits.
inline constexpr uint32_t kAuthNone = 1, kAuthPap = 2, kAuthChap = 4;
// apn-type bits.
inline constexpr uint32_t kApnInitial = 1, kApnDefault = 2, kApnIms = 4, kApnMms = 8,
                          kApnManagement = 16, kApnEmergency = 64, kApnXcap = 4096,
                          kApnTethering = 8192;

}  // namespace mm
