#include "ManagerControl.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <functional>
#include <memory>

#include "Output.h"
#include "common/Arguments.h"
#include "common/Errors.h"
#include "mm/BusDict.h"

namespace kivctl {

namespace {

constexpr const char* kName = "org.kivr.ModemManagerSim";
constexpr const char* kPath = "/org/kivr/ModemManagerSim";

using Bus = std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)>;

Bus connect(const std::string& address) {
    sd_bus* bus = nullptr;
    const int r = mm::openBus(address, &bus);
    if (r < 0) {
        throw Refused(std::string("cannot reach the modem manager's bus: ") + strerror(-r));
    }
    return Bus(bus, sd_bus_flush_close_unref);
}

// Calls a control method; `append` adds its arguments.
void call(const std::string& address, const char* method,
          const std::function<int(sd_bus_message*)>& append) {
    Bus bus = connect(address);
    sd_bus_message* m = nullptr;
    int r = sd_bus_message_new_method_call(bus.get(), &m, kName, kPath, kName, method);
    if (r >= 0) r = append(m);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (r >= 0) r = sd_bus_call(bus.get(), m, 0, &error, &reply);
    sd_bus_message_unref(m);
    sd_bus_message_unref(reply);
    const std::string name = error.name != nullptr ? error.name : "";
    const std::string message = error.message != nullptr ? error.message : strerror(-r);
    sd_bus_error_free(&error);
    if (r >= 0) return;
    if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER) {
        throw Refused(
                "this is not a simulated modem manager (kivmmd): its events cannot be "
                "made on demand");
    }
    throw Refused(std::string(method) + " refused: " + message);
}

}  // namespace

const char* const ManagerControl::kActions =
        "status|daemon-gone|daemon-back|reexport|swap-sim|state|connected|fail|delay";

std::string ManagerControl::run(const std::string& modem, const std::vector<std::string>& words) {
    const std::string action = words.empty() ? "" : words[0];
    auto arguments = [&](size_t least, size_t most, const char* usage) {
        if (words.size() - 1 < least || words.size() - 1 > most) {
            throw UsageError("modem " + action + " " + usage);
        }
    };
    auto none = [](sd_bus_message*) { return 0; };
    if (action == "daemon-gone" || action == "daemon-back") {
        arguments(0, 0, "takes no arguments");
        call(mAddress, action == "daemon-gone" ? "DaemonGone" : "DaemonBack", none);
        return action == "daemon-gone" ? "the modem manager left the bus"
                                       : "the modem manager is back on the bus";
    }
    if (action == "reexport") {
        arguments(0, 0, "takes no arguments");
        call(mAddress, "Reexport",
             [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", modem.c_str()); });
        return "the modem was re-exported under a new path";
    }
    if (action == "swap-sim") {
        arguments(1, 1, "needs the new SIM's identifier (ICCID)");
        call(mAddress, "SwapSim", [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "ss", modem.c_str(), words[1].c_str());
        });
        return "SIM " + words[1] + " in the modem";
    }
    if (action == "state") {
        arguments(1, 1, "needs a state, -1 to 11 (3 disabled, 6 enabled, 8 registered)");
        const int state = parseNumber(words[1], "a modem state", -1, 11);
        call(mAddress, "SetState", [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "si", modem.c_str(), state);
        });
        return "the modem's state is " + words[1];
    }
    if (action == "connected") {
        arguments(2, 2, "needs a profile id and on or off");
        const int index = parseNumber(words[1], "a profile id", 1, 255);
        if (words[2] != "on" && words[2] != "off") throw UsageError("modem connected ID on|off");
        call(mAddress, "SetConnected", [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "sib", modem.c_str(), index, words[2] == "on");
        });
        return "profile " + words[1] +
               (words[2] == "on" ? " in use by a connected bearer" : " no longer in use");
    }
    if (action == "fail") {
        arguments(1, 3, "needs a method (List, Set or Delete), then a count and an error name");
        if (words[1] != "List" && words[1] != "Set" && words[1] != "Delete") {
            throw UsageError("modem fail: " + quote(words[1]) +
                             " is not a profile manager method (List, Set or Delete)");
        }
        if (words.size() > 3 && !sd_bus_interface_name_is_valid(words[3].c_str())) {
            throw UsageError("modem fail: " + quote(words[3]) +
                             " is not a D-Bus error name (like "
                             "org.freedesktop.ModemManager1.Error.Core.Failed)");
        }
        const int count = words.size() > 2 ? parseNumber(words[2], "a count", 1, 1000) : 1;
        const std::string error =
                words.size() > 3 ? words[3] : "org.freedesktop.ModemManager1.Error.Core.Failed";
        call(mAddress, "FailNext", [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "sus", words[1].c_str(), static_cast<uint32_t>(count),
                                         error.c_str());
        });
        return "the next " + std::to_string(count) + " " + words[1] + " will fail with " + error;
    }
    if (action == "delay") {
        arguments(2, 3, "needs a method and a delay in ms, then a count");
        if (words[1] != "List" && words[1] != "Set" && words[1] != "Delete") {
            throw UsageError("modem delay: " + quote(words[1]) +
                             " is not a profile manager method (List, Set or Delete)");
        }
        const int delay = parseNumber(words[2], "a delay", 0, 600000);
        const int count = words.size() > 3 ? parseNumber(words[3], "a count", 1, 1000) : 1;
        call(mAddress, "DelayNext", [&](sd_bus_message* m) {
            return sd_bus_message_append(m, "suu", words[1].c_str(), static_cast<uint32_t>(count),
                                         static_cast<uint32_t>(delay));
        });
        return "the next " + std::to_string(count) + " " + words[1] + " answered " + words[2] +
               " ms late";
    }
    throw UsageError("unknown modem action " + quote(action) + " on a modem manager (" + kActions +
                     ")");
}

}  // namespace kivctl
