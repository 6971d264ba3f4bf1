// One connection to the bus the modem manager is on, and the calls the
// messaging client makes on it: the modems (object manager), a SIM's
// identifier, and the profile manager's List, Set and Delete. Not
// thread-safe: its owner serialises the calls.
#pragma once

#include <android-base/result.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "mm/ProfileDict.h"

namespace xalmm {

// How a call ended.
struct CallError {
    enum Kind {
        kNone,
        kTimeout,  // no answer within the time given
        kGone,     // the service, the modem object or the bus is not there
        kRefused,  // the modem manager answered with an error
    };
    Kind kind = kNone;
    std::string name;     // the D-Bus error's name, when there is one
    std::string message;  // its message, or what went wrong
    bool ok() const { return kind == kNone; }
    std::string describe() const;
};

struct ModemObject {
    std::string path;
    std::string equipmentId;
    std::string deviceId;
    std::string simPath;
    int32_t state = 0;
};

class ManagerBus {
  public:
    ManagerBus() = default;
    ~ManagerBus() { close(); }
    ManagerBus(const ManagerBus&) = delete;
    ManagerBus& operator=(const ManagerBus&) = delete;

    // Connects to the bus at `address`; empty: the system bus (or the one
    // DBUS_SYSTEM_BUS_ADDRESS names).
    android::base::Result<void> connect(const std::string& address);
    bool isOpen() const;
    void close();
    sd_bus* bus() const { return mBus; }

    using Timeout = std::chrono::milliseconds;
    CallError modems(std::vector<ModemObject>& modems, Timeout timeout);
    CallError simIdentifier(const std::string& simPath, std::string& identifier, Timeout timeout);
    CallError list(const std::string& modemPath, std::vector<mm::ProfileDict>& profiles,
                   Timeout timeout);
    CallError set(const std::string& modemPath, const mm::ProfileDict& requested,
                  mm::ProfileDict& stored, Timeout timeout);
    CallError remove(const std::string& modemPath, int32_t index, Timeout timeout);

  private:
    // Sends `call` (taken) and waits for its answer; the reply is the
    // caller's to unref.
    CallError call(sd_bus_message* call, Timeout timeout, sd_bus_message** reply);
    sd_bus_message* newCall(const std::string& path, const char* interface, const char* member);

    sd_bus* mBus = nullptr;
};

}  // namespace xalmm
