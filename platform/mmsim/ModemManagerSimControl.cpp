// The simulated modem manager's control object: the events a modem
// manager has on its own, made on demand. The rest is in ModemManagerSim.cpp.

#include <cerrno>

#include "mm/BusDict.h"
#include "mm/MmNames.h"
#include "mmsim/ModemManagerSim.h"

namespace mmsim {

// --- The control object.

ModemManagerSim::Modem* ModemManagerSim::modemNamed(const std::string& identifier) {
    for (auto& modem : mModems) {
        if (modem->equipmentId == identifier || modem->deviceId == identifier) return modem.get();
    }
    return nullptr;
}

int ModemManagerSim::control(sd_bus_message* m, void* data, sd_bus_error* error) {
    auto* sim = static_cast<ModemManagerSim*>(data);
    const std::string member = sd_bus_message_get_member(m);
    const int r = sim->controlCall(m, member);
    if (r == -ENODEV) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "no such modem");
    }
    return r;
}

int ModemManagerSim::controlCall(sd_bus_message* m, const std::string& member) {
    if (member == "DaemonGone") {
        if (mManagerBus != nullptr) mLog("the daemon leaves the bus");
        closeManagerBus();
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "DaemonBack") {
        if (mManagerBus == nullptr) {
            if (auto opened = openManagerBus(); !opened.ok()) {
                return sd_bus_reply_method_errorf(m, mm::kErrorFailed, "%s",
                                                  opened.error().message().c_str());
            }
            mLog("the daemon is back");
        }
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "FailNext") {
        const char* method = nullptr;
        const char* name = nullptr;
        uint32_t count = 0;
        int r = sd_bus_message_read(m, "sus", &method, &count, &name);
        if (r < 0) return r;
        if (!sd_bus_interface_name_is_valid(name)) return -EINVAL;
        for (uint32_t i = 0; i < count && i < 1000; ++i) mFailures[method].push_back(name);
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "DelayNext") {
        const char* method = nullptr;
        uint32_t count = 0;
        uint32_t delayMs = 0;
        int r = sd_bus_message_read(m, "suu", &method, &count, &delayMs);
        if (r < 0) return r;
        for (uint32_t i = 0; i < count && i < 1000; ++i) mDelays[method].push_back(delayMs);
        return sd_bus_reply_method_return(m, "");
    }
    const char* identifier = nullptr;
    int r = sd_bus_message_read_basic(m, 's', &identifier);
    if (r < 0) return r;
    Modem* modem = modemNamed(identifier);
    if (modem == nullptr) return -ENODEV;
    if (member == "Reexport") {
        reexport(*modem);
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "SwapSim") {
        const char* iccid = nullptr;
        r = sd_bus_message_read_basic(m, 's', &iccid);
        if (r < 0) return r;
        modem->simIdentifier = iccid;
        // A modem manager re-exports a modem whose SIM changed.
        reexport(*modem);
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "SetState") {
        int32_t state = 0;
        r = sd_bus_message_read_basic(m, 'i', &state);
        if (r < 0) return r;
        setState(*modem, state);
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "Change") {
        mm::ProfileDict profile;
        r = mm::readDict(m, profile);
        int announced = 0;
        if (r >= 0) r = sd_bus_message_read_basic(m, 'b', &announced);
        if (r < 0) return r;
        auto stored = modem->profiles->set(profile);
        if (!stored.ok()) return refuse(m, stored.error().code(), stored.error().message());
        if (stored->changed && announced) changed(*modem, /*ownWrite=*/false);
        return sd_bus_reply_method_return(m, "i", mm::profileIndex(stored->profile).value_or(-1));
    }
    if (member == "Delete") {
        int32_t index = 0;
        int announced = 0;
        r = sd_bus_message_read(m, "ib", &index, &announced);
        if (r < 0) return r;
        auto removed = modem->profiles->remove({{mm::kProfileIdKey, index}});
        if (!removed.ok()) return refuse(m, removed.error().code(), removed.error().message());
        if (*removed && announced) changed(*modem, /*ownWrite=*/false);
        return sd_bus_reply_method_return(m, "");
    }
    if (member == "SetConnected") {
        int32_t index = 0;
        int connected = 0;
        r = sd_bus_message_read(m, "ib", &index, &connected);
        if (r < 0) return r;
        modem->profiles->setConnected(index, connected != 0);
        return sd_bus_reply_method_return(m, "");
    }
    return -EOPNOTSUPP;
}

}  // namespace mmsim
