// The simulated modem: its table, its clients, the faults it plays out
// (FaultPlan) and what it lets observers see. What it is asked (its clients'
// requests, other parties' changes, indications to send) is in
// ModemCoreRequests.cpp.

#include "ModemCore.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "wire/IndicationCodec.h"
#include "xal/wds_v01_fields.h"

namespace xalsim {

using android::base::Error;
using android::base::Result;

namespace {

bool sameTable(const Table& a, const Table& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) {
               return x.first == y.first && memcmp(&x.second, &y.second, sizeof(Settings)) == 0;
           });
}

// The indexes a profile type may use on a modem with this configuration.
std::pair<int, int> indexRange(int32_t type, const Config& config) {
    const bool threeGpp2 = type == WDS_PROFILE_TYPE_3GPP2_V01;
    const int first = threeGpp2 ? kFirst3gpp2Index : kFirst3gppIndex;
    const int capacity = threeGpp2 ? config.capacity3gpp2 : config.capacity3gpp;
    return {first, std::min(first + capacity - 1, 255)};
}

}  // namespace

ModemCore::ModemCore(EventSink sink) : mSink(std::move(sink)) {}

void ModemCore::touchLocked() {
    ++mGeneration;
    mChanged.notify_all();
}

bool ModemCore::commitLocked(const std::function<void()>& change, bool keepOnFailure) {
    if (!mCommit) {
        change();
        touchLocked();
        return true;
    }
    Table before = mTable;
    change();
    touchLocked();
    if (sameTable(before, mTable)) return true;
    const auto stored = mCommit(mTable);
    if (stored.ok()) return true;
    ++mCounters.failedCommits;
    mLastCommitError = stored.error().message().empty() ? "the table could not be stored"
                                                        : stored.error().message();
    mLastCommitErrno = stored.error().code();
    if (!keepOnFailure) mTable = std::move(before);
    return false;
}

int ModemCore::lowestFreeIndexLocked(int32_t type) const {
    const auto [first, last] = indexRange(type, mConfig);
    for (int index = first; index <= last; ++index) {
        if (mTable.count({type, static_cast<uint8_t>(index)}) == 0) return index;
    }
    return -1;
}

int ModemCore::createProfileLocked(int32_t type, const Settings& settings) {
    if (!knownProfileType(type)) return -1;
    const int index = lowestFreeIndexLocked(type);
    if (index < 0) return -1;
    Settings stored = settings;
    stored.resp = {};
    const bool kept = commitLocked([&]() REQUIRES(mLock) {
        mTable[{type, static_cast<uint8_t>(index)}] = stored;
    });
    return kept ? index : -1;
}

ModemCore::Client* ModemCore::findLocked(ClientId client) {
    auto it = mClients.find(client);
    return it == mClients.end() ? nullptr : &it->second;
}

const ModemCore::Client* ModemCore::findLocked(ClientId client) const {
    auto it = mClients.find(client);
    return it == mClients.end() ? nullptr : &it->second;
}

void ModemCore::postLocked(ClientId client, Event event, Clock::time_point due) {
    if (event.kind == Event::kIndication) ++mCounters.indicationsQueued;
    mSink(client, std::move(event), due);
    touchLocked();
}

void ModemCore::broadcastLocked(unsigned int msgId, const std::vector<uint8_t>& payload) {
    const auto due = Clock::now() + mConfig.indicationDelay;
    for (const auto& [id, client] : mClients) {
        if (client.role != ClientRole::kService || client.released || client.serviceLost ||
            !client.profileEvents) {
            continue;
        }
        postLocked(id, {Event::kIndication, 0, msgId, payload}, due);
    }
}

