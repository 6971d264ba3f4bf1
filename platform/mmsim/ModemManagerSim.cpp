#include "mmsim/ModemManagerSim.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mm/BusDict.h"
#include "mm/MmNames.h"

using android::base::Error;
using android::base::Result;

namespace mmsim {

namespace {

constexpr uint64_t kUsecPerMs = 1000;
// 1.24 holds Updated back this long after its own writes, and sends at
// most one per throttle period.
constexpr uint64_t kOwnWriteQuietUsec = 100 * kUsecPerMs;
constexpr uint64_t kThrottleUsec = 2000 * kUsecPerMs;

uint64_t nowUsec(sd_event* event) {
    uint64_t now = 0;
    sd_event_now(event, CLOCK_MONOTONIC, &now);
    return now;
}

const char* versionOf(Behaviour behaviour) {
    return behaviour == Behaviour::kV124 ? "1.24.0" : "1.20.4";
}

}  // namespace

// An answer held back by the reply delay.
struct ModemManagerSim::Call {
    ModemManagerSim* sim;
    sd_bus_message* answer;
    sd_event_source* source = nullptr;
};

ModemManagerSim::ModemManagerSim(const Options& options, Log log)
    : mOptions(options), mLog(std::move(log)) {
    for (int n = 0; n < options.modems; ++n) {
        auto modem = std::make_unique<Modem>();
        modem->sim = this;
        modem->position = static_cast<size_t>(n);
        modem->core = std::make_unique<xalsim::ModemCore>(
                [](xalsim::ClientId, xalsim::Event, xalsim::Clock::time_point) {});
        modem->core->reset(options.config);
        modem->profiles = std::make_unique<ProfileService>(*modem->core, options.behaviour,
                                                           options.deleteClearsSlot);
        modem->equipmentId = "35693803564380" + std::to_string(n);
        modem->deviceId = "kivr-sim-modem-" + std::to_string(n);
        modem->simIdentifier = "8900100000000000" + std::to_string(100 + n);
        modem->imsi = "00101000000" + std::to_string(1000 + n);
        mModems.push_back(std::move(modem));
    }
}

ModemManagerSim::~ModemManagerSim() {
    for (Call* call : mCalls) {
        sd_event_source_unref(call->source);
        sd_bus_message_unref(call->answer);
        delete call;
    }
    for (auto& modem : mModems) sd_event_source_unref(modem->updatedDue);
    closeManagerBus();
    sd_bus_flush_close_unref(mControlBus);
    sd_event_unref(mEvent);
    if (mStopFd >= 0) close(mStopFd);
}

xalsim::ModemCore& ModemManagerSim::modem(size_t n) {
    return *mModems.at(n)->core;
}

Result<void> ModemManagerSim::start(const std::string& address) {
    mAddress = address;
    int r = sd_event_new(&mEvent);
    if (r < 0) return Error(-r) << "sd_event_new";
    mStopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (mStopFd < 0) return Error(errno) << "eventfd";
    sd_event_add_io(
            mEvent, nullptr, mStopFd, EPOLLIN,
            [](sd_event_source* s, int, uint32_t, void*) {
                return sd_event_exit(sd_event_source_get_event(s), 0);
            },
            nullptr);
    sd_event_add_signal(mEvent, nullptr, SIGTERM, nullptr, nullptr);
    sd_event_add_signal(mEvent, nullptr, SIGINT, nullptr, nullptr);

    auto bus = openBus();
    if (!bus.ok()) return bus.error();
    mControlBus = *bus;
    static const sd_bus_vtable kControl[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("DaemonGone", "", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("DaemonBack", "", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Reexport", "s", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("SwapSim", "ss", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("SetState", "si", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Change", "sa{sv}b", "i", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("Delete", "sib", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("SetConnected", "sib", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("FailNext", "sus", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD("DelayNext", "suu", "", control, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END,
    };
    r = sd_bus_add_object_vtable(mControlBus, nullptr, kControlPath, kControlInterface, kControl,
                                 this);
    if (r < 0) return Error(-r) << "cannot export the control object";
    r = sd_bus_request_name(mControlBus, kControlBusName, 0);
    if (r == -EEXIST) return Error() << "another kivmmd serves this bus already";
    if (r < 0) return Error(-r) << "cannot take the name " << kControlBusName;
    return openManagerBus();
}

Result<sd_bus*> ModemManagerSim::openBus() {
    sd_bus* bus = nullptr;
    int r = mm::openBus(mAddress, &bus);
    if (r >= 0) r = sd_bus_attach_event(bus, mEvent, 0);
    if (r < 0) {
        sd_bus_flush_close_unref(bus);
        return Error(-r) << "cannot connect to "
                         << (mAddress.empty()
                                     ? std::string("the system bus (--bus ADDRESS names one)")
                                     : "the bus at " + mAddress);
    }
    return bus;
}

Result<void> ModemManagerSim::openManagerBus() {
    auto bus = openBus();
    if (!bus.ok()) return bus.error();
    mManagerBus = *bus;
    static const sd_bus_vtable kManager[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD("ScanDevices", "", "", methodScanDevices, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_PROPERTY("Version", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_VTABLE_END,
    };
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_manager(mManagerBus, &slot, mm::kManagerPath);
    if (r >= 0) {
        mManagerSlots.push_back(slot);
        r = sd_bus_add_object_vtable(mManagerBus, &slot, mm::kManagerPath, mm::kManagerInterface,
                                     kManager, this);
    }
    if (r >= 0) mManagerSlots.push_back(slot);
    for (size_t n = 0; r >= 0 && n < mModems.size(); ++n) {
        mModems[n]->number = mNextModemNumber++;
        mModems[n]->simNumber = mNextSimNumber++;
        r = exportModem(*mModems[n]);
    }
    if (r >= 0) r = sd_bus_request_name(mManagerBus, mm::kBusName, 0);
    if (r < 0) {
        closeManagerBus();
        if (r == -EEXIST) return Error() << "a modem manager serves this bus already";
        return Error(-r) << "cannot serve " << mm::kBusName;
    }
    return {};
}

void ModemManagerSim::closeManagerBus() {
    if (mManagerBus == nullptr) return;
    for (auto& modem : mModems) {
        for (sd_bus_slot* slot : modem->slots) sd_bus_slot_unref(slot);
        modem->slots.clear();
    }
    for (sd_bus_slot* slot : mManagerSlots) sd_bus_slot_unref(slot);
    mManagerSlots.clear();
    mManagerBus = sd_bus_flush_close_unref(mManagerBus);
}

int ModemManagerSim::exportModem(Modem& modem) {
    static const sd_bus_vtable kModem[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD_WITH_NAMES("Enable", "b", SD_BUS_PARAM(enable), "", , methodEnable,
                                     SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_SIGNAL_WITH_NAMES("StateChanged", "iiu",
                                     SD_BUS_PARAM(old) SD_BUS_PARAM(new) SD_BUS_PARAM(reason), 0),
            SD_BUS_PROPERTY("Sim", "o", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
            SD_BUS_PROPERTY("Manufacturer", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("Model", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("Revision", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("DeviceIdentifier", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("Device", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("Plugin", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("PrimaryPort", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("EquipmentIdentifier", "s", propertyGet, 0,
                            SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("State", "i", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
            SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable kModem3gpp[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD_WITH_NAMES("SetInitialEpsBearerSettings", "a{sv}", SD_BUS_PARAM(settings),
                                     "", , methodSetInitialEps, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_PROPERTY("Imei", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("InitialEpsBearerSettings", "a{sv}", propertyGet, 0,
                            SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
            SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable kProfileManager[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_METHOD_WITH_NAMES("List", "", , "aa{sv}", SD_BUS_PARAM(profiles), methodList,
                                     SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD_WITH_NAMES("Set", "a{sv}", SD_BUS_PARAM(requested_properties), "a{sv}",
                                     SD_BUS_PARAM(stored_properties), methodSet,
                                     SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_METHOD_WITH_NAMES("Delete", "a{sv}", SD_BUS_PARAM(properties), "", ,
                                     methodDelete, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_SIGNAL("Updated", "", 0),
            SD_BUS_PROPERTY("IndexField", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_VTABLE_END,
    };
    static const sd_bus_vtable kSim[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_PROPERTY("Active", "b", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("SimIdentifier", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("Imsi", "s", propertyGet, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("OperatorIdentifier", "s", propertyGet, 0,
                            SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_VTABLE_END,
    };
    const struct {
        std::string path;
        const char* interface;
        const sd_bus_vtable* vtable;
    } objects[] = {
            {modem.simPath(), mm::kSimInterface, kSim},
            {modem.path(), mm::kModemInterface, kModem},
            {modem.path(), mm::kModem3gppInterface, kModem3gpp},
            {modem.path(), mm::kProfileManagerInterface, kProfileManager},
    };
    for (const auto& object : objects) {
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_add_object_vtable(mManagerBus, &slot, object.path.c_str(),
                                               object.interface, object.vtable, &modem);
        if (r < 0) return r;
        modem.slots.push_back(slot);
    }
    sd_bus_emit_object_added(mManagerBus, modem.simPath().c_str());
    return sd_bus_emit_object_added(mManagerBus, modem.path().c_str());
}

void ModemManagerSim::unexportModem(Modem& modem) {
    if (mManagerBus == nullptr) return;
    sd_bus_emit_object_removed(mManagerBus, modem.path().c_str());
    sd_bus_emit_object_removed(mManagerBus, modem.simPath().c_str());
    for (sd_bus_slot* slot : modem.slots) sd_bus_slot_unref(slot);
    modem.slots.clear();
}

void ModemManagerSim::reexport(Modem& modem) {
    if (mManagerBus == nullptr) return;
    unexportModem(modem);
    modem.number = mNextModemNumber++;
    modem.simNumber = mNextSimNumber++;
    exportModem(modem);
    mLog("modem " + modem.equipmentId + " re-exported as " + modem.path());
}

void ModemManagerSim::setState(Modem& modem, int32_t state) {
    const int32_t old = modem.state;
    modem.state = state;
    if (mManagerBus == nullptr || old == state) return;
    sd_bus_emit_properties_changed(mManagerBus, modem.path().c_str(), mm::kModemInterface, "State",
                                   nullptr);
    sd_bus_emit_signal(mManagerBus, modem.path().c_str(), mm::kModemInterface, "StateChanged",
                       "iiu", old, state, 0u);
}

int ModemManagerSim::run() {
    const int r = sd_event_loop(mEvent);
    return r < 0 ? r : 0;
}

void ModemManagerSim::stop() {
    const uint64_t one = 1;
    if (mStopFd >= 0 && write(mStopFd, &one, sizeof(one)) < 0) {
        mLog(std::string("cannot stop: ") + strerror(errno));
    }
}

// --- The profile manager.

int ModemManagerSim::reply(sd_bus_message* call, sd_bus_message* answer) {
    uint64_t delayMs = static_cast<uint64_t>(mOptions.replyDelay.count());
    const char* member = sd_bus_message_get_member(call);
    auto delayed = mDelays.find(member == nullptr ? "" : member);
    if (delayed != mDelays.end() && !delayed->second.empty()) {
        delayMs = delayed->second.front();
        delayed->second.pop_front();
    }
    if (delayMs == 0) {
        const int r = sd_bus_send(nullptr, answer, nullptr);
        sd_bus_message_unref(answer);
        return r < 0 ? r : 1;
    }
    auto* held = new Call{this, answer};
    const uint64_t due = nowUsec(mEvent) + delayMs * kUsecPerMs;
    if (sd_event_add_time(mEvent, &held->source, CLOCK_MONOTONIC, due, 0, onDelayedReply, held) <
        0) {
        sd_bus_message_unref(answer);
        delete held;
        return -ENOMEM;
    }
    mCalls.insert(held);
    return 1;
}

int ModemManagerSim::onDelayedReply(sd_event_source*, uint64_t, void* data) {
    auto* held = static_cast<Call*>(data);
    sd_bus_send(nullptr, held->answer, nullptr);
    held->sim->mCalls.erase(held);
    sd_bus_message_unref(held->answer);
    sd_event_source_unref(held->source);
    delete held;
    return 0;
}

int ModemManagerSim::refuse(sd_bus_message* call, int kind, const std::string& message) {
    return refuseNamed(call, errorName(kind), message);
}

int ModemManagerSim::refuseNamed(sd_bus_message* call, const std::string& name,
                                 const std::string& message) {
    sd_bus_message* answer = nullptr;
    sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name.c_str(), message.c_str());
    const int r = sd_bus_message_new_method_error(call, &answer, &error);
    if (r < 0) return r;
    return reply(call, answer);
}

bool ModemManagerSim::injectedFailure(sd_bus_message* call, const std::string& method) {
    auto it = mFailures.find(method);
    if (it == mFailures.end() || it->second.empty()) return false;
    const std::string name = it->second.front();
    it->second.pop_front();
    refuseNamed(call, name, "Injected failure of " + method);
    return true;
}

ModemManagerSim::Modem* ModemManagerSim::ready(sd_bus_message* m, void* data, const char* method) {
    auto* modem = static_cast<Modem*>(data);
    ModemManagerSim& sim = *modem->sim;
    if (sim.injectedFailure(m, method)) return nullptr;
    if (modem->state < mm::kStateEnabled) {
        sim.refuse(m, kWrongState, "Cannot manage profiles: modem not enabled");
        return nullptr;
    }
    return modem;
}

int ModemManagerSim::methodList(sd_bus_message* m, void* data, sd_bus_error*) {
    Modem* modem = ready(m, data, "List");
    if (modem == nullptr) return 1;
    sd_bus_message* answer = nullptr;
    int r = sd_bus_message_new_method_return(m, &answer);
    if (r >= 0) r = sd_bus_message_open_container(answer, SD_BUS_TYPE_ARRAY, "a{sv}");
    for (const auto& profile : modem->profiles->list()) {
        if (r >= 0) r = mm::appendDict(answer, profile);
    }
    if (r >= 0) r = sd_bus_message_close_container(answer);
    if (r < 0) {
        sd_bus_message_unref(answer);
        return r;
    }
    return modem->sim->reply(m, answer);
}

int ModemManagerSim::methodSet(sd_bus_message* m, void* data, sd_bus_error*) {
    Modem* modem = ready(m, data, "Set");
    if (modem == nullptr) return 1;
    ModemManagerSim& sim = *modem->sim;
    mm::ProfileDict requested;
    std::vector<std::string> skipped;
    int r = mm::readDict(m, requested, &skipped);
    if (r < 0) return r;
    if (!skipped.empty())
        return sim.refuse(m, kInvalidArgs, "Invalid value of '" + skipped[0] + "'");
    auto stored = modem->profiles->set(requested);
    if (!stored.ok()) return sim.refuse(m, stored.error().code(), stored.error().message());
    sd_bus_message* answer = nullptr;
    r = sd_bus_message_new_method_return(m, &answer);
    if (r >= 0) r = mm::appendDict(answer, stored->profile);
    if (r < 0) {
        sd_bus_message_unref(answer);
        return r;
    }
    if (stored->changed) sim.changed(*modem, /*ownWrite=*/true);
    return sim.reply(m, answer);
}

int ModemManagerSim::methodDelete(sd_bus_message* m, void* data, sd_bus_error*) {
    Modem* modem = ready(m, data, "Delete");
    if (modem == nullptr) return 1;
    ModemManagerSim& sim = *modem->sim;
    mm::ProfileDict properties;
    int r = mm::readDict(m, properties);
    if (r < 0) return r;
    auto removed = modem->profiles->remove(properties);
    if (!removed.ok()) return sim.refuse(m, removed.error().code(), removed.error().message());
    sd_bus_message* answer = nullptr;
    r = sd_bus_message_new_method_return(m, &answer);
    if (r < 0) return r;
    if (*removed) sim.changed(*modem, /*ownWrite=*/true);
    return sim.reply(m, answer);
}

void ModemManagerSim::changed(Modem& modem, bool ownWrite) {
    const uint64_t now = nowUsec(mEvent);
    switch (mOptions.behaviour) {
        case Behaviour::kAtModem:
            return;  // such modems never announce a change
        case Behaviour::kV120:
            emitUpdated(modem);
            return;
        case Behaviour::kV124:
            if (ownWrite) {
                modem.quietUntil = now + kOwnWriteQuietUsec;
                return;
            }
            if (now < modem.quietUntil) return;
            if (modem.lastUpdated == 0 || now >= modem.lastUpdated + kThrottleUsec) {
                emitUpdated(modem);
            } else if (modem.updatedDue == nullptr) {
                sd_event_add_time(mEvent, &modem.updatedDue, CLOCK_MONOTONIC,
                                  modem.lastUpdated + kThrottleUsec, 0, onUpdatedDue, &modem);
            }
            return;
    }
}

int ModemManagerSim::onUpdatedDue(sd_event_source* source, uint64_t, void* data) {
    auto* modem = static_cast<Modem*>(data);
    modem->updatedDue = nullptr;
    sd_event_source_unref(source);
    modem->sim->emitUpdated(*modem);
    return 0;
}

void ModemManagerSim::emitUpdated(Modem& modem) {
    modem.lastUpdated = nowUsec(mEvent);
    if (mManagerBus == nullptr || modem.slots.empty()) return;
    sd_bus_emit_signal(mManagerBus, modem.path().c_str(), mm::kProfileManagerInterface, "Updated",
                       "");
}

// --- Modem, Modem3gpp, Sim and the manager.

int ModemManagerSim::methodEnable(sd_bus_message* m, void* data, sd_bus_error*) {
    auto* modem = static_cast<Modem*>(data);
    int enable = 0;
    int r = sd_bus_message_read_basic(m, 'b', &enable);
    if (r < 0) return r;
    modem->sim->setState(*modem, enable ? mm::kStateRegistered : mm::kStateDisabled);
    return sd_bus_reply_method_return(m, "");
}

int ModemManagerSim::methodSetInitialEps(sd_bus_message* m, void* data, sd_bus_error*) {
    auto* modem = static_cast<Modem*>(data);
    mm::ProfileDict settings;
    int r = mm::readDict(m, settings);
    if (r < 0) return r;
    for (const auto& [key, value] : settings) {
        if (key != "apn" && key != "ip-type" && key != "allowed-auth" && key != "user" &&
            key != "password") {
            return modem->sim->refuse(m, kInvalidArgs, "Invalid key '" + key + "'");
        }
    }
    modem->initialEps = settings;
    sd_bus_emit_properties_changed(sd_bus_message_get_bus(m), modem->path().c_str(),
                                   mm::kModem3gppInterface, "InitialEpsBearerSettings", nullptr);
    return sd_bus_reply_method_return(m, "");
}

int ModemManagerSim::methodScanDevices(sd_bus_message* m, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(m, "");
}

int ModemManagerSim::propertyGet(sd_bus*, const char*, const char* interface, const char* property,
                                 sd_bus_message* reply, void* data, sd_bus_error*) {
    const std::string name = property;
    if (strcmp(interface, mm::kManagerInterface) == 0) {
        auto* sim = static_cast<ModemManagerSim*>(data);
        return sd_bus_message_append(reply, "s", versionOf(sim->mOptions.behaviour));
    }
    const auto* modem = static_cast<const Modem*>(data);
    if (name == "Sim") return sd_bus_message_append(reply, "o", modem->simPath().c_str());
    if (name == "State") return sd_bus_message_append(reply, "i", modem->state);
    if (name == "Active") return sd_bus_message_append(reply, "b", 1);
    if (name == "IndexField") return sd_bus_message_append(reply, "s", mm::kProfileIdKey);
    if (name == "InitialEpsBearerSettings") return mm::appendDict(reply, modem->initialEps);
    const std::pair<const char*, std::string> texts[] = {
            {"Manufacturer", "kivr"},
            {"Model", "simulated modem"},
            {"Revision", versionOf(modem->sim->mOptions.behaviour)},
            {"DeviceIdentifier", modem->deviceId},
            {"Device", "/sys/devices/kivr/modem" + std::to_string(modem->position)},
            {"Plugin", "kivr"},
            {"PrimaryPort", "cdc-wdm" + std::to_string(modem->position)},
            {"EquipmentIdentifier", modem->equipmentId},
            {"Imei", modem->equipmentId},
            {"SimIdentifier", modem->simIdentifier},
            {"Imsi", modem->imsi},
            {"OperatorIdentifier", modem->imsi.substr(0, 5)},
    };
    for (const auto& [key, value] : texts) {
        if (name == key) return sd_bus_message_append(reply, "s", value.c_str());
    }
    return -ENOENT;
}

}  // namespace mmsim
