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

#include <android-base/result.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "wire/ClientTable.h"
#include "wire/RequestHooks.h"
#include "xal/wds_v01.h"

namespace xalmm {

// The bus the modem manager is on: an address (KIVR_MM_BUS); empty: the
// system bus (or the one DBUS_SYSTEM_BUS_ADDRESS names).
void setBusAddress(const std::string& address);
std::string busAddress();
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
// "xalmm"), with their Android log priority. The sink is called on any of
// the client's threads, one line at a time; once this returns, the sink it
// replaced is never called again. It must not call into this client.
using LogSink = std::function<void(int priority, const std::string& line)>;
void setLogSink(LogSink sink);

// Error codes in a failure response of this client.
enum ResponseError : uint32_t {
    kErrMalformed = 0x01,           // the modem manager found the request invalid
    kErrNoFreeProfile = 0x02,       // no room for another profile
    kErrInvalidProfile = 0x03,      // no such profile
    kErrInvalidProfileType = 0x04,  // 3GPP2: the modem manager has no such profiles
    kErrNotHeld = 0x10,             // a value the modem cannot hold; nothing changed
    kErrInUse = 0x11,               // a connected bearer uses the profile
    kErrNotEnabled = 0x12,          // the modem is not enabled
    kErrRefused = 0x13,             // any other error of the modem manager (logged)
    kErrRecord = 0x14,              // the record of temporary profiles could not be written
};

// The modem in use while its data service is up.
struct Modem {
    std::string path;
    std::string equipmentId;
    std::string deviceId;
    std::string simIdentifier;
    int32_t state = 0;  // Modem.State: 6 enabled and above
};
std::optional<Modem> currentModem();
// The modem chosen at the client's last look at the bus, whether its data
// service is up or not (it may be disabled).
std::optional<Modem> chosenModem();

// Clients of this process that are open, have not lost the service and
// have registered for profile events.
size_t registeredClients();
bool waitForRegisteredClients(size_t count, std::chrono::milliseconds timeout);
// Lists the modem's table, announces what changed since it was last seen,
// and returns once every event so far has been delivered (true), or at the
// time-out. Not from a callback.
bool sync(std::chrono::milliseconds timeout);
// The same, taking a table listed within the last second as the modem's:
// every event so far delivered, without listing again each time.
bool settle(std::chrono::milliseconds timeout);
// The instance that picks the modem when none is named, until the library
// binds one (Manager::init's).
void setInstance(uint32_t instance);
// Why no modem is up (the bus cannot be reached, no such modem, not
// enabled, ...); empty while one is.
std::string whyNoModem();
// The modem's profiles as this client reads them (the record of
// temporaries and of names the modem does not keep applied), by index.
android::base::Result<std::vector<std::pair<uint8_t, wds_get_profile_settings_resp_msg_v01>>>
profiles(std::chrono::milliseconds timeout);

// What this process may see and answer of its requests (wire/RequestHooks.h).
using RequestOutcome = wire::RequestOutcome;
using RequestObserver = wire::RequestObserver;
void setRequestObserver(RequestObserver observer);
using LocalAnswer = wire::LocalAnswer;
using RequestHook = wire::RequestHook;
void setRequestHook(RequestHook hook);

// The C interface of this client as a table (wire/ClientTable.h), for a
// program that chooses its messaging client at run time.
const wire::ClientTable& clientTable();

}  // namespace xalmm