void ModemCore::broadcastProfileChangedLocked(int32_t type, uint8_t index, int32_t event) {
    wds_profile_changed_ind_type_v01 record{};
    record.profile_type = static_cast<wds_profile_type_enum_v01>(type);
    record.profile_index = index;
    record.profile_change_evt = static_cast<wds_profile_changed_event_enum_v01>(event);
    broadcastLocked(XAL_WDS_PROFILE_CHANGED_IND_V01, wire::encodeProfileChanged(&record));
}

void ModemCore::serviceDownLocked() {
    if (!mServiceUp) return;
    mServiceUp = false;
    const auto now = Clock::now();
    for (auto& [id, client] : mClients) {
        if (client.released) continue;
        if (client.role == ClientRole::kNotifier) {
            postLocked(id, {Event::kNotify, XAL_CLIENT_SERVICE_COUNT_DEC, 0, {}}, now);
        } else if (!client.serviceLost) {
            client.serviceLost = true;
            mServiceLoss = true;
            postLocked(id, {Event::kError, XAL_SERVICE_ERR, 0, {}}, now);
        }
    }
    // A restart keeps only what the modem stores persistently; the restart
    // happened even if the smaller table cannot be stored.
    commitLocked(
            [this]() REQUIRES(mLock) {
                for (auto it = mTable.begin(); it != mTable.end();) {
                    const bool persistent = it->second.persistent_valid && it->second.persistent;
                    it = persistent ? std::next(it) : mTable.erase(it);
                }
            },
            /*keepOnFailure=*/true);
}

void ModemCore::serviceUpLocked() {
    if (mServiceUp) return;
    mServiceUp = true;
    const auto now = Clock::now();
    for (const auto& [id, client] : mClients) {
        if (client.role == ClientRole::kNotifier && !client.released) {
            postLocked(id, {Event::kNotify, XAL_CLIENT_SERVICE_COUNT_INC, 0, {}}, now);
        }
    }
    touchLocked();
}

void ModemCore::reset(const Config& config) {
    kiv::MutexLock guard(mLock);
    mConfig = config;
    mConfig.capacity3gpp = std::clamp(mConfig.capacity3gpp, 0, kMaxCapacity3gpp);
    mConfig.capacity3gpp2 = std::clamp(mConfig.capacity3gpp2, 0, kMaxCapacity3gpp2);
    mTable.clear();
    mRequests.clear();
    mCounters = Counters();
    mFaults.clear();
    mLastCommitError.clear();
    mLastCommitErrno = 0;
    mServiceUp = true;
    touchLocked();
}

void ModemCore::clearFaults() {
    kiv::MutexLock guard(mLock);
    mFaults.clear();
}

std::vector<PendingFault> ModemCore::pendingFaults() const {
    kiv::MutexLock guard(mLock);
    return mFaults.pending();
}

Config ModemCore::config() const {
    kiv::MutexLock guard(mLock);
    return mConfig;
}

void ModemCore::setIndicationDelay(std::chrono::milliseconds delay) {
    kiv::MutexLock guard(mLock);
    mConfig.indicationDelay = delay;
}

void ModemCore::setCommitHook(CommitHook hook) {
    kiv::MutexLock guard(mLock);
    mCommit = std::move(hook);
}

Result<void> ModemCore::fitsLocked(const Table& table) const {
    for (const auto& [slot, settings] : table) {
        const auto [first, last] = indexRange(slot.first, mConfig);
        if (knownProfileType(slot.first) && slot.second >= first && slot.second <= last) continue;
        return Error() << "profile " << typeName(slot.first) << " " << static_cast<int>(slot.second)
                       << " does not fit the modem, which holds "
                       << (last >= first ? "indexes " + std::to_string(first) + " to " +
                                                   std::to_string(last)
                                         : std::string("no profiles"))
                       << " for " << typeName(slot.first);
    }
    return {};
}

Result<void> ModemCore::replaceTable(Table table) {
    kiv::MutexLock guard(mLock);
    if (auto fits = fitsLocked(table); !fits.ok()) return fits;
    mTable = std::move(table);
    touchLocked();
    return {};
}

