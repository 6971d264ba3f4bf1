// A profile list response of arbitrary bytes through the modem proxy,
// against the simulated modem, on a worker loop as the library runs it.
#include <cstring>

#include "FuzzSupport.h"
#include "sim/SimModem.h"
#include "src/XalWdsProxy.h"
#include "tests/support/WorkerLoop.h"

namespace {

struct Rig {
    kiv::test::WorkerLoop loop;
    std::unique_ptr<kiv::XalWdsProxy> proxy;

    Rig() {
        kiv::fuzz::resetModem();
        proxy = loop.run([this] { return std::make_unique<kiv::XalWdsProxy>(loop.events(), 0); });
        kiv::fuzz::waitForConnection();
    }
    ~Rig() {
        loop.run([this] { proxy.reset(); });
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kiv::fuzz::quietLog();
    static Rig sRig;
    auto& sim = xalsim::SimModem::instance();
    std::vector<uint8_t> bytes(data, data + size);
    sim.injectNextResponse(XAL_WDS_GET_PROFILE_LIST_REQ_V01, bytes);
    // The second list (3GPP2) gets the bytes after the first response's size.
    if (size > sizeof(wds_get_profile_list_resp_msg_v01) / 16) {
        sim.injectNextResponse(XAL_WDS_GET_PROFILE_LIST_REQ_V01,
                               std::vector<uint8_t>(bytes.rbegin(), bytes.rend()));
    }
    const auto profiles = sRig.loop.run([] { return sRig.proxy->getAllProfiles(); });
    if (profiles.size() > 2 * WDS_PROFILE_LIST_MAX_V01) __builtin_trap();
    for (const auto& profile : profiles) {
        if (profile) (void)profile->dump();
    }
    sim.clearRecordedRequests();
    return 0;
}
