// The link's event thread: it finds the modem and brings the service up or
// down to match, lists and compares the table, and delivers every callback.
// The rest of the link is in Link.cpp.

#include <android/log.h>
#include <poll.h>

#include <algorithm>
#include <cstring>

#include "mm/MmNames.h"
#include "mmclient/Link.h"
#include "wire/ClientContract.h"
#include "wire/IndicationCodec.h"

namespace xalmm {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The event thread's own calls: finding the modem and listing its table.
constexpr milliseconds kWatchTimeout{3000};
// A lost bus connection is tried again after this pause.
constexpr milliseconds kReconnectPause{500};

// The modems in a stable order: by their identifiers, then their paths.
std::optional<ModemObject> choose(std::vector<ModemObject> modems, const std::string& wanted,
                                  uint32_t instance) {
    if (!wanted.empty()) {
        for (const auto& modem : modems) {
            if (modem.equipmentId == wanted || modem.deviceId == wanted) return modem;
        }
        return std::nullopt;
    }
    std::sort(modems.begin(), modems.end(), [](const ModemObject& a, const ModemObject& b) {
        return std::tie(a.equipmentId, a.deviceId, a.path) <
               std::tie(b.equipmentId, b.deviceId, b.path);
    });
    if (instance >= modems.size()) return std::nullopt;
    return modems[instance];
}

const char* const kMatches[] = {
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg0='org.freedesktop.ModemManager1'",
        "type='signal',sender='org.freedesktop.ModemManager1',"
        "interface='org.freedesktop.DBus.ObjectManager',path='/org/freedesktop/ModemManager1'",
        "type='signal',sender='org.freedesktop.ModemManager1',"
        "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',"
        "path_namespace='/org/freedesktop/ModemManager1'",
        "type='signal',sender='org.freedesktop.ModemManager1',"
        "interface='org.freedesktop.ModemManager1.Modem.Modem3gpp.ProfileManager',"
        "member='Updated'",
};

}  // namespace

// --- The event thread.

bool Link::connectSignals() {
    std::string address;
    {
        kiv::MutexLock lock(mLock);
        address = mSettings.busAddress;
    }
    if (!mSignals.connect(address).ok()) return false;
    for (const char* rule : kMatches) {
        if (sd_bus_add_match(mSignals.bus(), nullptr, rule, onSignal, this) < 0) {
            mSignals.close();
            return false;
        }
    }
    return true;
}

int Link::onSignal(sd_bus_message* message, void* data, sd_bus_error*) {
    auto* link = static_cast<Link*>(data);
    const std::string member = sd_bus_message_get_member(message);
    const char* path = sd_bus_message_get_path(message);
    kiv::MutexLock lock(link->mLock);
    if (member == "NameOwnerChanged") {
        const char* name = nullptr;
        const char* before = nullptr;
        const char* after = nullptr;
        if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0) return 0;
        if (after[0] == '\0') {
            link->downLocked("the modem manager left the bus");
        } else {
            link->mNeedRescan = true;
        }
    } else if (member == "Updated") {
        if (link->mModem && path != nullptr && link->mModem->path == path) {
            link->mNeedRefresh = true;
        }
    } else {
        // Modems added or removed, or a modem's or SIM's properties changed.
        link->mNeedRescan = true;
    }
    return 0;
}