Result<void> ModemCore::restoreTable(const Table& table) {
    kiv::MutexLock guard(mLock);
    if (auto fits = fitsLocked(table); !fits.ok()) return fits;
    if (commitLocked([&]() REQUIRES(mLock) { mTable = table; })) return {};
    return Error() << mLastCommitError;
}

Table ModemCore::table() const {
    kiv::MutexLock guard(mLock);
    return mTable;
}

Table ModemCore::fitting(const Table& table) const {
    kiv::MutexLock guard(mLock);
    Table fits;
    for (const auto& [slot, settings] : table) {
        const auto [first, last] = indexRange(slot.first, mConfig);
        if (knownProfileType(slot.first) && slot.second >= first && slot.second <= last) {
            fits.emplace(slot, settings);
        }
    }
    return fits;
}

int ModemCore::seedProfile(wds_profile_type_enum_v01 type, const Settings& settings) {
    kiv::MutexLock guard(mLock);
    return createProfileLocked(type, settings);
}

std::optional<Settings> ModemCore::getProfile(wds_profile_type_enum_v01 type, uint8_t index) const {
    kiv::MutexLock guard(mLock);
    auto it = mTable.find({type, index});
    if (it == mTable.end()) return std::nullopt;
    return it->second;
}

std::vector<Profile> ModemCore::profiles() const {
    kiv::MutexLock guard(mLock);
    std::vector<Profile> result;
    for (const auto& [slot, settings] : mTable) {
        result.push_back(
                {static_cast<wds_profile_type_enum_v01>(slot.first), slot.second, settings});
    }
    return result;
}

void ModemCore::clearProfiles() {
    kiv::MutexLock guard(mLock);
    commitLocked([this]() REQUIRES(mLock) { mTable.clear(); });
}

void ModemCore::restart() {
    kiv::MutexLock guard(mLock);
    ++mCounters.restarts;
    serviceDownLocked();
    serviceUpLocked();
}

void ModemCore::setServiceUp(bool up) {
    kiv::MutexLock guard(mLock);
    if (up) {
        serviceUpLocked();
    } else {
        serviceDownLocked();
    }
}

bool ModemCore::isServiceUp() const {
    kiv::MutexLock guard(mLock);
    return mServiceUp;
}

void ModemCore::failNext(unsigned int msgId, int count, int skip) {
    kiv::MutexLock guard(mLock);
    mFaults.failNext(msgId, count, skip);
}

void ModemCore::timeoutNext(unsigned int msgId, int count) {
    kiv::MutexLock guard(mLock);
    mFaults.timeoutNext(msgId, count);
}

void ModemCore::transportErrorNext(unsigned int msgId, int count) {
    kiv::MutexLock guard(mLock);
    mFaults.transportErrorNext(msgId, count);
}

void ModemCore::failGetAnyService(int count) {
    kiv::MutexLock guard(mLock);
    mFaults.failGetAnyService(count);
}

void ModemCore::failClientInit(int count) {
    kiv::MutexLock guard(mLock);
    mFaults.failClientInit(count);
}

void ModemCore::corruptNextList(int count) {
    kiv::MutexLock guard(mLock);
    mFaults.corruptNextList(count);
}

void ModemCore::corruptNextSettings(int count) {
    kiv::MutexLock guard(mLock);
    mFaults.corruptNextSettings(count);
}

void ModemCore::injectNextResponse(unsigned int msgId, std::vector<uint8_t> bytes) {
    kiv::MutexLock guard(mLock);
    mFaults.injectNextResponse(msgId, std::move(bytes));
}

xal_client_error_type ModemCore::openClient(ClientId id, ClientRole role, bool returning) {
    kiv::MutexLock guard(mLock);
    if (role == ClientRole::kService) {
        if (mFaults.takeClientInitFailure()) return XAL_INTERNAL_ERR;
        if (!mServiceUp) return XAL_SERVICE_ERR;
    }
    Client client;
    client.role = role;
    client.returning = returning;
    mClients[id] = client;
    touchLocked();
    return XAL_NO_ERR;
}

