// Profile dictionaries on and off the bus (sd-bus messages), for both the
// client and the simulated modem manager.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

#include "mm/ProfileDict.h"

namespace mm {

// Reads an a{sv} at the message's position. Values of a type no profile key
// has (anything but i, u, b and s) are skipped, their keys added to
// `skipped` when given. Returns a negative errno on a malformed message.
int readDict(sd_bus_message* message, ProfileDict& dict,
             std::vector<std::string>* skipped = nullptr);
// Reads an aa{sv}.
int readDictArray(sd_bus_message* message, std::vector<ProfileDict>& dicts);
int appendDict(sd_bus_message* message, const ProfileDict& dict);

// A started connection to the bus at `address`; empty: the system bus (or
// the one DBUS_SYSTEM_BUS_ADDRESS names). A negative errno on failure, with
// nothing left open.
int openBus(const std::string& address, sd_bus** bus);

}  // namespace mm