void Link::run() {
    Settings settings;
    {
        kiv::MutexLock lock(mLock);
        mEventThread = std::this_thread::get_id();
        settings = mSettings;
    }
    auto reconnectAt = Clock::now();
    auto nextPoll = Clock::now() + settings.pollInterval;
    for (;;) {
        if (!mSignals.isOpen() && Clock::now() >= reconnectAt) {
            if (connectSignals()) {
                kiv::MutexLock lock(mLock);
                mNeedRescan = true;
            } else {
                reconnectAt = Clock::now() + kReconnectPause;
            }
        }
        if (mSignals.isOpen()) {
            int r = 0;
            while ((r = sd_bus_process(mSignals.bus(), nullptr)) > 0) {
            }
            if (r < 0) {
                mSignals.close();
                reconnectAt = Clock::now() + kReconnectPause;
                kiv::MutexLock lock(mLock);
                downLocked("the connection to the bus was lost");
            }
        }
        bool rescanNow = false;
        bool refreshNow = false;
        uint64_t syncAsked = 0;
        {
            kiv::MutexLock lock(mLock);
            settings = mSettings;
            std::swap(rescanNow, mNeedRescan);
            std::swap(refreshNow, mNeedRefresh);
            syncAsked = mSyncAsked;
            if (mListAsked > mSyncDone) refreshNow = true;
            if (settings.pollInterval.count() > 0 && Clock::now() >= nextPoll) {
                (mModem ? refreshNow : rescanNow) = true;
            }
        }
        if (settings.pollInterval.count() > 0 && Clock::now() >= nextPoll) {
            nextPoll = Clock::now() + settings.pollInterval;
        }
        if (rescanNow) rescan();
        if (refreshNow) refresh();
        deliver();
        {
            kiv::MutexLock lock(mLock);
            if (syncAsked > mSyncDone && !mNeedRescan) mSyncDone = syncAsked;
            mChanged.notify_all();
            if (mNeedRescan || mNeedRefresh || !mDeliveries.empty()) continue;
        }

        // Sleeps until the bus, a wake-up, the next poll or a reconnection.
        auto until =
                settings.pollInterval.count() > 0 ? nextPoll : Clock::now() + std::chrono::hours(1);
        if (!mSignals.isOpen()) until = std::min(until, reconnectAt);
        pollfd fds[2] = {{mWake.get(), POLLIN, 0}, {-1, 0, 0}};
        if (mSignals.isOpen()) {
            fds[1].fd = sd_bus_get_fd(mSignals.bus());
            fds[1].events = static_cast<short>(sd_bus_get_events(mSignals.bus()));
            uint64_t busTimeout = 0;
            if (sd_bus_get_timeout(mSignals.bus(), &busTimeout) >= 0 && busTimeout != UINT64_MAX) {
                timespec now{};
                clock_gettime(CLOCK_MONOTONIC, &now);
                const uint64_t nowUsec = static_cast<uint64_t>(now.tv_sec) * 1000000 +
                                         static_cast<uint64_t>(now.tv_nsec) / 1000;
                const auto left =
                        std::chrono::microseconds(busTimeout > nowUsec ? busTimeout - nowUsec : 0);
                until = std::min(until, Clock::now() + left);
            }
        }
        const auto wait = std::chrono::duration_cast<milliseconds>(until - Clock::now());
        const int waitMs = static_cast<int>(std::max<int64_t>(0, wait.count() + 1));
        poll(fds, fds[1].fd >= 0 ? 2 : 1, waitMs);
        mWake.drain();
    }
}

