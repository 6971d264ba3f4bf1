#include "ProfileOptions.h"

#include <android-base/strings.h>

#include <algorithm>
#include <map>

#include "base/Utf8.h"
#include "common/Errors.h"
#include "xal/wds_v01.h"

namespace kivctl {

using kiv::TechType;

namespace {

template <typename T>
struct Choice {
    const char* name;
    T value;
};

const Choice<kiv::IPType> kIPTypes[] = {
        {"v4", kiv::IPType::V4}, {"v6", kiv::IPType::V6}, {"v4v6", kiv::IPType::V4V6}};
const Choice<kiv::AuthType> kAuthTypes[] = {{"none", kiv::AuthType::NONE},
                                            {"pap", kiv::AuthType::PAP},
                                            {"chap", kiv::AuthType::CHAP},
                                            {"pap_chap", kiv::AuthType::PAP_CHAP}};
const Choice<kiv::ApnClass> kClasses[] = {{"ims", kiv::ApnClass::IMS},
                                          {"admn", kiv::ApnClass::ADMN},
                                          {"inet", kiv::ApnClass::INET},
                                          {"app", kiv::ApnClass::APP}};
const Choice<bool> kSwitches[] = {{"on", true}, {"off", false}};
const Choice<bool> kAnswers[] = {{"yes", true}, {"no", false}};
const Choice<TechType> kTechs[] = {{"3gpp", TechType::TECH_3GPP}, {"3gpp2", TechType::TECH_3GPP2}};
const Choice<uint32_t> kApnTypes[] = {
        {"default", kiv::APN_TYPE_DEFAULT}, {"mms", kiv::APN_TYPE_MMS},
        {"supl", kiv::APN_TYPE_SUPL},       {"dun", kiv::APN_TYPE_DUN},
        {"hipri", kiv::APN_TYPE_HIPRI},     {"fota", kiv::APN_TYPE_FOTA},
        {"ims", kiv::APN_TYPE_IMS},         {"cbs", kiv::APN_TYPE_CBS},
        {"ia", kiv::APN_TYPE_IA},           {"emergency", kiv::APN_TYPE_EMERGENCY},
        {"mcx", kiv::APN_TYPE_MCX},         {"xcap", kiv::APN_TYPE_XCAP}};

template <typename T, size_t N>
T choose(const std::string& text, const std::string& option, const Choice<T> (&choices)[N]) {
    for (const auto& choice : choices) {
        if (text == choice.name) return choice.value;
    }
    std::string names;
    for (const auto& choice : choices)
        names += (names.empty() ? "" : "|") + std::string(choice.name);
    throw UsageError("bad value " + quote(text) + " for " + option + " (" + names + ")");
}

template <typename T, size_t N>
std::string nameOf(T value, const Choice<T> (&choices)[N]) {
    for (const auto& choice : choices) {
        if (value == choice.value) return choice.name;
    }
    return std::to_string(static_cast<long long>(value));
}

// The options a 3GPP2 profile does not have.
constexpr const char* k3gppOnly[] = {"--roam-ip",   "--disabled",       "--emergency",
                                     "--max-conns", "--max-conns-time", "--wait-time"};

}  // namespace

std::string readTextOption(const std::string& text, const std::string& option, size_t limit) {
    if (!kiv::isUtf8(text)) throw UsageError("option " + option + " is not UTF-8 text");
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        // C0, DEL, and C1 (U+0080 to U+009F, in UTF-8 0xC2 0x80 to 0xC2 0x9F).
        const size_t width = c == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0 ? 2
                             : c < 0x20 || c == 0x7F                                     ? 1
                                                                                         : 0;
        if (width != 0) {
            throw UsageError("option " + option + " holds a control character (" +
                             quote(text.substr(i, width)) + ")");
        }
    }
    if (text.size() > limit) {
        throw UsageError("option " + option + " holds " + std::to_string(text.size()) +
                         " bytes; the modem holds at most " + std::to_string(limit));
    }
    return text;
}

