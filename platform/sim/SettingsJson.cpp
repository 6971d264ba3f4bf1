#include "SettingsJson.h"

#include <cstring>
#include <limits>
#include <type_traits>

#include "base/Utf8.h"
#include "xal/wds_v01_fields.h"

namespace xalsim {

using android::base::Error;
using android::base::Result;
using nlohmann::json;

json textJson(const std::string& text) {
    if (kiv::isUtf8(text)) return text;
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : text) {
        hex += kDigits[c >> 4];
        hex += kDigits[c & 0xF];
    }
    return json{{"hex", hex}};
}

namespace {

template <typename T>
using RawOf = typename std::conditional_t<std::is_enum_v<T>, std::underlying_type<T>,
                                          std::common_type<T>>::type;

template <size_t N>
json textToJson(const char (&field)[N]) {
    return textJson(std::string(field, strnlen(field, N)));
}

template <size_t N>
bool textFromJson(const json& value, char (&field)[N]) {
    std::string text;
    if (value.is_string()) {
        text = value.get<std::string>();
    } else if (value.is_object() && value.size() == 1 && value.contains("hex") &&
               value["hex"].is_string()) {
        const std::string hex = value["hex"].get<std::string>();
        if (hex.size() % 2 != 0) return false;
        for (size_t i = 0; i < hex.size(); i += 2) {
            const auto nibble = [](char c) {
                return c >= '0' && c <= '9'   ? c - '0'
                       : c >= 'a' && c <= 'f' ? c - 'a' + 10
                       : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                              : -1;
            };
            const int high = nibble(hex[i]), low = nibble(hex[i + 1]);
            if (high < 0 || low < 0) return false;
            text += static_cast<char>(high << 4 | low);
        }
    } else {
        return false;
    }
    // A stored text may fill its array without a terminator, as a client
    // may have sent it; it may not hold one.
    if (text.size() > N || text.find('\0') != std::string::npos) return false;
    memset(field, 0, N);
    memcpy(field, text.data(), text.size());
    return true;
}

template <typename T>
bool numberFromJson(const json& value, T& field) {
    using Raw = RawOf<T>;
    if (value.is_number_unsigned()) {
        const auto number = value.get<uint64_t>();
        if (number > static_cast<uint64_t>(std::numeric_limits<Raw>::max())) return false;
        field = static_cast<T>(static_cast<Raw>(number));
        return true;
    }
    if (value.is_number_integer()) {
        const auto number = value.get<int64_t>();
        if constexpr (std::is_unsigned_v<Raw>) {
            if (number < 0) return false;
        }
        if (number < static_cast<int64_t>(std::numeric_limits<Raw>::min()) ||
            (number > 0 && static_cast<uint64_t>(number) >
                                   static_cast<uint64_t>(std::numeric_limits<Raw>::max()))) {
            return false;
        }
        field = static_cast<T>(static_cast<Raw>(number));
        return true;
    }
    return false;
}

template <typename T>
json numberToJson(T value) {
    return static_cast<RawOf<T>>(value);
}

}  // namespace

nlohmann::ordered_json profileToJson(const Slot& slot, const Settings& s) {
    nlohmann::ordered_json out;
    out["type"] = typeName(slot.first);
    out["index"] = slot.second;
    if (s.persistent_valid) out["persistent"] = s.persistent;
#define XALSIM_TO_JSON(kind, name) \
    if (s.name##_valid) out[#name] = XALSIM_TO_JSON_##kind(name);
#define XALSIM_TO_JSON_STR(name) textToJson(s.name)
#define XALSIM_TO_JSON_NUM(name) numberToJson(s.name)
    WDS_V01_SETTINGS_FIELDS(XALSIM_TO_JSON)
#undef XALSIM_TO_JSON_NUM
#undef XALSIM_TO_JSON_STR
#undef XALSIM_TO_JSON
    return out;
}

Result<Profile> profileFromJson(const json& object) {
    auto fail = [](const std::string& why) -> Result<Profile> { return Error() << why; };
    if (!object.is_object()) return fail("a profile must be an object");
    if (!object.contains("type") || !object["type"].is_string()) {
        return fail("a profile needs \"type\": \"3gpp\" or \"3gpp2\"");
    }
    const std::string type = object["type"].get<std::string>();
    int32_t profileType;
    int first;
    if (type == "3gpp") {
        profileType = WDS_PROFILE_TYPE_3GPP_V01;
        first = kFirst3gppIndex;
    } else if (type == "3gpp2") {
        profileType = WDS_PROFILE_TYPE_3GPP2_V01;
        first = kFirst3gpp2Index;
    } else {
        return fail("unknown profile type \"" + type + "\" (3gpp or 3gpp2)");
    }
    uint8_t index = 0;
    if (!object.contains("index") || !numberFromJson(object["index"], index) || index < first) {
        return fail("a " + type + " profile needs an \"index\" from " + std::to_string(first) +
                    " to 255");
    }
    const std::string where = type + " " + std::to_string(index);
    Settings s = emptySettings();
    for (const auto& [name, value] : object.items()) {
        bool known = true, good = true;
        if (name == "type" || name == "index") {
            continue;
        } else if (name == "persistent") {
            s.persistent_valid = 1;
            good = numberFromJson(value, s.persistent);
        }
#define XALSIM_FROM_JSON(kind, field)                 \
    else if (name == #field) {                        \
        s.field##_valid = 1;                          \
        good = XALSIM_FROM_JSON_##kind(value, field); \
    }
#define XALSIM_FROM_JSON_STR(value, field) textFromJson(value, s.field)
#define XALSIM_FROM_JSON_NUM(value, field) numberFromJson(value, s.field)
        WDS_V01_SETTINGS_FIELDS(XALSIM_FROM_JSON)
#undef XALSIM_FROM_JSON_NUM
#undef XALSIM_FROM_JSON_STR
#undef XALSIM_FROM_JSON
        else {
            known = false;
        }
        if (!known) return fail("profile " + where + ": unknown field \"" + name + "\"");
        if (!good) {
            return fail("profile " + where + ": bad value " + value.dump() + " for \"" + name +
                        "\"");
        }
    }
    return Profile{static_cast<wds_profile_type_enum_v01>(profileType), index, s};
}

}  // namespace xalsim
