// The simulated modem manager's wire against the modem manager's published
// interface files: every method, signal and property it serves has the
// arguments, types and access the files give.

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <map>
#include <memory>

#include "support/ModemManagerFixture.h"

namespace kiv {
namespace {

using namespace test;

const std::string kInterfaces = "/usr/share/dbus-1/interfaces/";

using Document = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

std::string attribute(xmlNode* node, const char* name) {
    xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
    if (value == nullptr) return "";
    std::string text(reinterpret_cast<const char*>(value));
    xmlFree(value);
    return text;
}

bool named(xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE &&
           xmlStrcmp(node->name, reinterpret_cast<const xmlChar*>(name)) == 0;
}

// What one interface declares, member by member: "method List" ->
// "out:aa{sv}", "property State" -> "i read", ...
std::map<std::string, std::string> members(xmlNode* interface) {
    std::map<std::string, std::string> found;
    for (xmlNode* member = interface->children; member != nullptr; member = member->next) {
        for (const char* kind : {"method", "signal", "property"}) {
            if (!named(member, kind)) continue;
            std::string shape;
            if (std::string(kind) == "property") {
                shape = attribute(member, "type") + " " + attribute(member, "access");
            }
            for (xmlNode* arg = member->children; arg != nullptr; arg = arg->next) {
                if (!named(arg, "arg")) continue;
                // A signal's arguments have no direction; a method's are in
                // unless said otherwise.
                std::string direction = attribute(arg, "direction");
                if (std::string(kind) == "signal") direction = "";
                if (std::string(kind) == "method" && direction.empty()) direction = "in";
                shape += direction + ":" + attribute(arg, "type") + ":" + attribute(arg, "name") +
                         " ";
            }
            found[std::string(kind) + " " + attribute(member, "name")] = shape;
        }
    }
    return found;
}

// Every interface of an introspection document, by name.
std::map<std::string, std::map<std::string, std::string>> interfaces(xmlDoc* document) {
    std::map<std::string, std::map<std::string, std::string>> found;
    xmlNode* root = xmlDocGetRootElement(document);
    for (xmlNode* node = root == nullptr ? nullptr : root->children; node != nullptr;
         node = node->next) {
        if (named(node, "interface")) found[attribute(node, "name")] = members(node);
    }
    return found;
}

class ModemManagerWireTest : public ModemManagerFixture {};

TEST_F(ModemManagerWireTest, ServedObjectsMatchThePublishedInterfaceFiles) {
    if (!fs::exists(kInterfaces + "org.freedesktop.ModemManager1.Modem.xml")) {
        GTEST_SKIP() << "the modem manager's interface files are not installed "
                        "(Debian: modemmanager-dev)";
    }
    startDaemon();
    const std::string modem = modemPath();
    ASSERT_FALSE(modem.empty());
    const auto sim = busctl({"get-property", "org.freedesktop.ModemManager1", modem,
                             "org.freedesktop.ModemManager1.Modem", "Sim"});
    ASSERT_EQ(sim.status, 0) << sim.err;
    const std::string simPath = sim.out.substr(3, sim.out.find('"', 3) - 3);  // o "/..."

    size_t checked = 0;
    for (const std::string& path :
         {std::string("/org/freedesktop/ModemManager1"), modem, simPath}) {
        const auto served =
                busctl({"introspect", "--xml-interface", "org.freedesktop.ModemManager1", path});
        ASSERT_EQ(served.status, 0) << path << ": " << served.err;
        Document document(
                xmlReadMemory(served.out.data(), static_cast<int>(served.out.size()), "served.xml",
                              nullptr, XML_PARSE_NONET | XML_PARSE_NOBLANKS),
                xmlFreeDoc);
        ASSERT_TRUE(document) << served.out;
        for (const auto& [name, servedMembers] : interfaces(document.get())) {
            if (name.rfind("org.freedesktop.DBus.", 0) == 0) continue;
            const std::string file = kInterfaces + name + ".xml";
            ASSERT_TRUE(fs::exists(file)) << name << " is served but not published";
            Document published(xmlReadFile(file.c_str(), nullptr, XML_PARSE_NONET), xmlFreeDoc);
            ASSERT_TRUE(published) << file;
            const auto reference = interfaces(published.get()).at(name);
            for (const auto& [member, shape] : servedMembers) {
                auto it = reference.find(member);
                ASSERT_NE(it, reference.end()) << name << ": " << member << " is not published";
                EXPECT_EQ(shape, it->second) << name << ": " << member;
                ++checked;
            }
        }
    }
    // List, Set, Delete, Updated, IndexField and the rest: all were seen.
    EXPECT_GE(checked, 25u);
}

// The modem manager's own command-line client and GLib's, each a client of
// the interface as the modem manager's users have them, drive the simulated
// one; the library sees their changes as another program's.
TEST_F(ModemManagerWireTest, MmcliAndGdbusDriveItAndTheLibrarySeesTheirChanges) {
    startDaemon();
    startLibrary();
    Subprocess::Options onTheBus;
    onTheBus.environment = {"DBUS_SYSTEM_BUS_ADDRESS=" + address};
    const std::string path = modemPath();

    auto result = Subprocess::run({"gdbus", "call", "--address", address, "--dest",
                                   "org.freedesktop.ModemManager1", "--object-path", path,
                                   "--method", std::string(kProfileManager) + ".Set",
                                   "{'apn': <'from.gdbus'>, 'ip-type': <uint32 2>}"});
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_TRUE(eventually([] { return byApn("from.gdbus").size() == 1; })) << clientLogText();
    EXPECT_EQ(Manager::getInstance().getProfile(byApn("from.gdbus").front())->getHomeIPType(),
              IPType::V6);

    if (Subprocess::run({"sh", "-c", "command -v mmcli"}).status != 0) {
        GTEST_SKIP() << "mmcli is not installed (Debian: modemmanager); gdbus and busctl drove "
                        "the simulated modem manager";
    }
    result = Subprocess::run({"mmcli", "-m", "any", "--3gpp-profile-manager-list"}, "", onTheBus);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("apn: internet"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("apn: from.gdbus"), std::string::npos) << result.out;
    result = Subprocess::run(
            {"mmcli", "-m", "any", "--3gpp-profile-manager-set=apn=from.mmcli,ip-type=ipv4"}, "",
            onTheBus);
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_TRUE(eventually([] { return byApn("from.mmcli").size() == 1; })) << clientLogText();
    const std::string index = std::to_string(byApn("from.mmcli").front()->getProfileId());
    result = Subprocess::run({"mmcli", "-m", "any", "--3gpp-profile-manager-delete=" + index}, "",
                             onTheBus);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(eventually([] { return byApn("from.mmcli").empty(); }));
}

}  // namespace
}  // namespace kiv
