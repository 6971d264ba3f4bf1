#include "mmclient/ManagerBus.h"

#include <cerrno>
#include <cstring>

#include "mm/BusDict.h"
#include "mm/MmNames.h"

using android::base::Error;
using android::base::Result;

namespace xalmm {

namespace {

bool isGoneError(const std::string& name) {
    static const char* const kGone[] = {
            SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER,
            SD_BUS_ERROR_UNKNOWN_OBJECT,  SD_BUS_ERROR_UNKNOWN_INTERFACE,
            SD_BUS_ERROR_UNKNOWN_METHOD,  SD_BUS_ERROR_DISCONNECTED,
    };
    for (const char* gone : kGone) {
        if (name == gone) return true;
    }
    return false;
}

// Reads the Modem interface's properties of interest from an a{sv}.
int readModemProperties(sd_bus_message* m, ModemObject& modem) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* key = nullptr;
        r = sd_bus_message_read_basic(m, 's', &key);
        if (r < 0) return r;
        const std::string name = key;
        const char* text = nullptr;
        if (name == "EquipmentIdentifier" || name == "DeviceIdentifier") {
            r = sd_bus_message_read(m, "v", "s", &text);
            if (r >= 0) (name == "DeviceIdentifier" ? modem.deviceId : modem.equipmentId) = text;
        } else if (name == "Sim") {
            r = sd_bus_message_read(m, "v", "o", &text);
            if (r >= 0) modem.simPath = text;
        } else if (name == "State") {
            r = sd_bus_message_read(m, "v", "i", &modem.state);
        } else {
            r = sd_bus_message_skip(m, "v");
        }
        if (r < 0) return r;
        r = sd_bus_message_exit_container(m);
        if (r < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

// One object of GetManagedObjects: {oa{sa{sv}}}. A modem when it has the
// Modem interface.
int readObject(sd_bus_message* m, std::vector<ModemObject>& modems) {
    const char* path = nullptr;
    int r = sd_bus_message_read_basic(m, 'o', &path);
    if (r < 0) return r;
    ModemObject modem;
    modem.path = path;
    bool isModem = false;
    r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sa{sv}}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}")) > 0) {
        const char* interface = nullptr;
        r = sd_bus_message_read_basic(m, 's', &interface);
        if (r < 0) return r;
        if (strcmp(interface, mm::kModemInterface) == 0) {
            isModem = true;
            r = readModemProperties(m, modem);
        } else {
            r = sd_bus_message_skip(m, "a{sv}");
        }
        if (r < 0) return r;
        r = sd_bus_message_exit_container(m);
        if (r < 0) return r;
    }
    if (r < 0) return r;
    r = sd_bus_message_exit_container(m);
    if (r >= 0 && isModem) modems.push_back(std::move(modem));
    return r;
}

CallError malformed(const char* what, int r) {
    return {CallError::kRefused, "",
            std::string("malformed answer to ") + what + ": " + strerror(-r)};
}

}  // namespace

std::string CallError::describe() const {
    if (name.empty()) return message;
    return name + ": " + message;
}

Result<void> ManagerBus::connect(const std::string& address) {
    close();
    const int r = mm::openBus(address, &mBus);
    if (r < 0) {
        return Error(-r) << "cannot connect to "
                         << (address.empty() ? std::string("the system bus") : address);
    }
    return {};
}

bool ManagerBus::isOpen() const {
    return mBus != nullptr && sd_bus_is_open(mBus) > 0;
}

void ManagerBus::close() {
    mBus = sd_bus_flush_close_unref(mBus);
}

sd_bus_message* ManagerBus::newCall(const std::string& path, const char* interface,
                                    const char* member) {
    sd_bus_message* m = nullptr;
    if (mBus == nullptr || sd_bus_message_new_method_call(mBus, &m, mm::kBusName, path.c_str(),
                                                          interface, member) < 0) {
        return nullptr;
    }
    return m;
}