void ModemCore::notifierRegistered(ClientId id) {
    kiv::MutexLock guard(mLock);
    const Client* client = findLocked(id);
    if (client == nullptr || client->released || client->role != ClientRole::kNotifier) return;
    if (mServiceUp) {
        postLocked(id, {Event::kNotify, XAL_CLIENT_SERVICE_COUNT_INC, 0, {}}, Clock::now());
    }
}

void ModemCore::releaseClient(ClientId id, bool forget) {
    kiv::MutexLock guard(mLock);
    if (forget) {
        mClients.erase(id);
    } else if (Client* client = findLocked(id)) {
        client->released = true;
    }
    touchLocked();
}

bool ModemCore::hasLostService(ClientId id) const {
    kiv::MutexLock guard(mLock);
    const Client* client = findLocked(id);
    return client != nullptr && client->serviceLost;
}

xal_client_error_type ModemCore::probeService() {
    kiv::MutexLock guard(mLock);
    if (mFaults.takeGetAnyServiceFailure()) return XAL_SERVICE_ERR;
    return mServiceUp ? XAL_NO_ERR : XAL_SERVICE_ERR;
}

bool ModemCore::takeServiceLoss() {
    kiv::MutexLock guard(mLock);
    return std::exchange(mServiceLoss, false);
}

void ModemCore::noteDelivered(Event::Kind kind) {
    kiv::MutexLock guard(mLock);
    switch (kind) {
        case Event::kNotify:
            ++mCounters.notifyCallbacks;
            break;
        case Event::kError:
            ++mCounters.errorCallbacks;
            break;
        case Event::kIndication:
            ++mCounters.indicationsDelivered;
            break;
    }
    touchLocked();
}

std::vector<RecordedRequest> ModemCore::requests() const {
    kiv::MutexLock guard(mLock);
    return mRequests;
}

void ModemCore::clearRecordedRequests() {
    kiv::MutexLock guard(mLock);
    mRequests.clear();
    mRequests.shrink_to_fit();
}

std::vector<RecordedRequest> ModemCore::requests(ClientId client) const {
    kiv::MutexLock guard(mLock);
    std::vector<RecordedRequest> result;
    for (const auto& request : mRequests) {
        if (request.client == client) result.push_back(request);
    }
    return result;
}

size_t ModemCore::requestCount(unsigned int msgId) const {
    kiv::MutexLock guard(mLock);
    size_t count = 0;
    for (const auto& request : mRequests) count += request.msgId == msgId;
    return count;
}

std::vector<ClientInfo> ModemCore::clients() const {
    kiv::MutexLock guard(mLock);
    std::vector<ClientInfo> result;
    for (const auto& [id, c] : mClients) {
        result.push_back({id, c.role == ClientRole::kNotifier, c.released, c.serviceLost,
                          c.profileEvents, c.subscription});
    }
    return result;
}

Counters ModemCore::counters() const {
    kiv::MutexLock guard(mLock);
    return mCounters;
}

std::string ModemCore::lastCommitError() const {
    kiv::MutexLock guard(mLock);
    return mLastCommitError;
}

bool ModemCore::waitUntil(const std::function<bool()>& predicate,
                          std::chrono::milliseconds timeout) const {
    const auto deadline = Clock::now() + timeout;
    kiv::MutexLock guard(mLock);
    for (;;) {
        const uint64_t seen = mGeneration;
        guard.unlock();
        if (predicate()) return true;
        guard.lock();
        if (!guard.waitUntil(mChanged, deadline,
                             [&]() REQUIRES(mLock) { return mGeneration != seen; })) {
            guard.unlock();
            return predicate();
        }
    }
}

}  // namespace xalsim
