// A program built on libkivr: brings the library up on the modem, finds or
// creates a profile for a data call on an APN, and prints the library's
// dump. Linked with libkivr's simulated modem (xalsim) it runs on a modem in
// its own process; linked with the modem service's client (xalremote), on
// the kivmodemd named by KIVR_MODEM; linked with the modem manager's client
// (xalmm), on a modem of the modem manager.
#include <Manager.h>
#include <Util.h>
#include <xal/xal_host.h>

#include <iostream>

int main(int argc, char** argv) {
    const std::string apn = argc > 1 ? argv[1] : "example.internet";
    kiv::Manager& manager = kiv::Manager::getInstance();
    // The library logs to the Android log (on a Linux host: standard error).
    manager.init(/*param=*/0, /*adbLog=*/true);

    // The library reaches the modem in the background. The host messaging
    // clients say when it has (on a device, the platform's service notifier
    // does): wait for that, then read the table.
    if (xal_host_wait_for_registration(/*timeout_msecs=*/5000) == 0) {
        std::cerr << "the modem cannot be reached (is kivmodemd running and KIVR_MODEM set, or the "
                     "modem manager's modem there?)\n";
        return 1;
    }
    manager.refresh(kiv::PDC_REFRESH_COMPLETED);

    kiv::ProfileParams wanted;
    wanted.setApnName(apn);
    wanted.setHomeIPType(kiv::IPType::V4V6);
    kiv::Util util;
    const auto key = util.findOrCreateProfileForSetupDataCall(kiv::TechType::TECH_3GPP, wanted);
    if (!key) {
        std::cerr << "no profile for " << apn << " (the library's log says why)\n";
        return 1;
    }
    std::cout << "data call on " << apn << ": profile " << key->getProfileId() << "\n";
    for (const auto& line : manager.dump()) std::cout << line << "\n";
    return 0;
}
