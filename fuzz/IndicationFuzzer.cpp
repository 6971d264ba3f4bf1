// Indication buffers of arbitrary bytes through the modem client's decoding
// and the profile cache's handling, on a worker loop as the library runs it.
#include "FuzzSupport.h"
#include "sim/SimModem.h"
#include "src/ProfileCache.h"
#include "tests/support/WorkerLoop.h"

namespace {

struct Rig {
    kiv::test::WorkerLoop loop;
    std::unique_ptr<kiv::ProfileCache> cache;

    Rig() {
        kiv::fuzz::resetModem();
        // Keys made by the cache post to nowhere: none outlives an input.
        cache = loop.run([this] {
            return std::make_unique<kiv::ProfileCache>(
                    loop.events(), 0, [](std::shared_ptr<kiv::ClientRequest>) { return nullptr; });
        });
        kiv::fuzz::waitForConnection();
        loop.run([this] { cache->refresh(); });
    }
    ~Rig() {
        loop.run([this] { cache.reset(); });
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kiv::fuzz::quietLog();
    static Rig sRig;
    auto& sim = xalsim::SimModem::instance();
    if (size == 0) return 0;
    // The first byte picks the message id: mostly the profile-changed one.
    const unsigned int msgId = data[0] < 0xF0 ? XAL_WDS_PROFILE_CHANGED_IND_V01 : data[0];
    sim.sendRawIndication(msgId, std::vector<uint8_t>(data + 1, data + size));
    sim.waitForCallbacks();
    sRig.loop.sync();
    sim.clearRecordedRequests();
    return 0;
}