const std::vector<KnownOption>& profileOptions() {
    static const std::vector<KnownOption> kOptions = {
            {"--apn", "NAME", "the access point name (at most 150 bytes; --apn= for none)", true},
            {"--user", "NAME", "user name (at most 127 bytes; --user= clears it)", true},
            {"--password", "TEXT", "password (at most 127 bytes; --password= clears it)", true},
            {"--auth", "none|pap|chap|pap_chap", "authentication"},
            {"--ip", "v4|v6|v4v6", "home IP type"},
            {"--roam-ip", "v4|v6|v4v6", "roaming IP type (3GPP)"},
            {"--types", "LIST",
             "APN types: default,mms,supl,dun,hipri,fota,ims,cbs,ia,emergency,mcx,xcap,\n"
             "                        or none"},
            {"--class", "ims|admn|inet|app", "APN class"},
            {"--clat", "on|off", "464XLAT"},
            {"--disabled", "on|off", "the APN disabled (3GPP)"},
            {"--emergency", "on|off", "emergency calls supported (3GPP)"},
            {"--max-conns", "N", "PDN connections per block, 0 to 65535 (3GPP)"},
            {"--max-conns-time", "SECONDS", "their timer, 0 to 65535 (3GPP)"},
            {"--wait-time", "SECONDS", "wait between PDN requests, 0 to 65535 (3GPP)"},
    };
    return kOptions;
}

const std::vector<KnownOption>& filterOptions() {
    static const std::vector<KnownOption> kOptions = {
            {"--id", "N", "the modem profile id, 1 to 255"},
            {"--tech", "3gpp|3gpp2", "the technology"},
            {"--kiv", "yes|no", "made by the library"},
            {"--attach-profile", "yes|no", "the library's LTE attach profile"},
            {"--home-subset", nullptr, "home IP type: the profile's may hold more"},
            {"--home-superset", nullptr, "home IP type: the profile's may hold less"},
            {"--roam-subset", nullptr, "roaming IP type: the profile's may hold more"},
            {"--roam-superset", nullptr, "roaming IP type: the profile's may hold less"},
            {"--apn-subset", nullptr, "the APN name is part of the profile's"},
            {"--types-subset", nullptr, "the profile may have more APN types"},
    };
    return kOptions;
}

std::vector<KnownOption> optionsOf(std::initializer_list<std::vector<KnownOption>> lists) {
    std::vector<KnownOption> all;
    for (const auto& list : lists) all.insert(all.end(), list.begin(), list.end());
    return all;
}

std::optional<TechType> techOption(const Arguments& args) {
    if (auto tech = args.value("--tech")) return choose(*tech, "--tech", kTechs);
    return std::nullopt;
}

void readProfileOptions(const Arguments& args, kiv::ProfileParams& p, TechType tech,
                        bool offIsUnset) {
    if (tech == TechType::TECH_3GPP2) {
        for (const char* option : k3gppOnly) {
            if (args.has(option)) {
                throw UsageError("option " + std::string(option) + " is not for 3GPP2 profiles");
            }
        }
    }
    if (auto v = args.value("--apn"))
        p.setApnName(readTextOption(*v, "--apn", WDS_APN_NAME_MAX_V01));
    if (auto v = args.value("--user")) {
        p.setUserName(readTextOption(*v, "--user", WDS_USER_NAME_MAX_V01));
    }
    if (auto v = args.value("--password")) {
        p.setPassword(readTextOption(*v, "--password", WDS_PASSWORD_MAX_V01));
    }
    if (auto v = args.value("--auth")) p.setAuthType(choose(*v, "--auth", kAuthTypes));
    if (auto v = args.value("--ip")) p.setHomeIPType(choose(*v, "--ip", kIPTypes));
    if (auto v = args.value("--roam-ip")) p.setRoamIPType(choose(*v, "--roam-ip", kIPTypes));
    if (auto v = args.value("--types")) {
        uint32_t mask = 0;
        for (const auto& name : android::base::Split(*v, ",")) {
            if (name == "none" && *v == "none") break;  // no type at all
            auto bit = apnTypeByName(name);
            if (!bit) throw UsageError("unknown APN type " + quote(name) + " for --types");
            mask |= *bit;
        }
        p.setApnTypesMask(mask);
    }
    if (auto v = args.value("--class")) p.setApnClass(choose(*v, "--class", kClasses));
    auto onOff = [&](const char* option, void (kiv::ProfileParams::*set)(bool)) {
        auto v = args.value(option);
        if (!v) return;
        const bool on = choose(*v, option, kSwitches);
        if (on || !offIsUnset) (p.*set)(on);
    };
    onOff("--clat", &kiv::ProfileParams::setIsClatEnabled);
    onOff("--disabled", &kiv::ProfileParams::setIsApnDisabled);
    onOff("--emergency", &kiv::ProfileParams::setIsEmergencySupported);
    if (auto v = args.value("--max-conns")) {
        p.setMaxPdnsConnPerBlock(parseNumber(*v, "--max-conns", 0, 65535));
    }
    if (auto v = args.value("--max-conns-time")) {
        p.setMaxPdnConnTimer(parseNumber(*v, "--max-conns-time", 0, 65535));
    }
    if (auto v = args.value("--wait-time")) {
        p.setPdnReqWaitInterval(parseNumber(*v, "--wait-time", 0, 65535));
    }
}