CallError ManagerBus::call(sd_bus_message* m, Timeout timeout, sd_bus_message** reply) {
    if (m == nullptr) return {CallError::kGone, "", "not connected to the bus"};
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const auto usec = static_cast<uint64_t>(timeout.count() > 0 ? timeout.count() : 1) * 1000;
    const int r = sd_bus_call(mBus, m, usec, &error, reply);
    sd_bus_message_unref(m);
    // Whatever else came in on this connection (its own name's signals) is
    // of no use here.
    while (mBus != nullptr && sd_bus_process(mBus, nullptr) > 0) {
    }
    CallError result;
    if (r >= 0) {
        sd_bus_error_free(&error);
        return result;
    }
    result.name = error.name != nullptr ? error.name : "";
    result.message = error.message != nullptr ? error.message : strerror(-r);
    sd_bus_error_free(&error);
    if (r == -ETIMEDOUT || result.name == SD_BUS_ERROR_NO_REPLY ||
        result.name == SD_BUS_ERROR_TIMEOUT) {
        result.kind = CallError::kTimeout;
    } else if (result.name.empty() || isGoneError(result.name)) {
        result.kind = CallError::kGone;
    } else {
        result.kind = CallError::kRefused;
    }
    return result;
}

CallError ManagerBus::modems(std::vector<ModemObject>& modems, Timeout timeout) {
    sd_bus_message* reply = nullptr;
    CallError result =
            call(newCall(mm::kManagerPath, mm::kObjectManagerInterface, "GetManagedObjects"),
                 timeout, &reply);
    if (!result.ok()) return result;
    int r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "{oa{sa{sv}}}");
    while (r >= 0 &&
           (r = sd_bus_message_enter_container(reply, SD_BUS_TYPE_DICT_ENTRY, "oa{sa{sv}}")) > 0) {
        r = readObject(reply, modems);
        if (r >= 0) r = sd_bus_message_exit_container(reply);
    }
    sd_bus_message_unref(reply);
    return r < 0 ? malformed("GetManagedObjects", r) : result;
}

CallError ManagerBus::simIdentifier(const std::string& simPath, std::string& identifier,
                                    Timeout timeout) {
    identifier.clear();
    if (simPath.empty() || simPath == "/") return {};
    sd_bus_message* m = newCall(simPath, mm::kPropertiesInterface, "Get");
    if (m != nullptr && sd_bus_message_append(m, "ss", mm::kSimInterface, "SimIdentifier") < 0) {
        m = sd_bus_message_unref(m);
    }
    sd_bus_message* reply = nullptr;
    CallError result = call(m, timeout, &reply);
    if (!result.ok()) return result;
    const char* text = nullptr;
    const int r = sd_bus_message_read(reply, "v", "s", &text);
    if (r >= 0) identifier = text;
    sd_bus_message_unref(reply);
    return r < 0 ? malformed("Get SimIdentifier", r) : result;
}

CallError ManagerBus::list(const std::string& modemPath, std::vector<mm::ProfileDict>& profiles,
                           Timeout timeout) {
    sd_bus_message* reply = nullptr;
    CallError result =
            call(newCall(modemPath, mm::kProfileManagerInterface, "List"), timeout, &reply);
    if (!result.ok()) return result;
    const int r = mm::readDictArray(reply, profiles);
    sd_bus_message_unref(reply);
    return r < 0 ? malformed("List", r) : result;
}

CallError ManagerBus::set(const std::string& modemPath, const mm::ProfileDict& requested,
                          mm::ProfileDict& stored, Timeout timeout) {
    sd_bus_message* m = newCall(modemPath, mm::kProfileManagerInterface, "Set");
    if (m != nullptr && mm::appendDict(m, requested) < 0) m = sd_bus_message_unref(m);
    sd_bus_message* reply = nullptr;
    CallError result = call(m, timeout, &reply);
    if (!result.ok()) return result;
    const int r = mm::readDict(reply, stored);
    sd_bus_message_unref(reply);
    return r < 0 ? malformed("Set", r) : result;
}

CallError ManagerBus::remove(const std::string& modemPath, int32_t index, Timeout timeout) {
    sd_bus_message* m = newCall(modemPath, mm::kProfileManagerInterface, "Delete");
    if (m != nullptr && mm::appendDict(m, {{mm::kProfileIdKey, index}}) < 0) {
        m = sd_bus_message_unref(m);
    }
    sd_bus_message* reply = nullptr;
    CallError result = call(m, timeout, &reply);
    sd_bus_message_unref(reply);
    return result;
}

}  // namespace xalmm
