// Saving and loading the simulated modem's profile table.
//
// The file is plain text:
//
//     # comment
//     [profile 3gpp 1]
//     persistent = 1
//     profile_name = "internet"
//     pdp_type = 3
//     apn_type_mask = 0x1
//
// One section per profile, "3gpp" or "3gpp2" and its index; one line per
// field the profile holds, named as in the WDS settings record. Strings are
// double-quoted with \\, \", \n, \t and \xHH escapes; numbers are decimal or
// 0x-prefixed hexadecimal.

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <type_traits>

#include "SimModemImpl.h"

namespace xalsim {

namespace {

template <typename T>
using RawOf = typename std::conditional_t<std::is_enum_v<T>, std::underlying_type<T>,
                                          std::common_type<T>>::type;

std::string quote(const char* text, size_t size) {
    std::string out = "\"";
    for (size_t i = 0; i < size && text[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '\\' || c == '"') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c >= 0x7F) {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

bool unquote(const std::string& value, std::string& out) {
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') return false;
    out.clear();
    for (size_t i = 1; i + 1 < value.size(); ++i) {
        char c = value[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i + 1 > value.size() - 1) return false;
        switch (value[i]) {
            case '\\':
            case '"':
                out += value[i];
                break;
            case 'n':
                out += '\n';
                break;
            case 't':
                out += '\t';
                break;
            case 'x': {
                if (i + 2 >= value.size() - 1 + 1) return false;
                const std::string hex = value.substr(i + 1, 2);
                char* end = nullptr;
                const long code = strtol(hex.c_str(), &end, 16);
                if (hex.size() != 2 || *end != '\0' || code == 0) return false;
                out += static_cast<char>(code);
                i += 2;
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

template <typename T>
std::string number(T value) {
    using Raw = RawOf<T>;
    const Raw raw = static_cast<Raw>(value);
    if constexpr (std::is_same_v<Raw, uint64_t>) {
        char hex[24];
        snprintf(hex, sizeof(hex), "0x%" PRIX64, raw);
        return hex;
    } else {
        return std::to_string(raw);
    }
}

template <typename T>
bool parseNumber(const std::string& text, T& field) {
    using Raw = RawOf<T>;
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    if constexpr (std::is_unsigned_v<Raw>) {
        if (text[0] == '-') return false;
        const unsigned long long value = strtoull(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0' || value > std::numeric_limits<Raw>::max()) return false;
        field = static_cast<T>(static_cast<Raw>(value));
    } else {
        const long long value = strtoll(text.c_str(), &end, 0);
        if (errno != 0 || *end != '\0' || value < std::numeric_limits<Raw>::min() ||
            value > std::numeric_limits<Raw>::max()) {
            return false;
        }
        field = static_cast<T>(static_cast<Raw>(value));
    }
    return true;
}

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    const size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

void writeProfile(std::ostream& os, int32_t type, uint8_t index, const Settings& s) {
    os << "[profile " << (type == WDS_PROFILE_TYPE_3GPP2_V01 ? "3gpp2" : "3gpp") << " "
       << static_cast<int>(index) << "]\n";
    if (s.persistent_valid) os << "persistent = " << static_cast<int>(s.persistent) << "\n";
#define XALSIM_WRITE(kind, name) \
    if (s.name##_valid) os << #name " = " << XALSIM_WRITE_##kind(name) << "\n";
#define XALSIM_WRITE_STR(name) quote(s.name, sizeof(s.name))
#define XALSIM_WRITE_NUM(name) number(s.name)
    XALSIM_SETTINGS_FIELDS(XALSIM_WRITE)
#undef XALSIM_WRITE_NUM
#undef XALSIM_WRITE_STR
#undef XALSIM_WRITE
    os << "\n";
}

// Sets one field from its text; false when the name or value is bad.
bool setField(Settings& s, const std::string& name, const std::string& value) {
    if (name == "persistent") {
        s.persistent_valid = 1;
        return parseNumber(value, s.persistent);
    }
#define XALSIM_READ(kind, field)          \
    if (name == #field) {                 \
        s.field##_valid = 1;              \
        return XALSIM_READ_##kind(field); \
    }
#define XALSIM_READ_STR(field) readText(value, s.field)
#define XALSIM_READ_NUM(field) parseNumber(value, s.field)
    auto readText = [](const std::string& text, auto& array) {
        std::string plain;
        if (!unquote(text, plain) || plain.size() >= sizeof(array)) return false;
        memset(array, 0, sizeof(array));
        memcpy(array, plain.data(), plain.size());
        return true;
    };
    XALSIM_SETTINGS_FIELDS(XALSIM_READ)
#undef XALSIM_READ_NUM
#undef XALSIM_READ_STR
#undef XALSIM_READ
    return false;
}

}  // namespace

bool SimModem::save(const std::string& path, std::string* error) const {
    std::ostringstream os;
    os << "# libkivr simulated modem profile table\n\n";
    {
        std::lock_guard<std::mutex> guard(mImpl->lock);
        for (const auto& [key, settings] : mImpl->table) {
            writeProfile(os, key.first, key.second, settings);
        }
    }
    // Written beside the target and renamed over it: never half-written.
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << os.str();
        out.flush();
        if (!out) {
            if (error) *error = "cannot write " + temporary;
            return false;
        }
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        if (error) *error = "cannot replace " + path + ": " + strerror(errno);
        remove(temporary.c_str());
        return false;
    }
    return true;
}

bool SimModem::load(const std::string& path, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        if (error) *error = "cannot open " + path;
        return false;
    }
    std::map<ProfileKey, Settings> table;
    Settings* current = nullptr;
    std::string line;
    int number = 0;
    auto fail = [&](const std::string& why) {
        if (error) *error = path + ":" + std::to_string(number) + ": " + why;
        return false;
    };
    while (std::getline(in, line)) {
        ++number;
        line = trim(line);
        if (line.empty() || line[0] == '#') continue;
        if (line.front() == '[') {
            char kind[8] = {};
            int index = -1;
            char close = 0;
            if (sscanf(line.c_str(), "[profile %7s %d%c", kind, &index, &close) != 3 ||
                close != ']') {
                return fail("bad section '" + line + "'");
            }
            const std::string type(kind);
            int32_t profileType;
            if (type == "3gpp" && index >= kFirst3gppIndex && index <= 255) {
                profileType = WDS_PROFILE_TYPE_3GPP_V01;
            } else if (type == "3gpp2" && index >= kFirst3gpp2Index && index <= 255) {
                profileType = WDS_PROFILE_TYPE_3GPP2_V01;
            } else {
                return fail("bad profile type or index in '" + line + "'");
            }
            auto [it, inserted] = table.emplace(
                    ProfileKey{profileType, static_cast<uint8_t>(index)}, emptySettings());
            if (!inserted) return fail("profile listed twice: '" + line + "'");
            current = &it->second;
            continue;
        }
        const size_t equals = line.find('=');
        if (current == nullptr || equals == std::string::npos) {
            return fail("expected '[profile TYPE INDEX]' or 'field = value'");
        }
        const std::string name = trim(line.substr(0, equals));
        const std::string value = trim(line.substr(equals + 1));
        if (!setField(*current, name, value)) return fail("bad field '" + line + "'");
    }
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->table = std::move(table);
    mImpl->touch();
    return true;
}

}  // namespace xalsim
