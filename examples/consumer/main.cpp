// A program built on libkivr: brings the library up on the modem, finds or
// creates a profile for a data call on an APN, and prints the library's
// dump. Linked with libkivr's simulated modem (xalsim) it runs on a modem in
// its own process; linked with the modem service's client (xalremote), on
// the kivmodemd named by KIVR_MODEM.
#include <Manager.h>
#include <Util.h>

#include <chrono>
#include <iostream>
#include <thread>

int main(int argc, char** argv) {
    const std::string apn = argc > 1 ? argv[1] : "example.internet";
    kiv::Manager& manager = kiv::Manager::getInstance();
    // The library logs to the Android log (on a Linux host: standard error).
    manager.init(/*param=*/0, /*adbLog=*/true);

    kiv::ProfileParams wanted;
    wanted.setApnName(apn);
    wanted.setHomeIPType(kiv::IPType::V4V6);
    kiv::Util util;
    // The library connects to the modem in the background: until it has,
    // reading the table and creating profiles fail. Try for a few seconds.
    std::shared_ptr<kiv::IProfileKey> key;
    for (int attempt = 0; attempt < 50 && !key; ++attempt) {
        if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        manager.refresh(kiv::PDC_REFRESH_COMPLETED);
        key = util.findOrCreateProfileForSetupDataCall(kiv::TechType::TECH_3GPP, wanted);
    }
    if (!key) {
        std::cerr << "no profile for " << apn << ": is the modem up?\n";
        return 1;
    }
    std::cout << "data call on " << apn << ": profile " << key->getProfileId() << "\n";
    for (const auto& line : manager.dump()) std::cout << line << "\n";
    return 0;
}
