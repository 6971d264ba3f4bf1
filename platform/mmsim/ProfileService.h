// The modem manager's profile manager over a simulated modem (ModemCore):
// List, Set and Delete as the interface defines them, in the behaviour of
// the modem manager and modem chosen, without the bus. The bus side
// (ModemManagerSim) turns the errors into D-Bus errors by their kind.
#pragma once

#include <android-base/result.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "mm/ProfileDict.h"
#include "sim/ModemCore.h"

namespace mmsim {

enum class Behaviour {
    kV120,     // Updated for every change, the client's own included
    kV124,     // Updated held back around its own writes, at most one per 2 s
    kAtModem,  // no Updated; a profile keeps only its APN and IP type
};

// The kind of a refusal, as the error's code; ModemManagerSim names it.
enum ErrorKind : int {
    kInvalidArgs = 1,
    kNotFound,
    kConnected,
    kWrongState,
    kUnsupported,
    kFailed,
    kThrottled,
    kUnauthorized,
};
// The D-Bus error name of a kind.
const char* errorName(int kind);

class ProfileService {
  public:
    ProfileService(xalsim::ModemCore& modem, Behaviour behaviour, bool deleteClearsSlot)
        : mModem(modem), mBehaviour(behaviour), mDeleteClearsSlot(deleteClearsSlot) {}

    std::vector<mm::ProfileDict> list() const;
    // The stored profile, and whether anything changed.
    struct Stored {
        mm::ProfileDict profile;
        bool changed = false;
    };
    android::base::Result<Stored> set(const mm::ProfileDict& requested);
    // Whether anything changed.
    android::base::Result<bool> remove(const mm::ProfileDict& properties);

    // A profile in use by a connected bearer: its delete is refused.
    void setConnected(int32_t index, bool connected);

  private:
    mm::ProfileDict listed(uint8_t index, const mm::Settings& settings) const;
    android::base::Result<void> replace(uint8_t index, const mm::Settings& settings);
    // The first slot a new profile goes to: a cleared slot below the
    // lowest free index, if any; nothing when every slot holds a profile.
    std::optional<uint8_t> clearedSlotBefore(int freeIndex) const;

    xalsim::ModemCore& mModem;
    const Behaviour mBehaviour;
    const bool mDeleteClearsSlot;
    // What the modem's records cannot carry, per index.
    std::map<uint8_t, mm::ProfileDict> mExtra;
    std::set<int32_t> mConnected;
};

}  // namespace mmsim
