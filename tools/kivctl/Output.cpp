#include "Output.h"

#include <android-base/strings.h>

#include <algorithm>
#include <cctype>

#include "ProfileOptions.h"
#include "common/Errors.h"
#include "sim/SettingsJson.h"

namespace kivctl {

using nlohmann::ordered_json;

namespace {

// A cell of the table: the value, or "-" when the profile does not hold it.
template <typename T, typename Show>
std::string cell(bool present, const T& value, Show show) {
    return present ? show(value) : "-";
}

std::string joined(const std::vector<std::string>& names) {
    return names.empty() ? "-" : android::base::Join(names, ',');
}

// How many columns a cell takes: one per character of its UTF-8 text.
size_t columns(const std::string& cell) {
    return static_cast<size_t>(std::count_if(cell.begin(), cell.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

}  // namespace

std::vector<std::string> flagsOf(const ProfileView& view) {
    std::vector<std::string> flags;
    const kiv::ProfileParams& p = view.params;
    if (view.stale) flags.emplace_back("stale");
    if (p.getIsKivProfile()) flags.emplace_back("library");
    if (p.getIsIAProfile()) flags.emplace_back("attach");
    if (view.persistent) flags.emplace_back("persistent");
    if (p.hasIsEmergencySupported() && p.getIsEmergencySupported()) flags.emplace_back("emergency");
    if (p.hasIsApnDisabled() && p.getIsApnDisabled()) flags.emplace_back("disabled");
    if (p.hasIsClatEnabled() && p.getIsClatEnabled()) flags.emplace_back("clat");
    return flags;
}

nlohmann::json withoutSecrets(nlohmann::json settings) {
    for (auto& [name, value] : settings.items()) {
        if (name.find("password") != std::string::npos) value = "(hidden)";
    }
    return settings;
}

ordered_json spelledSettings(const ordered_json& settings) {
    // The modem's APN type bits, in the order kivctl lists types.
    static const std::pair<uint64_t, const char*> kModemTypes[] = {
            {0x1, "default"}, {0x4, "mms"},         {0x10, "supl"}, {0x8, "dun"},
            {0x20, "hipri"},  {0x40, "fota"},       {0x2, "ims"},   {0x80, "cbs"},
            {0x100, "ia"},    {0x200, "emergency"}, {0x800, "mcx"}, {0x400, "xcap"}};
    auto named = [](const ordered_json& value, std::initializer_list<const char*> names,
                    int offset = 0) -> ordered_json {
        if (!value.is_number_integer()) return value;
        const int64_t index = value.get<int64_t>() - offset;
        return index >= 0 && index < static_cast<int64_t>(names.size())
                       ? ordered_json(names.begin()[index])
                       : value;
    };
    ordered_json out = ordered_json::object();
    for (const auto& [name, value] : settings.items()) {
        if (name == "pdp_type") {
            out[name] = named(value, {"v4", "ppp", "v6", "v4v6"});
        } else if (name == "pdn_type") {
            out[name] = named(value, {"v4", "v6", "v4v6", "unspecified"});
        } else if (name == "override_home_pdp_type" || name == "lte_roaming_pdp_type" ||
                   name == "umts_roaming_pdp_type") {
            out[name] = value == 255 ? ordered_json("unknown") : named(value, {"v4", "v6", "v4v6"});
        } else if (name == "auth_protocol" || name == "pdn_level_auth_protocol") {
            out[name] = named(value, {"none", "pap", "chap", "pap_chap"});
        } else if (name == "authentication_preference") {
            out[name] = named(value, {"none", "pap", "chap", "pap_chap"});
        } else if (name == "apn_type_mask" && value.is_number_unsigned()) {
            ordered_json types = ordered_json::array();
            for (const auto& [bit, type] : kModemTypes) {
                if (value.get<uint64_t>() & bit) types.push_back(type);
            }
            out["apn_types"] = std::move(types);
        } else {
            out[name] = value;
        }
    }
    return out;
}

void Secrets::learn(const std::string& password) {
    if (password.empty()) return;
    kiv::MutexLock guard(mLock);
    mKnown.insert(password);
}

void Secrets::learnFromModem(const nlohmann::json& profiles) {
    if (!profiles.is_array()) return;
    for (const auto& profile : profiles) {
        if (!profile.is_object()) continue;
        for (const auto& [name, value] : profile.items()) {
            if (name.find("password") != std::string::npos && value.is_string()) {
                learn(value.get<std::string>());
            }
        }
    }
}

std::string Secrets::hide(std::string line) const {
    static const std::string kHidden = "(hidden)";
    {
        kiv::MutexLock guard(mLock);
        // Longest first: a password inside another is hidden with it.
        std::vector<std::string> known(mKnown.begin(), mKnown.end());
        std::sort(known.begin(), known.end(),
                  [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
        for (const auto& password : known) {
            for (size_t at = line.find(password); at != std::string::npos;
                 at = line.find(password, at + kHidden.size())) {
                line.replace(at, password.size(), kHidden);
            }
        }
    }
    static const std::string kLabel = "Password=";
    for (size_t at = line.find(kLabel); at != std::string::npos;
         at = line.find(kLabel, at + kLabel.size())) {
        const size_t value = at + kLabel.size();
        size_t end = value;
        // The next ",Name=" of the library's texts ends the value.
        for (;; ++end) {
            end = line.find(',', end);
            if (end == std::string::npos) break;
            size_t name = end + 1;
            if (name >= line.size() || !isupper(static_cast<unsigned char>(line[name]))) continue;
            while (name < line.size() && isalpha(static_cast<unsigned char>(line[name]))) ++name;
            if (name < line.size() && line[name] == '=') break;
        }
        if (end == std::string::npos) end = line.size();
        line.replace(value, end - value, kHidden);
    }
    return line;
}

std::string settingText(const nlohmann::json& value) {
    if (value.is_string()) return "\"" + printable(value.get<std::string>()) + "\"";
    return printable(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

ordered_json profileJson(const ProfileView& view) {
    const kiv::ProfileParams& p = view.params;
    auto optional = [](bool present, auto value) {
        return present ? ordered_json(value) : ordered_json();
    };
    ordered_json out;
    out["id"] = view.id;
    out["tech"] = techName(view.tech);
    if (view.handle) out["handle"] = "#" + std::to_string(view.handle);
    out["apn"] = p.hasApnName() ? ordered_json(xalsim::textJson(p.getApnName())) : ordered_json();
    out["homeIp"] = optional(p.hasHomeIPType(), ipName(p.getHomeIPType()));
    out["roamIp"] = optional(p.hasRoamIPType(), ipName(p.getRoamIPType()));
    out["types"] = optional(p.hasApnTypesMask(), typeNames(p.getApnTypesMask()));
    out["auth"] = optional(p.hasAuthType(), authName(p.getAuthType()));
    out["class"] = optional(p.hasApnClass(), className(p.getApnClass()));
    out["user"] =
            p.hasUserName() ? ordered_json(xalsim::textJson(p.getUserName())) : ordered_json();
    out["maxConns"] = optional(p.hasMaxPdnsConnPerBlock(), p.getMaxPdnsConnPerBlock());
    out["maxConnsTime"] = optional(p.hasMaxPdnConnTimer(), p.getMaxPdnConnTimer());
    out["waitTime"] = optional(p.hasPdnReqWaitInterval(), p.getPdnReqWaitInterval());
    out["flags"] = flagsOf(view);
    return out;
}

namespace {

template <auto Has, auto Get, typename Show>
constexpr ShownField field(const char* name, Show) {
    return {name,
            [](const kiv::ProfileParams& p) -> std::optional<std::string> {
                if (!(p.*Has)()) return std::nullopt;
                return Show()((p.*Get)());
            },
            [](const kiv::ProfileParams& a, const kiv::ProfileParams& b) {
                return (a.*Has)() == (b.*Has)() && (!(a.*Has)() || (a.*Get)() == (b.*Get)());
            }};
}

struct Text {
    std::string operator()(const std::string& value) const {
        return value.empty() ? "\"\"" : printable(value);
    }
};
struct Hidden {
    std::string operator()(const std::string&) const { return "(hidden)"; }
};
struct Ip {
    std::string operator()(kiv::IPType type) const { return ipName(type); }
};
struct Types {
    std::string operator()(uint32_t mask) const { return joined(typeNames(mask)); }
};
struct Auth {
    std::string operator()(kiv::AuthType type) const { return authName(type); }
};
struct Class {
    std::string operator()(kiv::ApnClass apnClass) const { return className(apnClass); }
};
struct OnOff {
    std::string operator()(bool on) const { return on ? "on" : "off"; }
};
struct Number {
    std::string operator()(int value) const { return std::to_string(value); }
};

}  // namespace

const std::vector<ShownField>& shownFields() {
    using P = kiv::ProfileParams;
    static const std::vector<ShownField> kFields = {
            field<&P::hasApnName, &P::getApnName>("apn", Text()),
            field<&P::hasHomeIPType, &P::getHomeIPType>("home ip", Ip()),
            field<&P::hasRoamIPType, &P::getRoamIPType>("roam ip", Ip()),
            field<&P::hasApnTypesMask, &P::getApnTypesMask>("types", Types()),
            field<&P::hasAuthType, &P::getAuthType>("auth", Auth()),
            field<&P::hasUserName, &P::getUserName>("user", Text()),
            field<&P::hasPassword, &P::getPassword>("password", Hidden()),
            field<&P::hasApnClass, &P::getApnClass>("class", Class()),
            field<&P::hasIsClatEnabled, &P::getIsClatEnabled>("clat", OnOff()),
            field<&P::hasIsApnDisabled, &P::getIsApnDisabled>("disabled", OnOff()),
            field<&P::hasIsEmergencySupported, &P::getIsEmergencySupported>("emergency", OnOff()),
            field<&P::hasMaxPdnsConnPerBlock, &P::getMaxPdnsConnPerBlock>("max conns", Number()),
            field<&P::hasMaxPdnConnTimer, &P::getMaxPdnConnTimer>("max conns time", Number()),
            field<&P::hasPdnReqWaitInterval, &P::getPdnReqWaitInterval>("wait time", Number()),
    };
    return kFields;
}

void printJson(std::ostream& out, const ordered_json& document) {
    out << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

void printHelp(std::ostream& out, bool json, const std::string& text) {
    if (json) {
        printJson(out, {{"help", text}});
    } else {
        out << text;
    }
}

void printTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        if (widths.size() < row.size()) widths.resize(row.size());
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columns(row[i]));
    }
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - columns(row[i]) + 2, ' ');
        }
        out << line << "\n";
    }
}

void printProfiles(std::ostream& out, const std::vector<ProfileView>& views) {
    const bool withHandles = std::any_of(views.begin(), views.end(),
                                         [](const ProfileView& view) { return view.handle != 0; });
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> header = {"ID",    "TECH", "APN",   "HOME", "ROAM",
                                       "TYPES", "AUTH", "CLASS", "FLAGS"};
    if (withHandles) header.insert(header.begin(), "#");
    rows.push_back(header);
    for (const auto& view : views) {
        const kiv::ProfileParams& p = view.params;
        std::vector<std::string> row = {
                std::to_string(view.id),
                techName(view.tech),
                cell(p.hasApnName(), p.getApnName(),
                     [](const std::string& apn) { return apn.empty() ? "\"\"" : printable(apn); }),
                cell(p.hasHomeIPType(), p.getHomeIPType(), ipName),
                cell(p.hasRoamIPType(), p.getRoamIPType(), ipName),
                cell(p.hasApnTypesMask(), p.getApnTypesMask(),
                     [](uint32_t mask) { return joined(typeNames(mask)); }),
                cell(p.hasAuthType(), p.getAuthType(), authName),
                cell(p.hasApnClass(), p.getApnClass(), className),
                joined(flagsOf(view))};
        if (withHandles)
            row.insert(row.begin(), view.handle ? "#" + std::to_string(view.handle) : "");
        rows.push_back(std::move(row));
    }
    printTable(out, rows);
}

void printProfile(std::ostream& out, const ProfileView& view, const nlohmann::json& modemSettings) {
    const kiv::ProfileParams& p = view.params;
    out << "profile " << view.id << " (" << techName(view.tech) << ")"
        << (view.handle ? " as #" + std::to_string(view.handle) : "") << "\n";
    std::vector<std::vector<std::string>> rows;
    auto line = [&rows](const char* name, bool present, const std::string& value) {
        if (present) rows.push_back({"  " + std::string(name), value});
    };
    // Empty text is shown as such, not as nothing.
    auto text = [](const std::string& value) { return value.empty() ? "\"\"" : printable(value); };
    line("apn", p.hasApnName(), text(p.getApnName()));
    line("home ip", p.hasHomeIPType(), ipName(p.getHomeIPType()));
    line("roam ip", p.hasRoamIPType(), ipName(p.getRoamIPType()));
    line("types", p.hasApnTypesMask(), joined(typeNames(p.getApnTypesMask())));
    line("auth", p.hasAuthType(), authName(p.getAuthType()));
    line("user", p.hasUserName(), text(p.getUserName()));
    line("password", p.hasPassword(), "(hidden)");
    line("class", p.hasApnClass(), className(p.getApnClass()));
    line("max conns", p.hasMaxPdnsConnPerBlock(), std::to_string(p.getMaxPdnsConnPerBlock()));
    line("max conns time", p.hasMaxPdnConnTimer(), std::to_string(p.getMaxPdnConnTimer()));
    line("wait time", p.hasPdnReqWaitInterval(), std::to_string(p.getPdnReqWaitInterval()));
    line("flags", true, joined(flagsOf(view)));
    printTable(out, rows);
    out << "on the modem:\n";
    rows.clear();
    const nlohmann::json shown = withoutSecrets(modemSettings);
    for (const auto& [name, value] : shown.items()) {
        if (name == "type" || name == "index") continue;
        rows.push_back({"  " + name, settingText(value)});
    }
    if (rows.empty()) rows.push_back({"  (nothing: the profile is not on the modem)"});
    printTable(out, rows);
}

}  // namespace kivctl
