// Profiles of the simulated modem as JSON objects, for its state file and
// for the modem service's answers:
//
//     {"type": "3gpp", "index": 1, "persistent": 1, "profile_name": "internet",
//      "pdp_type": 3, "apn_name": "internet", "apn_type_mask": 17}
//
// One member per field the profile holds, named as in the WDS settings
// record. Text that is not UTF-8 is kept byte for byte as {"hex": "..."}.
#pragma once

#include <android-base/result.h>

#include <nlohmann/json.hpp>
#include <string>

#include "ModemCore.h"

namespace xalsim {

nlohmann::ordered_json profileToJson(const Slot& slot, const Settings& settings);
// Text as JSON: itself when UTF-8, else {"hex": "..."}.
nlohmann::json textJson(const std::string& text);
// A profile's place and settings; an error, with the reason, for anything
// but a well-formed profile.
android::base::Result<Profile> profileFromJson(const nlohmann::json& object);

}  // namespace xalsim
