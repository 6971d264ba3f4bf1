#include "ApnsConf.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "ProfileOptions.h"

namespace kivctl {

namespace {

struct XmlDocDeleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

std::optional<std::string> attribute(xmlNode* node, const char* name) {
    xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
    if (value == nullptr) return std::nullopt;
    std::string text(reinterpret_cast<const char*>(value));
    xmlFree(value);
    return text;
}

// Every APN type but those an entry must name to get: attach and emergency.
constexpr uint32_t kAnyUse = 0xFFF & ~(kiv::APN_TYPE_IA | kiv::APN_TYPE_EMERGENCY);

std::optional<kiv::IPType> protocolByName(const std::string& name) {
    if (name == "IP") return kiv::IPType::V4;
    if (name == "IPV6") return kiv::IPType::V6;
    if (name == "IPV4V6") return kiv::IPType::V4V6;
    return std::nullopt;
}

std::optional<int32_t> number(const std::string& text) {
    int32_t value = 0;
    if (!android::base::ParseInt(text, &value)) return std::nullopt;
    return value;
}

bool equalIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Turns one <apn> element into a record; unknown values are skipped with a
// warning naming the entry.
ApnEntry toEntry(xmlNode* node, std::vector<std::string>& warnings) {
    ApnEntry entry;
    entry.carrier = attribute(node, "carrier").value_or("");
    entry.mcc = attribute(node, "mcc").value_or("");
    entry.mnc = attribute(node, "mnc").value_or("");
    const std::string where = "'" + entry.carrier + "' (" + entry.mcc + "/" + entry.mnc + ")";
    auto warn = [&](const std::string& what) { warnings.push_back(where + ": " + what); };
    kiv::ProfileParams& p = entry.params;

    if (auto apn = attribute(node, "apn")) p.setApnName(*apn);
    // Android's telephony reads an entry without a type, and the type "*",
    // as an APN for any use; it does not attach through such an APN nor
    // place emergency calls on it unless the entry says so.
    auto types = attribute(node, "type");
    if (!types || android::base::Trim(*types).empty()) {
        entry.anyType = true;
        p.setApnTypesMask(kAnyUse);
    } else {
        uint32_t mask = 0;
        for (auto name : android::base::Split(*types, ",")) {
            name = android::base::Trim(name);
            if (name.empty()) continue;
            if (name == "*") {
                entry.anyType = true;
                mask |= kAnyUse;
            } else if (auto bit = apnTypeByName(name)) {
                mask |= *bit;
            } else {
                warn("unknown APN type '" + name + "' skipped");
            }
        }
        p.setApnTypesMask(mask);
    }
    if (auto protocol = attribute(node, "protocol")) {
        if (auto type = protocolByName(*protocol)) {
            p.setHomeIPType(*type);
        } else {
            warn("unknown protocol '" + *protocol + "' skipped");
        }
    }
    if (auto protocol = attribute(node, "roaming_protocol")) {
        if (auto type = protocolByName(*protocol)) {
            p.setRoamIPType(*type);
        } else {
            warn("unknown roaming_protocol '" + *protocol + "' skipped");
        }
    }
    if (auto user = attribute(node, "user")) p.setUserName(*user);
    if (auto password = attribute(node, "password")) p.setPassword(*password);
    if (auto auth = attribute(node, "authtype")) {
        auto value = number(*auth);
        if (value && *value >= 0 && *value <= 3) {
            p.setAuthType(static_cast<kiv::AuthType>(*value));
        } else if (*auth != "-1") {  // -1: not set
            warn("unknown authtype '" + *auth + "' skipped");
        }
    }
    struct Limit {
        const char* name;
        void (kiv::ProfileParams::*set)(int32_t);
    };
    for (const Limit& limit : {Limit{"max_conns", &kiv::ProfileParams::setMaxPdnsConnPerBlock},
                               Limit{"max_conns_time", &kiv::ProfileParams::setMaxPdnConnTimer},
                               Limit{"wait_time", &kiv::ProfileParams::setPdnReqWaitInterval}}) {
        if (auto text = attribute(node, limit.name)) {
            if (auto value = number(*text)) {
                (p.*limit.set)(*value);
            } else {
                warn(std::string("bad ") + limit.name + " '" + *text + "' skipped");
            }
        }
    }
    return entry;
}

}  // namespace

bool mvnoMatches(const std::string& type, const std::string& matchData, const SimIdentity& sim) {
    if (type == "spn") return sim.spn && equalIgnoringCase(*sim.spn, matchData);
    if (type == "imsi") {
        // Each x stands for any digit; the pattern covers the IMSI's start.
        if (!sim.imsi || sim.imsi->size() < matchData.size()) return false;
        for (size_t i = 0; i < matchData.size(); ++i) {
            const char c = matchData[i];
            if (c != 'x' && c != 'X' && c != (*sim.imsi)[i]) return false;
        }
        return true;
    }
    if (type == "gid") {
        return sim.gid1 && sim.gid1->size() >= matchData.size() &&
               equalIgnoringCase(sim.gid1->substr(0, matchData.size()), matchData);
    }
    if (type == "iccid") return sim.iccid && android::base::StartsWith(*sim.iccid, matchData);
    return false;
}

ApnsConfResult ApnsConf::read(const std::string& path,
                              const std::optional<CarrierSelection>& selection) {
    ApnsConfResult result;
    // The largest carrier lists are a few MiB; a device or a huge file is
    // refused before it is read.
    constexpr off_t kMostBytes = 64 << 20;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        result.error = "cannot read " + path + ": " + strerror(errno);
        return result;
    }
    if (!S_ISREG(info.st_mode)) {
        result.error = "cannot read " + path + ": not a regular file";
        return result;
    }
    if (info.st_size > kMostBytes) {
        result.error = "cannot read " + path + ": larger than 64 MiB";
        return result;
    }
    std::string text;
    if (!android::base::ReadFileToString(path, &text, /*follow_symlinks=*/true)) {
        result.error = "cannot read " + path + ": " + strerror(errno);
        return result;
    }
    if (text.size() > static_cast<size_t>(kMostBytes)) {
        result.error = "cannot read " + path + ": larger than 64 MiB";
        return result;
    }
    // No network access, no entity expansion; errors are reported below.
    std::unique_ptr<xmlDoc, XmlDocDeleter> doc(
            xmlReadMemory(text.data(), static_cast<int>(text.size()), path.c_str(), nullptr,
                          XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc) {
        const xmlError* error = xmlGetLastError();
        result.error = path + " is not well-formed XML" +
                       (error && error->message ? " (line " + std::to_string(error->line) + ": " +
                                                          android::base::Trim(error->message) + ")"
                                                : std::string());
        return result;
    }
    xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr || xmlStrcmp(root->name, reinterpret_cast<const xmlChar*>("apns")) != 0) {
        result.error = path + " is not an APN list (no <apns> root element)";
        return result;
    }
    // The carrier's entries: those of the host network, and those of MVNOs
    // that match the SIM.
    std::vector<xmlNode*> host, mvno;
    for (xmlNode* node = root->children; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE ||
            xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>("apn")) != 0) {
            continue;
        }
        ++result.total;
        if (!selection) {
            host.push_back(node);
            continue;
        }
        if (attribute(node, "mcc").value_or("") != selection->mcc ||
            attribute(node, "mnc").value_or("") != selection->mnc) {
            ++result.skipped["for another carrier"];
            continue;
        }
        const auto type = attribute(node, "mvno_type");
        if (!type) {
            host.push_back(node);
            continue;
        }
        result.mvnoTypes.insert(*type);
        if (mvnoMatches(*type, attribute(node, "mvno_match_data").value_or(""), selection->sim)) {
            mvno.push_back(node);
        } else {
            ++result.skipped["for an MVNO the SIM is not"];
        }
    }
    // A SIM of an MVNO uses its MVNO's entries instead of the host network's.
    if (!mvno.empty() && !host.empty()) {
        result.skipped["for the host network (the SIM's MVNO has its own)"] +=
                static_cast<int>(host.size());
    }
    for (xmlNode* node : mvno.empty() ? host : mvno) {
        auto entry = toEntry(node, result.warnings);
        if (!entry.params.hasApnName()) {
            ++result.skipped["without an APN name"];
            continue;
        }
        result.entries.push_back(std::move(entry));
    }
    result.ok = true;
    return result;
}

}  // namespace kivctl
