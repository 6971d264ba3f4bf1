#include "LibraryFixture.h"

#include <android-base/strings.h>

#include "Watchdog.h"

namespace kiv::test {

void LibraryFixture::SetUp() {
    // A test that hangs shows the library's state: the dump never waits.
    setHangReport([] { return android::base::Join(Manager::getInstance().dump(), '\n') + "\n"; });
    sim().reset();
    sim().seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                      xalsim::make3gppSettings("internet", "internet", WDS_PDP_TYPE_PDP_IPV4V6_V01,
                                               0x1, true));
    sim().seedProfile(WDS_PROFILE_TYPE_3GPP_V01,
                      xalsim::make3gppSettings("ims", "ims", WDS_PDP_TYPE_PDP_IPV6_V01, 0x2, true));
    startLibrary();
}

void LibraryFixture::startLibrary() {
    manager().init(0, true);
    // init installs its own sink; the capture replaces it.
    log.reset();
    log = std::make_unique<ScopedLogCapture>();
    waitForConnection(++connections);
    manager().refresh(PDC_REFRESH_COMPLETED);
}

void LibraryFixture::waitForConnection(size_t count) {
    ASSERT_TRUE(sim().waitUntil([count] {
        return sim().requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) >= count;
    })) << "the library did not register with the modem ("
        << count << " times in all)";
}

void LibraryFixture::settle() {
    ASSERT_TRUE(sim().waitForCallbacks()) << "the modem's callbacks did not all run";
    // Each request needs a wake-up of its own: the second one is handled in
    // a pass after the one that handled the first, and so after every
    // indication signalled before the first.
    Waiting waiting("the library to handle what the modem sent");
    manager().match(FilterProfileParams(), nullptr);
    manager().match(FilterProfileParams(), nullptr);
}

std::shared_ptr<IProfileKey> LibraryFixture::findOne(int profileId, TechType tech) {
    FilterProfileParams filter;
    filter.setFilterByProfileId(profileId);
    filter.setFilterByTechType(tech);
    auto keys = manager().filter(filter);
    return keys.size() == 1 ? keys.front() : nullptr;
}

namespace {

// The lines of a dump section: after its title, up to the next title or the
// empty line before the history.
std::vector<std::string> section(const std::string& title) {
    const auto lines = Manager::getInstance().dump();
    auto begin = std::find(lines.begin(), lines.end(), title);
    if (begin == lines.end()) return {title + " missing"};
    auto end = std::find_if(++begin, lines.end(),
                            [](const std::string& line) { return line.rfind("  ", 0) != 0; });
    return std::vector<std::string>(begin, end);
}

}  // namespace

std::vector<std::string> LibraryFixture::cacheLines() {
    return section("Cache:");
}

std::vector<std::string> LibraryFixture::pendingLines() {
    return section("Pending:");
}

std::string LibraryFixture::modemTable() {
    std::string bytes;
    for (const auto& profile : sim().profiles()) {
        bytes += std::to_string(profile.type) + ":" + std::to_string(profile.index) + "=";
        bytes.append(reinterpret_cast<const char*>(&profile.settings), sizeof(profile.settings));
    }
    return bytes;
}

}  // namespace kiv::test