void Link::rescan() {
    kiv::MutexLock calls(mCallLock);
    std::string address, wanted, folder;
    uint32_t instance = 0;
    {
        kiv::MutexLock lock(mLock);
        address = mSettings.busAddress;
        wanted = mSettings.modem;
        folder = mSettings.stateFolder;
        instance = mInstance;
    }
    if (!mCalls.isOpen()) {
        if (auto connected = mCalls.connect(address); !connected.ok()) {
            kiv::MutexLock lock(mLock);
            noModemLocked(connected.error().message());
            return;
        }
    }
    std::vector<ModemObject> modems;
    CallError error = mCalls.modems(modems, kWatchTimeout);
    std::optional<ModemObject> chosen;
    if (error.ok()) chosen = choose(modems, wanted, instance);
    std::string sim;
    std::vector<mm::ProfileDict> profiles;
    if (chosen && chosen->state >= mm::kStateEnabled) {
        error = mCalls.simIdentifier(chosen->simPath, sim, kWatchTimeout);
        if (error.ok()) error = mCalls.list(chosen->path, profiles, kWatchTimeout);
    }

    kiv::MutexLock lock(mLock);
    if (error.kind == CallError::kTimeout && mModem) {
        // A slow answer is not a modem gone: looked at again at the next poll.
        log(ANDROID_LOG_WARN, "xalmm: the modem manager is slow to answer (" + error.describe() +
                                      "); the modem stays as it was");
        return;
    }
    mChosen = error.ok() ? chosen : std::nullopt;
    if (!error.ok()) {
        noModemLocked("the modem manager cannot be reached (" + error.describe() + ")");
        if (error.kind == CallError::kGone) mCalls.close();
        return;
    }
    if (!chosen) {
        noModemLocked(wanted.empty() ? "no modem " + std::to_string(instance)
                                     : "no modem " + wanted);
        return;
    }
    if (chosen->state < mm::kStateEnabled) {
        noModemLocked("modem " + chosen->path + " is not enabled (state " +
                      std::to_string(chosen->state) + ")");
        return;
    }
    if (mModem && mModem->path == chosen->path) {
        if (sim != mSim) {
            mSim = sim;
            mLastSim = sim;
            announceLocked(-1, WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01);
        }
        compareLocked(tableOf(profiles));
        return;
    }
    if (mModem) noModemLocked("the modem moved to " + chosen->path);
    upLocked(*chosen, sim, tableOf(profiles), folder);
}

Link::Table Link::tableOf(const std::vector<mm::ProfileDict>& profiles) {
    Table table;
    for (const auto& profile : profiles) {
        const auto index = mm::profileIndex(profile);
        // The modem's records number profiles 1 to 255.
        if (!index || *index < 1 || *index > 255 || mm::isClearedSlot(profile)) continue;
        table[*index] = profile;
    }
    return table;
}

void Link::upLocked(const ModemObject& modem, const std::string& sim, Table table,
                    const std::string& folder) {
    mModem = modem;
    mSim = sim;
    if (mLastSim && *mLastSim != sim) mSubscriptionChanged = true;
    mLastSim = sim;
    mTable = std::move(table);
    const std::string identity = !modem.equipmentId.empty() ? modem.equipmentId
                                 : !modem.deviceId.empty()  ? modem.deviceId
                                                            : modem.path;
    mRecord = folder.empty() ? TemporaryRecord() : TemporaryRecord(folder, identity);
    if (auto loaded = mRecord.load(); !loaded.ok()) {
        log(ANDROID_LOG_ERROR, "xalmm: " + loaded.error().message());
    }
    // Entries of profiles no longer there, or replaced, from before.
    forgetStaleLocked();
    log(ANDROID_LOG_INFO, "xalmm: modem " + identity + " is up at " + modem.path);
    for (auto& [id, client] : mClients) {
        if (client.notifier && client.notify != nullptr) {
            queueLocked(id, Delivery::kNotify, XAL_CLIENT_SERVICE_COUNT_INC);
        }
    }
    mChanged.notify_all();
}

void Link::noModemLocked(const std::string& why) {
    mProblem = why;
    downLocked(why);
}

void Link::downLocked(const std::string& why) {
    if (!mModem) return;
    log(ANDROID_LOG_WARN, "xalmm: the modem's data service is down: " + why);
    mModem.reset();
    mTable.clear();
    mListedAt.reset();
    mReturning = true;
    for (auto& [id, client] : mClients) {
        if (client.notifier) {
            if (client.notify != nullptr) {
                queueLocked(id, Delivery::kNotify, XAL_CLIENT_SERVICE_COUNT_DEC);
            }
        } else if (!client.lost) {
            client.lost = true;
            if (client.error != nullptr) {
                queueLocked(id, Delivery::kError, XAL_SERVICE_ERR);
            } else {
                client.errorOwed = true;
            }
        }
    }
    mChanged.notify_all();
}

