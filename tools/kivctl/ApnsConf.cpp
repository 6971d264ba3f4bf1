#include "ApnsConf.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <sstream>

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

std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::optional<kiv::IPType> protocolByName(const std::string& name) {
    if (name == "IP") return kiv::IPType::V4;
    if (name == "IPV6") return kiv::IPType::V6;
    if (name == "IPV4V6") return kiv::IPType::V4V6;
    return std::nullopt;
}

std::optional<int32_t> number(const std::string& text) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long value = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < INT32_MIN || value > INT32_MAX) return std::nullopt;
    return static_cast<int32_t>(value);
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
    if (auto types = attribute(node, "type")) {
        uint32_t mask = 0;
        std::stringstream list(*types);
        std::string name;
        while (std::getline(list, name, ',')) {
            name = trim(name);
            if (name.empty()) continue;
            if (auto bit = apnTypeByName(name)) {
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

std::optional<uint32_t> apnTypeByName(const std::string& name) {
    static const std::map<std::string, uint32_t> kTypes = {{"default", kiv::APN_TYPE_DEFAULT},
                                                           {"mms", kiv::APN_TYPE_MMS},
                                                           {"supl", kiv::APN_TYPE_SUPL},
                                                           {"dun", kiv::APN_TYPE_DUN},
                                                           {"hipri", kiv::APN_TYPE_HIPRI},
                                                           {"fota", kiv::APN_TYPE_FOTA},
                                                           {"ims", kiv::APN_TYPE_IMS},
                                                           {"cbs", kiv::APN_TYPE_CBS},
                                                           {"ia", kiv::APN_TYPE_IA},
                                                           {"emergency", kiv::APN_TYPE_EMERGENCY},
                                                           {"mcx", kiv::APN_TYPE_MCX},
                                                           {"xcap", kiv::APN_TYPE_XCAP},
                                                           {"*", 0xFFF}};
    std::string lower;
    for (char c : name) lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    auto it = kTypes.find(lower);
    if (it == kTypes.end()) return std::nullopt;
    return it->second;
}

ApnsConfResult ApnsConf::read(const std::string& path,
                              const std::optional<CarrierSelection>& selection) {
    ApnsConfResult result;
    // No network access, no entity expansion; errors are reported below.
    std::unique_ptr<xmlDoc, XmlDocDeleter> doc(xmlReadFile(
            path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (!doc) {
        const xmlError* error = xmlGetLastError();
        result.error = "cannot read " + path + ": " +
                       (error && error->message ? trim(error->message) : "not well-formed XML");
        return result;
    }
    xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr || xmlStrcmp(root->name, reinterpret_cast<const xmlChar*>("apns")) != 0) {
        result.error = path + " is not an APN list (no <apns> root element)";
        return result;
    }
    for (xmlNode* node = root->children; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE ||
            xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>("apn")) != 0) {
            continue;
        }
        ++result.total;
        if (selection) {
            if (attribute(node, "mcc").value_or("") != selection->mcc ||
                attribute(node, "mnc").value_or("") != selection->mnc) {
                ++result.skipped["other carrier"];
                continue;
            }
            const auto mvnoType = attribute(node, "mvno_type");
            if (selection->mvnoType) {
                if (mvnoType != selection->mvnoType ||
                    (selection->mvnoMatchData &&
                     attribute(node, "mvno_match_data") != selection->mvnoMatchData)) {
                    ++result.skipped["other MVNO or the host network"];
                    continue;
                }
            } else if (mvnoType) {
                ++result.skipped["MVNO entry"];
                continue;
            }
        }
        auto entry = toEntry(node, result.warnings);
        if (!entry.params.hasApnName()) {
            ++result.skipped["no APN name"];
            continue;
        }
        result.entries.push_back(std::move(entry));
    }
    result.ok = true;
    return result;
}

}  // namespace kivctl
