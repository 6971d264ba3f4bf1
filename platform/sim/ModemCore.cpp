// The simulated modem: its table, the request service (one member per
// message), its clients, the faults it plays out (FaultPlan) and what it
// lets observers see.

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

bool knownType(int32_t type) {
    return type == WDS_PROFILE_TYPE_3GPP_V01 || type == WDS_PROFILE_TYPE_3GPP2_V01;
}

template <typename T>
T readRecord(const void* bytes) {
    T record;
    memcpy(&record, bytes, sizeof(record));
    return record;
}

// Fills every string field of a settings response to its last byte.
void unterminateStrings(Settings& s) {
#define XALSIM_FILL(kind, name) XALSIM_FILL_##kind(name)
#define XALSIM_FILL_STR(name) \
    s.name##_valid = 1;       \
    memset(s.name, 'Z', sizeof(s.name));
#define XALSIM_FILL_NUM(name)
    WDS_V01_SETTINGS_FIELDS(XALSIM_FILL)
#undef XALSIM_FILL_NUM
#undef XALSIM_FILL_STR
#undef XALSIM_FILL
}

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

template <typename Response>
xal_client_error_type ModemCore::storageFailureLocked(void* response) {
    auto* out = static_cast<Response*>(response);
    out->resp.result = 1;
    out->resp.error = kErrStorage;
    if (mLastCommitErrno > 0) {
        out->extended_error_code_valid = 1;
        out->extended_error_code = static_cast<uint32_t>(mLastCommitErrno);
    }
    ++mCounters.failedRequests;
    return XAL_NO_ERR;
}

int ModemCore::lowestFreeIndexLocked(int32_t type) const {
    const auto [first, last] = indexRange(type, mConfig);
    for (int index = first; index <= last; ++index) {
        if (mTable.count({type, static_cast<uint8_t>(index)}) == 0) return index;
    }
    return -1;
}