void Link::refresh() {
    kiv::MutexLock calls(mCallLock);
    const auto path = modemPath();
    if (!path) return;
    std::vector<mm::ProfileDict> profiles;
    const CallError error = mCalls.isOpen() ? mCalls.list(*path, profiles, kWatchTimeout)
                                            : CallError{CallError::kGone, "", "not connected"};
    kiv::MutexLock lock(mLock);
    if (!error.ok()) {
        // Gone, or no longer enabled: where the modem stands is found out.
        // A slow answer is tried again at the next poll.
        if (error.kind != CallError::kTimeout) mNeedRescan = true;
        return;
    }
    if (mModem && mModem->path == *path) {
        compareLocked(tableOf(profiles));
        mListedAt = Clock::now();
    }
}

void Link::compareLocked(const Table& now) {
    for (const auto& [index, profile] : mTable) {
        if (now.count(index) != 0) continue;
        log(ANDROID_LOG_INFO, "xalmm: profile " + std::to_string(index) + " was deleted");
        announceLocked(index, WDS_PROFILE_EVENT_DELETE_V01);
    }
    for (const auto& [index, profile] : now) {
        auto before = mTable.find(index);
        if (before == mTable.end()) {
            log(ANDROID_LOG_INFO, "xalmm: profile " + std::to_string(index) + " was created");
            // As the modem announces a new profile: created, then written.
            announceLocked(index, WDS_PROFILE_EVENT_CREATE_V01);
            announceLocked(index, WDS_PROFILE_EVENT_MODIFY_V01);
        } else if (before->second != profile) {
            log(ANDROID_LOG_INFO, "xalmm: profile " + std::to_string(index) + " was changed");
            announceLocked(index, WDS_PROFILE_EVENT_MODIFY_V01);
        }
    }
    if (now != mTable) {
        // Another process of this library may have recorded its change.
        if (auto loaded = mRecord.load(); !loaded.ok()) {
            log(ANDROID_LOG_ERROR, "xalmm: " + loaded.error().message());
        }
    }
    mTable = now;
    forgetStaleLocked();
}

void Link::forgetStaleLocked() {
    // Each profile's APN, from the last table seen.
    std::map<int32_t, std::string> apns;
    for (const auto& [index, profile] : mTable) {
        auto apn = profile.find("apn");
        const auto* text = apn == profile.end() ? nullptr : std::get_if<std::string>(&apn->second);
        apns[index] = text == nullptr ? std::string() : *text;
    }
    auto failed = mRecord.forgetStale([&apns](int32_t index, const MadeProfile& made) {
        auto it = apns.find(index);
        return it != apns.end() && it->second == made.apn;
    });
    if (failed) log(ANDROID_LOG_ERROR, "xalmm: " + *failed);
}

void Link::deliver() {
    for (;;) {
        Delivery delivery;
        Client client;
        {
            kiv::MutexLock lock(mLock);
            if (mDeliveries.empty()) return;
            delivery = std::move(mDeliveries.front());
            mDeliveries.pop_front();
            auto it = mClients.find(delivery.handle);
            if (it == mClients.end() || it->second.released) {
                ++mDelivered;
                mChanged.notify_all();
                continue;
            }
            client = it->second;
            mDelivering = delivery.handle;
        }
        const xal_client_type handle = toHandle(delivery.handle);
        switch (delivery.kind) {
            case Delivery::kNotify:
                if (client.notify != nullptr) {
                    client.notify(handle, wire::wdsServiceObject(),
                                  static_cast<xal_client_notify_event_type>(delivery.code),
                                  client.notifyData);
                }
                break;
            case Delivery::kError:
                if (client.error != nullptr) client.error(handle, delivery.code, client.errorData);
                break;
            case Delivery::kIndication:
                if (client.indication != nullptr) {
                    client.indication(handle, static_cast<unsigned int>(delivery.code),
                                      delivery.payload.data(),
                                      static_cast<unsigned int>(delivery.payload.size()),
                                      client.indicationData);
                }
                break;
        }
        kiv::MutexLock lock(mLock);
        mDelivering = 0;
        ++mDelivered;
        mChanged.notify_all();
    }
}

}  // namespace xalmm
