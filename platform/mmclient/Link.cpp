#include "mmclient/Link.h"

#include <android-base/parseint.h>
#include <android/log.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "mm/MmNames.h"
#include "wire/ClientContract.h"
#include "wire/IndicationCodec.h"

namespace xalmm {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string environment(const char* name) {
    const char* value = getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

Settings settingsFromEnvironment() {
    Settings settings;
    settings.busAddress = environment("KIVR_MM_BUS");
    settings.modem = environment("KIVR_MM_MODEM");
    unsigned int poll = 0;
    if (android::base::ParseUint(environment("KIVR_MM_POLL_MS"), &poll, 3600u * 1000u)) {
        settings.pollInterval = milliseconds(poll);
    }
    settings.stateFolder = environment("KIVR_MM_STATE_DIR");
    if (settings.stateFolder.empty()) {
        const std::string xdg = environment("XDG_STATE_HOME");
        const std::string home = environment("HOME");
        if (!xdg.empty() && xdg[0] == '/') {
            settings.stateFolder = xdg + "/kivr";
        } else if (!home.empty() && home[0] == '/') {
            settings.stateFolder = home + "/.local/state/kivr";
        }
    }
    return settings;
}

}  // namespace

Link& Link::instance() {
    // Never destroyed: its event thread may still run while the process exits.
    static Link* link = new Link();
    return *link;
}

Link::Link() : mSettings(settingsFromEnvironment()) {}

void Link::configure(const std::function<void(Settings&)>& change) {
    kiv::MutexLock lock(mLock);
    change(mSettings);
    mNeedRescan = true;
    wake();
}

Settings Link::settings() const {
    kiv::MutexLock lock(mLock);
    return mSettings;
}

void Link::setLogSink(LogSink sink) {
    kiv::MutexLock lock(mLogLock);
    mLogSink = std::move(sink);
}

void Link::log(int priority, const std::string& line) {
    // Called with the lock held: once setLogSink() returns, the sink it
    // replaced is not running and is never called again.
    kiv::MutexLock lock(mLogLock);
    if (mLogSink) {
        mLogSink(priority, line);
    } else {
        __android_log_write(priority, "xalmm", line.c_str());
    }
}

void Link::wake() {
    kiv::EventFd::signal(mWake.get());
}

void Link::startLocked() {
    if (mStarted) return;
    mStarted = true;
    std::thread([this] { run(); }).detach();
}

Link::Client* Link::findLocked(xal_client_type handle) {
    auto it = mClients.find(idOf(handle));
    return it == mClients.end() || it->second.released ? nullptr : &it->second;
}

void Link::queueLocked(uintptr_t handle, Delivery::Kind kind, int code,
                       std::vector<uint8_t> payload) {
    mDeliveries.push_back({handle, kind, code, std::move(payload)});
    ++mQueued;
    wake();
}

void Link::announceLocked(int32_t index, wds_profile_changed_event_enum_v01 event) {
    wds_profile_changed_ind_type_v01 record{};
    record.profile_type = index < 0 ? WDS_PROFILE_TYPE_ALL_V01 : WDS_PROFILE_TYPE_3GPP_V01;
    record.profile_index = static_cast<uint8_t>(index < 0 ? 0xFF : index);
    record.profile_change_evt = event;
    const std::vector<uint8_t> payload = wire::encodeProfileChanged(&record);
    for (auto& [id, client] : mClients) {
        if (!client.released && !client.lost && client.events) {
            queueLocked(id, Delivery::kIndication, XAL_WDS_PROFILE_CHANGED_IND_V01, payload);
        }
    }
}

// --- The messaging client interface.

xal_client_type Link::newNotifier() {
    kiv::MutexLock lock(mLock);
    startLocked();
    const uintptr_t id = mNextHandle;
    mNextHandle += 0x10;
    mClients[id].notifier = true;
    return toHandle(id);
}

xal_client_error_type Link::registerNotify(xal_client_type handle, xal_client_notify_cb callback,
                                           void* data) {
    kiv::MutexLock lock(mLock);
    Client* client = findLocked(handle);
    if (client == nullptr || !client->notifier) return XAL_CLIENT_INVALID_CLNT;
    client->notify = callback;
    client->notifyData = data;
    if (mModem && callback != nullptr) {
        queueLocked(idOf(handle), Delivery::kNotify, XAL_CLIENT_SERVICE_COUNT_INC);
    }
    return XAL_NO_ERR;
}

xal_client_error_type Link::probe() {
    kiv::MutexLock lock(mLock);
    startLocked();
    return mModem ? XAL_NO_ERR : XAL_SERVICE_ERR;
}

xal_client_error_type Link::newClient(xal_client_ind_cb callback, void* data,
                                      xal_client_type* handle) {
    kiv::MutexLock lock(mLock);
    startLocked();
    if (!mModem) return XAL_SERVICE_ERR;
    const uintptr_t id = mNextHandle;
    mNextHandle += 0x10;
    Client& client = mClients[id];
    client.indication = callback;
    client.indicationData = data;
    client.returning = mReturning;
    *handle = toHandle(id);
    return XAL_NO_ERR;
}

xal_client_error_type Link::registerError(xal_client_type handle, xal_client_error_cb callback,
                                          void* data) {
    kiv::MutexLock lock(mLock);
    Client* client = findLocked(handle);
    if (client == nullptr || client->notifier) return XAL_CLIENT_INVALID_CLNT;
    client->error = callback;
    client->errorData = data;
    if (client->errorOwed && callback != nullptr) {
        client->errorOwed = false;
        queueLocked(idOf(handle), Delivery::kError, XAL_SERVICE_ERR);
    }
    return XAL_NO_ERR;
}

bool Link::isLive(xal_client_type handle) {
    kiv::MutexLock lock(mLock);
    return findLocked(handle) != nullptr;
}

xal_client_error_type Link::release(xal_client_type handle) {
    kiv::MutexLock lock(mLock);
    Client* client = findLocked(handle);
    if (client == nullptr) return XAL_CLIENT_INVALID_CLNT;
    client->released = true;
    // A callback for it that is running ends first, unless it is the one
    // releasing it.
    if (std::this_thread::get_id() != mEventThread) {
        lock.wait(mChanged, [&]() REQUIRES(mLock) { return mDelivering != idOf(handle); });
    }
    mClients.erase(idOf(handle));
    mChanged.notify_all();
    return XAL_NO_ERR;
}

std::optional<Modem> Link::modem() {
    kiv::MutexLock lock(mLock);
    if (!mModem) return std::nullopt;
    return Modem{mModem->path, mModem->equipmentId, mModem->deviceId, mSim, mModem->state};
}

void Link::setInstance(uint32_t instance) {
    kiv::MutexLock lock(mLock);
    if (instance == mInstance) return;
    mInstance = instance;
    mNeedRescan = true;
    wake();
}

std::string Link::whyNoModem() {
    kiv::MutexLock lock(mLock);
    return mModem ? std::string() : mProblem;
}

std::optional<Modem> Link::chosen() {
    kiv::MutexLock lock(mLock);
    if (!mChosen) return std::nullopt;
    return Modem{mChosen->path, mChosen->equipmentId, mChosen->deviceId,
                 mModem ? mSim : std::string(), mChosen->state};
}

std::optional<std::string> Link::modemPath() {
    kiv::MutexLock lock(mLock);
    if (!mModem) return std::nullopt;
    return mModem->path;
}

size_t Link::registeredClients() {
    kiv::MutexLock lock(mLock);
    return static_cast<size_t>(std::count_if(mClients.begin(), mClients.end(), [](const auto& c) {
        return c.second.registered && !c.second.lost && !c.second.released;
    }));
}

bool Link::waitForRegistered(size_t count, milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    kiv::MutexLock lock(mLock);
    return lock.waitUntil(mChanged, deadline, [&]() REQUIRES(mLock) {
        return static_cast<size_t>(
                       std::count_if(mClients.begin(), mClients.end(), [](const auto& c) {
                           return c.second.registered && !c.second.lost && !c.second.released;
                       })) >= count;
    });
}

bool Link::sync(milliseconds timeout, bool listAgain) {
    const auto deadline = Clock::now() + timeout;
    kiv::MutexLock lock(mLock);
    if (std::this_thread::get_id() == mEventThread) return false;
    startLocked();
    const uint64_t asked = ++mSyncAsked;
    // A table listed within the last second is taken as the modem's.
    const bool recent = mModem && mListedAt && Clock::now() - *mListedAt <= kRecentList;
    if (listAgain || !recent) mListAsked = asked;
    wake();
    return lock.waitUntil(mChanged, deadline, [&]() REQUIRES(mLock) { return mSyncDone >= asked; });
}

}  // namespace xalmm
