// The modem manager's profile dictionaries (a{sv}: profile-id, apn,
// ip-type, ...) and the modem's profile records, translated both ways.
// The client reads the modem's table from dictionaries and writes requests
// as dictionaries; the simulated modem manager does the reverse.
#pragma once

#include <android-base/result.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

#include "xal/wds_v01.h"

namespace mm {

// One profile's settings as the modem's records carry them.
using Settings = wds_get_profile_settings_resp_msg_v01;

using DictValue = std::variant<int32_t, uint32_t, bool, std::string>;
using ProfileDict = std::map<std::string, DictValue>;

inline constexpr const char* kProfileIdKey = "profile-id";

// The D-Bus type of a key the interface knows ('i', 'u', 'b' or 's'), 0
// for any other key.
char keyType(const std::string& key);
// Every key known and of its type; else which one is not.
android::base::Result<void> checkDict(const ProfileDict& dict);
std::optional<int32_t> profileIndex(const ProfileDict& dict);
// A slot listed with nothing in it (no APN, name, IP type or APN types), as
// modems that only clear a slot on delete list it: no profile in effect. A
// profile with an empty APN and anything else is a profile.
bool isClearedSlot(const ProfileDict& dict);

// The settings a stored profile's dictionary gives. Fields it has no key
// for stay not valid; persistence is valid and set (the modem stores every
// profile), the roaming IP types are the home one's.
Settings settingsFromDict(const ProfileDict& dict);

// A request's fields (their valid flags set; persistence not looked at)
// merged into a stored profile (empty for a new one): what the modem must
// be given, since a write replaces the whole profile. A value the interface
// has no key for fails, naming the field, unless it is the value that
// means "nothing" (a zero timer, no APN class, no CLAT, a roaming IP type
// the same as the home one, ...).
android::base::Result<ProfileDict> mergeRequest(const Settings& request, const ProfileDict& stored);

// The first key written whose value the stored profile does not hold (the
// modem dropped it), or nothing when it holds them all. The index and the
// profile name are not compared: the name is looked at on its own.
std::optional<std::string> firstNotHeld(const ProfileDict& written, const ProfileDict& stored);

// --- The simulated side.
// The dictionary the modem manager lists for stored settings (valid fields
// only), with the keys only it knows from `extra` added.
ProfileDict dictFromSettings(const Settings& settings, int32_t index, const ProfileDict& extra);
// A written dictionary applied to stored settings as the interface does:
// every field it has a key for replaced, cleared when the key is absent;
// the others kept. `extra` receives the keys (and apn-type or auth bits)
// the modem's records cannot carry.
Settings applyDict(const Settings& stored, const ProfileDict& dict, ProfileDict& extra);

}  // namespace mm
