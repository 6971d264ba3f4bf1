#include "LibraryFixture.h"

namespace kiv::test {

void LibraryFixture::SetUp() {
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
    }));
}

void LibraryFixture::settle() {
    ASSERT_TRUE(sim().waitForCallbacks());
    // Each request needs a wake-up of its own: the second one is handled in
    // a pass after the one that handled the first, and so after every
    // indication signalled before the first.
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

}  // namespace kiv::test