int ModemCore::createProfileLocked(int32_t type, const Settings& settings) {
    if (!knownType(type)) return -1;
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

const ModemCore::MessageService ModemCore::kServices[] = {
        {XAL_WDS_INDICATION_REGISTER_REQ_V01, sizeof(wds_indication_register_req_msg_v01),
         sizeof(wds_generic_resp_msg_v01), &ModemCore::serveIndicationRegisterLocked},
        {XAL_WDS_CREATE_PROFILE_REQ_V01, sizeof(wds_create_profile_req_msg_v01),
         sizeof(wds_create_profile_resp_msg_v01), &ModemCore::serveCreateLocked},
        {XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, sizeof(wds_modify_profile_settings_req_msg_v01),
         sizeof(wds_modify_profile_settings_resp_msg_v01), &ModemCore::serveModifyLocked},
        {XAL_WDS_DELETE_PROFILE_REQ_V01, sizeof(wds_delete_profile_req_msg_v01),
         sizeof(wds_delete_profile_resp_msg_v01), &ModemCore::serveDeleteLocked},
        {XAL_WDS_GET_PROFILE_LIST_REQ_V01, sizeof(wds_get_profile_list_req_msg_v01),
         sizeof(wds_get_profile_list_resp_msg_v01), &ModemCore::serveListLocked},
        {XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01, sizeof(wds_get_profile_settings_req_msg_v01),
         sizeof(wds_get_profile_settings_resp_msg_v01), &ModemCore::serveSettingsLocked},
        {XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
         sizeof(wds_configure_profile_event_list_req_msg_v01), sizeof(wds_generic_resp_msg_v01),
         &ModemCore::serveEventListLocked},
        {XAL_WDS_BIND_SUBSCRIPTION_REQ_V01, sizeof(wds_bind_subscription_req_msg_v01),
         sizeof(wds_generic_resp_msg_v01), &ModemCore::serveBindLocked},
};

const ModemCore::MessageService* ModemCore::serviceOf(unsigned int msgId) {
    for (const auto& service : kServices) {
        if (service.msgId == msgId) return &service;
    }
    return nullptr;
}

xal_client_error_type ModemCore::serve(ClientId id, unsigned int msgId, const void* request,
                                       unsigned int requestLength, void* response,
                                       unsigned int responseLength, unsigned int timeoutMs) {
    kiv::MutexLock guard(mLock);
    Client* client = findLocked(id);
    if (client == nullptr || client->released || client->role != ClientRole::kService) {
        return XAL_CLIENT_INVALID_CLNT;
    }
    if (!mServiceUp || client->serviceLost) return XAL_SERVICE_ERR;
    if (mFaults.takeTransportError(msgId)) {
        touchLocked();
        return XAL_INTERNAL_ERR;
    }

    const uint8_t* bytes = static_cast<const uint8_t*>(request);
    mRequests.push_back({id, msgId, timeoutMs,
                         requestLength ? std::vector<uint8_t>(bytes, bytes + requestLength)
                                       : std::vector<uint8_t>()});
    ++mCounters.requests;
    touchLocked();
    if (mFaults.takeTimeout(msgId)) return XAL_TIMEOUT_ERR;
    const MessageService* service = serviceOf(msgId);
    const size_t needed = service ? service->responseSize : sizeof(wds_generic_resp_msg_v01);
    if (responseLength < needed) return XAL_CLIENT_PARAM_ERR;
    memset(response, 0, responseLength);
    if (auto injected = mFaults.takeInjectedResponse(msgId)) {
        if (!injected->empty()) {
            memcpy(response, injected->data(), std::min<size_t>(injected->size(), responseLength));
        }
        return XAL_NO_ERR;
    }
    if (service == nullptr || requestLength != service->requestSize) {
        return refuseLocked(response, kErrMalformedMessage);
    }
    if (mFaults.takeFailure(msgId)) return refuseLocked(response, kErrInjected);
    return (this->*service->serve)(*client, id, request, response);
}

xal_client_error_type ModemCore::refuseLocked(void* response, uint32_t error) {
    auto* header = static_cast<xal_response_type_v01*>(response);
    header->result = 1;
    header->error = error;
    ++mCounters.failedRequests;
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveBindLocked(Client& client, ClientId, const void* request,
                                                 void*) {
    client.subscription = readRecord<wds_bind_subscription_req_msg_v01>(request).subscription;
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveIndicationRegisterLocked(Client& client, ClientId id,
                                                               const void* request, void*) {
    const auto r = readRecord<wds_indication_register_req_msg_v01>(request);
    client.profileEvents = r.report_profile_changed_events_valid && r.report_profile_changed_events;
    if (client.profileEvents && client.returning) {
        client.returning = false;
        wds_profile_changed_ind_type_v01 ready{};
        ready.profile_type = WDS_PROFILE_TYPE_ALL_V01;
        ready.profile_index = 0xFF;
        ready.profile_change_evt = WDS_PROFILE_EVENT_PROFILE_READY_V01;
        postLocked(id,
                   {Event::kIndication, 0, XAL_WDS_PROFILE_CHANGED_IND_V01,
                    wire::encodeProfileChanged(&ready)},
                   Clock::now() + mConfig.indicationDelay);
    }
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveEventListLocked(Client&, ClientId, const void*, void*) {
    return XAL_NO_ERR;  // recorded with every request
}

xal_client_error_type ModemCore::serveCreateLocked(Client&, ClientId, const void* request,
                                                   void* response) {
    const auto r = readRecord<wds_create_profile_req_msg_v01>(request);
    const int32_t type = r.profile_type;
    if (!knownType(type)) return refuseLocked(response, kErrInvalidProfileType);
    const int index = lowestFreeIndexLocked(type);
    if (index < 0) return refuseLocked(response, kErrNoFreeProfile);
    Settings settings = emptySettings();
    wds::copyValidFields(settings, r);
    settings.persistent_valid = 1;
    settings.persistent = r.persistent_valid ? (r.persistent ? 1 : 0) : 1;
    const uint8_t slot = static_cast<uint8_t>(index);
    if (!commitLocked([&]() REQUIRES(mLock) { mTable[{type, slot}] = settings; })) {
        return storageFailureLocked<wds_create_profile_resp_msg_v01>(response);
    }
    auto* out = static_cast<wds_create_profile_resp_msg_v01*>(response);
    out->profile.profile_type = static_cast<wds_profile_type_enum_v01>(type);
    out->profile.profile_index = slot;
    broadcastProfileChangedLocked(type, slot, WDS_PROFILE_EVENT_CREATE_V01);
    broadcastProfileChangedLocked(type, slot, WDS_PROFILE_EVENT_MODIFY_V01);
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveModifyLocked(Client&, ClientId, const void* request,
                                                   void* response) {
    const auto r = readRecord<wds_modify_profile_settings_req_msg_v01>(request);
    auto it = mTable.find({r.profile.profile_type, r.profile.profile_index});
    if (it == mTable.end()) return refuseLocked(response, kErrInvalidProfile);
    if (!commitLocked([&]() REQUIRES(mLock) { wds::copyValidFields(it->second, r); })) {
        return storageFailureLocked<wds_modify_profile_settings_resp_msg_v01>(response);
    }
    broadcastProfileChangedLocked(r.profile.profile_type, r.profile.profile_index,
                                  WDS_PROFILE_EVENT_MODIFY_V01);
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveDeleteLocked(Client&, ClientId, const void* request,
                                                   void* response) {
    const auto r = readRecord<wds_delete_profile_req_msg_v01>(request);
    const Slot slot{r.profile.profile_type, r.profile.profile_index};
    if (mTable.count(slot) == 0) return refuseLocked(response, kErrInvalidProfile);
    if (!commitLocked([&]() REQUIRES(mLock) { mTable.erase(slot); })) {
        return storageFailureLocked<wds_delete_profile_resp_msg_v01>(response);
    }
    broadcastProfileChangedLocked(slot.first, slot.second, WDS_PROFILE_EVENT_DELETE_V01);
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveListLocked(Client&, ClientId, const void* request,
                                                 void* response) {
    const auto r = readRecord<wds_get_profile_list_req_msg_v01>(request);
    auto* out = static_cast<wds_get_profile_list_resp_msg_v01*>(response);
    const bool corrupt = mFaults.takeCorruptList();
    uint32_t count = 0;
    for (const auto& [slot, settings] : mTable) {
        if (r.profile_type_valid && slot.first != r.profile_type) continue;
        if (count == WDS_PROFILE_LIST_MAX_V01) break;
        auto& entry = out->profile_list[count++];
        entry.profile_type = static_cast<wds_profile_type_enum_v01>(slot.first);
        entry.profile_index = slot.second;
        if (corrupt) {
            memset(entry.profile_name, 'Z', sizeof(entry.profile_name));
        } else if (settings.profile_name_valid) {
            memcpy(entry.profile_name, settings.profile_name, WDS_PROFILE_NAME_MAX_V01);
        }
    }
    out->profile_list_len = corrupt ? 300 : count;
    return XAL_NO_ERR;
}

xal_client_error_type ModemCore::serveSettingsLocked(Client&, ClientId, const void* request,
                                                     void* response) {
    const auto r = readRecord<wds_get_profile_settings_req_msg_v01>(request);
    auto it = mTable.find({r.profile.profile_type, r.profile.profile_index});
    if (it == mTable.end()) return refuseLocked(response, kErrInvalidProfile);
    auto* out = static_cast<Settings*>(response);
    *out = it->second;
    out->resp = {};
    if (mFaults.takeCorruptSettings()) unterminateStrings(*out);
    return XAL_NO_ERR;
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
        if (knownType(slot.first) && slot.second >= first && slot.second <= last) continue;
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
        if (knownType(slot.first) && slot.second >= first && slot.second <= last) {
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

int ModemCore::externalCreate(wds_profile_type_enum_v01 type, const Settings& settings) {
    kiv::MutexLock guard(mLock);
    const int index = createProfileLocked(type, settings);
    if (index < 0) return -1;
    broadcastProfileChangedLocked(type, static_cast<uint8_t>(index), WDS_PROFILE_EVENT_CREATE_V01);
    broadcastProfileChangedLocked(type, static_cast<uint8_t>(index), WDS_PROFILE_EVENT_MODIFY_V01);
    return index;
}

bool ModemCore::externalModify(wds_profile_type_enum_v01 type, uint8_t index,
                               const Settings& changes) {
    kiv::MutexLock guard(mLock);
    auto it = mTable.find({type, index});
    if (it == mTable.end()) return false;
    if (!commitLocked([&]() REQUIRES(mLock) { wds::copyValidFields(it->second, changes); }))
        return false;
    broadcastProfileChangedLocked(type, index, WDS_PROFILE_EVENT_MODIFY_V01);
    return true;
}

bool ModemCore::externalDelete(wds_profile_type_enum_v01 type, uint8_t index) {
    kiv::MutexLock guard(mLock);
    if (mTable.count({type, index}) == 0) return false;
    if (!commitLocked([&]() REQUIRES(mLock) { mTable.erase({type, index}); })) return false;
    broadcastProfileChangedLocked(type, index, WDS_PROFILE_EVENT_DELETE_V01);
    return true;
}

void ModemCore::sendProfileChanged(int32_t profileType, uint8_t index, int32_t rawEvent) {
    kiv::MutexLock guard(mLock);
    broadcastProfileChangedLocked(profileType, index, rawEvent);
}

void ModemCore::sendSubscriptionChange() {
    sendProfileChanged(WDS_PROFILE_TYPE_ALL_V01, 0xFF, WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01);
}

void ModemCore::sendProfileReady() {
    sendProfileChanged(WDS_PROFILE_TYPE_ALL_V01, 0xFF, WDS_PROFILE_EVENT_PROFILE_READY_V01);
}

void ModemCore::sendUnknownIndication(unsigned int msgId) {
    sendRawIndication(msgId, {'K', 'V', 0x01, 0x00});
}

void ModemCore::sendInvalidIndication() {
    sendRawIndication(XAL_WDS_PROFILE_CHANGED_IND_V01, wire::encodeProfileChanged(nullptr));
}

void ModemCore::sendUndecodableIndication() {
    sendRawIndication(XAL_WDS_PROFILE_CHANGED_IND_V01, {'n', 'o', 'i', 's', 'e'});
}

void ModemCore::sendRawIndication(unsigned int msgId, std::vector<uint8_t> bytes) {
    kiv::MutexLock guard(mLock);
    broadcastLocked(msgId, bytes);
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
