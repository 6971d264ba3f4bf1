// The messaging client interface (xal_client.h) over a modem manager's
// D-Bus profile interface: link libxalmm instead of libxalsim or
// libxalremote and the same library runs on a real modem of a Linux host.
//
// The modem is the one whose equipment identifier (IMEI) or device
// identifier is named (setModem, or KIVR_MM_MODEM); with none named, the
// instance bound by the library picks it among the modems ordered by their
// identifiers. Its data service is up while it is exported and enabled.
// Callbacks run on this library's own thread. See platform/mmclient/README.md
// for what the interface cannot hold and how the client's promises read
// there.
//
// What follows is for programs and tests that set up or watch this
// process's client; the C interface needs none of it. Settings are read
// from the environment first and should be changed before the first call.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace xalmm {

// The bus the modem manager is on: an address (KIVR_MM_BUS); empty: the
// system bus (or the one DBUS_SYSTEM_BUS_ADDRESS names).
void setBusAddress(const std::string& address);
// The modem by its equipment or device identifier (KIVR_MM_MODEM); empty:
// by the library's instance.
void setModem(const std::string& identifier);
// How often the table is listed and compared, for modems that do not
// announce their changes (KIVR_MM_POLL_MS, default 5000; 0: never).
void setPollInterval(std::chrono::milliseconds interval);
// Where the record of the temporary profiles this library made is kept
// (KIVR_MM_STATE_DIR; default $XDG_STATE_HOME/kivr, else
// ~/.local/state/kivr).
void setStateFolder(const std::string& folder);
// Where this client's log lines go (default: the Android log, tag
// "xalmm"), with their Android log priority.
using LogSink = std::function<void(int priority, const std::string& line)>;
void setLogSink(LogSink sink);

// The modem in use while its data service is up.
struct Modem {
    std::string path;
    std::string equipmentId;
    std::string deviceId;
    std::string simIdentifier;
};
std::optional<Modem> currentModem();

// Clients of this process that are open, have not lost the service and
// have registered for profile events.
size_t registeredClients();
bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout);
// Lists the modem's table, announces what changed since it was last seen,
// and returns once every event so far has been delivered (true), or at the
// time-out. Not from a callback.
bool sync(std::chrono::milliseconds timeout);

}  // namespace xalmm