void readFilterOptions(const Arguments& args, kiv::FilterProfileParams& filter, bool ignoreNames) {
    // A filter may ask for what a 3GPP2 profile lacks: such a profile just
    // does not match. A switch asked off is left to offSwitches().
    readProfileOptions(args, filter, TechType::TECH_3GPP, /*offIsUnset=*/true);
    if (auto v = args.value("--id")) filter.setFilterByProfileId(parseNumber(*v, "--id", 1, 255));
    if (auto tech = techOption(args)) filter.setFilterByTechType(*tech);
    if (auto v = args.value("--kiv"); v && !ignoreNames) {
        filter.setFilterByIsKivProfile(choose(*v, "--kiv", kAnswers));
    }
    if (auto v = args.value("--attach-profile"); v && !ignoreNames) {
        filter.setFilterByIsIAProfile(choose(*v, "--attach-profile", kAnswers));
    }
    const std::pair<const char*, uint32_t> kCriteria[] = {
            {"--home-subset", kiv::HomeIPSubset}, {"--home-superset", kiv::HomeIPSuperset},
            {"--roam-subset", kiv::RoamIPSubset}, {"--roam-superset", kiv::RoamIPSuperset},
            {"--apn-subset", kiv::ApnNameSubset}, {"--types-subset", kiv::ApnTypeBitmaskSubset}};
    for (const auto& [name, bit] : kCriteria) {
        if (args.has(name)) filter.addFilterMatchCriteria(bit);
    }
}

std::string techName(TechType tech) {
    return nameOf(tech, kTechs);
}
std::string ipName(kiv::IPType type) {
    return type == kiv::IPType::UNKNOWN ? "unknown" : nameOf(type, kIPTypes);
}
std::string authName(kiv::AuthType type) {
    return nameOf(type, kAuthTypes);
}
std::string className(kiv::ApnClass apnClass) {
    return nameOf(apnClass, kClasses);
}

std::vector<std::string> typeNames(uint32_t mask) {
    std::vector<std::string> names;
    for (const auto& type : kApnTypes) {
        if (mask & type.value) names.emplace_back(type.name);
    }
    return names;
}

std::optional<uint32_t> apnTypeByName(const std::string& name) {
    const std::string lower = android::base::Trim(name);
    std::string folded;
    for (char c : lower) folded += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    if (folded == "*") return 0xFFF;
    for (const auto& type : kApnTypes) {
        if (folded == type.name) return type.value;
    }
    return std::nullopt;
}

std::string normalizedApn(const std::string& apn) {
    std::string lower = apn;
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return lower;
}

bool heldOff(const Arguments& args, const kiv::ProfileParams& params) {
    const struct {
        const char* option;
        bool (kiv::ProfileParams::*has)() const;
        bool (kiv::ProfileParams::*get)() const;
    } kSwitchFields[] = {
            {"--clat", &kiv::ProfileParams::hasIsClatEnabled,
             &kiv::ProfileParams::getIsClatEnabled},
            {"--disabled", &kiv::ProfileParams::hasIsApnDisabled,
             &kiv::ProfileParams::getIsApnDisabled},
            {"--emergency", &kiv::ProfileParams::hasIsEmergencySupported,
             &kiv::ProfileParams::getIsEmergencySupported},
    };
    for (const auto& field : kSwitchFields) {
        if (args.value(field.option) != std::optional<std::string>("off")) continue;
        if ((params.*field.has)() && (params.*field.get)()) return false;
    }
    return true;
}

}  // namespace kivctl
