// Shared set-up of the fuzz targets: a quiet log.
#pragma once

#include "sim/SimModem.h"
#include "src/LocalLogBuffer.h"
#include "src/LogWrapper.h"

namespace kiv::fuzz {

// Takes no line, so that nothing but the local history is formatted.
class QuietWriter : public LogWriter {
  public:
    void write(LogLevel, std::string, std::string) override {}
    int convertPrio(LogLevel) override { return 0; }
    bool isLoggable(LogLevel) override { return false; }
};

// Also makes the log singletons before any rig of a target, so that at exit
// they are destroyed after it (a rig's worker thread logs until it stops).
inline void quietLog() {
    static const bool sDone = [] {
        LocalLogBuffer::getInstance();
        LogWrapper::getInstance().setLogWriter(std::make_unique<QuietWriter>());
        return true;
    }();
    (void)sDone;
}

// A fresh simulated modem holding a 3GPP and a 3GPP2 profile.
inline void resetModem() {
    auto& sim = xalsim::SimModem::instance();
    sim.reset();
    sim.seedProfile(
            WDS_PROFILE_TYPE_3GPP_V01,
            xalsim::make3gppSettings("internet", "internet", WDS_PDP_TYPE_PDP_IPV4V6_V01, 1, true));
    sim.seedProfile(WDS_PROFILE_TYPE_3GPP2_V01,
                    xalsim::make3gpp2Settings("cdma", WDS_PROFILE_PDN_TYPE_IPV4_V01, true));
}

// Returns once a modem client has connected and registered.
inline void waitForConnection() {
    auto& sim = xalsim::SimModem::instance();
    sim.waitUntil(
            [&] { return sim.requestCount(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01) > 0; });
}

}  // namespace kiv::fuzz
