// The simulated modem: profile table, request service, callback dispatcher
// and the control and observation interface.

#include <algorithm>
#include <cstring>

#include "SimModemImpl.h"

namespace xalsim {

namespace {

// The record sizes of every message the service answers.
struct MessageSizes {
    unsigned int msgId;
    size_t request;
    size_t response;
};

constexpr MessageSizes kMessages[] = {
        {XAL_WDS_INDICATION_REGISTER_REQ_V01, sizeof(wds_indication_register_req_msg_v01),
         sizeof(wds_generic_resp_msg_v01)},
        {XAL_WDS_CREATE_PROFILE_REQ_V01, sizeof(wds_create_profile_req_msg_v01),
         sizeof(wds_create_profile_resp_msg_v01)},
        {XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, sizeof(wds_modify_profile_settings_req_msg_v01),
         sizeof(wds_modify_profile_settings_resp_msg_v01)},
        {XAL_WDS_DELETE_PROFILE_REQ_V01, sizeof(wds_delete_profile_req_msg_v01),
         sizeof(wds_delete_profile_resp_msg_v01)},
        {XAL_WDS_GET_PROFILE_LIST_REQ_V01, sizeof(wds_get_profile_list_req_msg_v01),
         sizeof(wds_get_profile_list_resp_msg_v01)},
        {XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01, sizeof(wds_get_profile_settings_req_msg_v01),
         sizeof(wds_get_profile_settings_resp_msg_v01)},
        {XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
         sizeof(wds_configure_profile_event_list_req_msg_v01), sizeof(wds_generic_resp_msg_v01)},
        {XAL_WDS_BIND_SUBSCRIPTION_REQ_V01, sizeof(wds_bind_subscription_req_msg_v01),
         sizeof(wds_generic_resp_msg_v01)},
};

// The sizes of a message, or null for one the service does not know.
const MessageSizes* sizesOf(unsigned int msgId) {
    for (const auto& message : kMessages) {
        if (message.msgId == msgId) return &message;
    }
    return nullptr;
}

bool consume(std::map<unsigned int, int>& pending, unsigned int msgId) {
    auto it = pending.find(msgId);
    if (it == pending.end() || it->second <= 0) return false;
    if (--it->second == 0) pending.erase(it);
    return true;
}

bool consume(std::map<unsigned int, SimModem::Impl::Failures>& pending, unsigned int msgId) {
    auto it = pending.find(msgId);
    if (it == pending.end()) return false;
    if (it->second.skip > 0) {
        --it->second.skip;
        return false;
    }
    if (--it->second.count <= 0) pending.erase(it);
    return true;
}

bool consume(int& pending) {
    if (pending <= 0) return false;
    --pending;
    return true;
}

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
    XALSIM_SETTINGS_FIELDS(XALSIM_FILL)
#undef XALSIM_FILL_NUM
#undef XALSIM_FILL_STR
#undef XALSIM_FILL
}

}  // namespace

Settings emptySettings() {
    Settings s;
    memset(&s, 0, sizeof(s));
    return s;
}

Settings make3gppSettings(const std::string& profileName, const std::string& apn,
                          wds_pdp_type_enum_v01 pdpType, uint64_t apnTypeMask, bool persistent) {
    Settings s = emptySettings();
    setText(s.profile_name_valid, s.profile_name, profileName);
    setText(s.apn_name_valid, s.apn_name, apn);
    s.pdp_type_valid = 1;
    s.pdp_type = pdpType;
    s.apn_type_mask_valid = 1;
    s.apn_type_mask = apnTypeMask;
    s.persistent_valid = 1;
    s.persistent = persistent ? 1 : 0;
    return s;
}

Settings make3gpp2Settings(const std::string& apn, wds_profile_pdn_type_enum_v01 pdnType,
                           bool persistent) {
    Settings s = emptySettings();
    setText(s.apn_string_valid, s.apn_string, apn);
    s.pdn_type_valid = 1;
    s.pdn_type = pdnType;
    s.persistent_valid = 1;
    s.persistent = persistent ? 1 : 0;
    return s;
}

// --- Impl ---------------------------------------------------------------------

SimModem::Impl::Impl() : dispatcher([this] { runDispatcher(); }) {}

void SimModem::Impl::touch() {
    ++generation;
    changed.notify_all();
}

void SimModem::Impl::queue(Task task) {
    tasks.push_back(std::move(task));
    tasksReady.notify_one();
    touch();
}

void SimModem::Impl::runDispatcher() {
    std::unique_lock<std::mutex> guard(lock);
    for (;;) {
        tasksReady.wait(guard, [this] { return !tasks.empty(); });
        if (Clock::now() < tasks.front().due) {
            tasksReady.wait_until(guard, tasks.front().due);
            continue;
        }
        Task task = std::move(tasks.front());
        tasks.pop_front();
        xal_client_struct* client = findClient(task.client);
        if (client == nullptr || client->released) {
            touch();
            continue;
        }
        dispatching = true;
        dispatchingClient = task.client;
        const xal_client_struct callbacks = *client;
        guard.unlock();
        switch (task.kind) {
            case Task::kNotify:
                if (callbacks.notifyCb) {
                    callbacks.notifyCb(task.client, wdsServiceObject(),
                                       static_cast<xal_client_notify_event_type>(task.event),
                                       callbacks.notifyData);
                }
                break;
            case Task::kError:
                if (callbacks.errorCb)
                    callbacks.errorCb(task.client, task.event, callbacks.errorData);
                break;
            case Task::kIndication:
                if (callbacks.indCb) {
                    callbacks.indCb(task.client, task.msgId, task.payload.data(),
                                    static_cast<unsigned int>(task.payload.size()),
                                    callbacks.indData);
                }
                break;
        }
        guard.lock();
        switch (task.kind) {
            case Task::kNotify:
                ++counters.notifyCallbacks;
                break;
            case Task::kError:
                ++counters.errorCallbacks;
                break;
            case Task::kIndication:
                ++counters.indicationsDelivered;
                break;
        }
        dispatching = false;
        dispatchingClient = nullptr;
        touch();
    }
}

xal_client_struct* SimModem::Impl::findClient(xal_client_type handle) {
    auto it = clients.find(handle);
    return it == clients.end() ? nullptr : it->second.get();
}

int SimModem::Impl::lowestFreeIndex(int32_t type) const {
    const bool threeGpp2 = type == WDS_PROFILE_TYPE_3GPP2_V01;
    const int first = threeGpp2 ? kFirst3gpp2Index : kFirst3gppIndex;
    const int capacity = threeGpp2 ? config.capacity3gpp2 : config.capacity3gpp;
    for (int index = first; index < first + capacity && index <= 255; ++index) {
        if (table.count({type, static_cast<uint8_t>(index)}) == 0) return index;
    }
    return -1;
}

int SimModem::Impl::createProfile(int32_t type, const Settings& settings) {
    if (!knownType(type)) return -1;
    const int index = lowestFreeIndex(type);
    if (index < 0) return -1;
    Settings stored = settings;
    stored.resp = {};
    table[{type, static_cast<uint8_t>(index)}] = stored;
    touch();
    return index;
}

void SimModem::Impl::broadcast(unsigned int msgId, std::vector<uint8_t> payload) {
    const auto due = Clock::now() + config.indicationDelay;
    for (auto& [handle, client] : clients) {
        if (client->notifier || client->released || client->serviceLost || !client->profileEvents ||
            client->indCb == nullptr) {
            continue;
        }
        Task task{Task::kIndication, handle, due};
        task.msgId = msgId;
        task.payload = payload;
        ++counters.indicationsQueued;
        queue(std::move(task));
    }
}

void SimModem::Impl::broadcastProfileChanged(int32_t type, uint8_t index, int32_t event) {
    wds_profile_changed_ind_type_v01 record{};
    record.profile_type = static_cast<wds_profile_type_enum_v01>(type);
    record.profile_index = index;
    record.profile_change_evt = static_cast<wds_profile_changed_event_enum_v01>(event);
    broadcast(XAL_WDS_PROFILE_CHANGED_IND_V01, encodeProfileChanged(&record));
}

void SimModem::Impl::serviceDown() {
    if (!serviceUp) return;
    serviceUp = false;
    const auto now = Clock::now();
    for (auto& [handle, client] : clients) {
        if (client->released) continue;
        if (client->notifier) {
            if (client->notifyCb) queue({Task::kNotify, handle, now, XAL_CLIENT_SERVICE_COUNT_DEC});
        } else if (!client->serviceLost) {
            client->serviceLost = true;
            if (client->errorCb) queue({Task::kError, handle, now, XAL_SERVICE_ERR});
        }
    }
    // A restart keeps only what the modem stores persistently.
    for (auto it = table.begin(); it != table.end();) {
        const bool persistent = it->second.persistent_valid && it->second.persistent;
        it = persistent ? std::next(it) : table.erase(it);
    }
    touch();
}

void SimModem::Impl::serviceUpAgain() {
    if (serviceUp) return;
    serviceUp = true;
    const auto now = Clock::now();
    for (auto& [handle, client] : clients) {
        if (client->notifier && !client->released && client->notifyCb) {
            queue({Task::kNotify, handle, now, XAL_CLIENT_SERVICE_COUNT_INC});
        }
    }
    touch();
}

xal_client_error_type SimModem::Impl::serve(xal_client_struct* client, unsigned int msgId,
                                            const void* request, unsigned int requestLength,
                                            void* response, unsigned int responseLength) {
    const uint8_t* bytes = static_cast<const uint8_t*>(request);
    requests.push_back({reinterpret_cast<xal_client_type>(client), msgId,
                        std::vector<uint8_t>(bytes, bytes + requestLength)});
    ++counters.requests;
    touch();
    if (consume(timeouts, msgId)) return XAL_TIMEOUT_ERR;
    const MessageSizes* sizes = sizesOf(msgId);
    const size_t needed = sizes ? sizes->response : sizeof(wds_generic_resp_msg_v01);
    if (responseLength < needed) return XAL_CLIENT_PARAM_ERR;
    memset(response, 0, responseLength);
    if (auto injected = injectedResponses.find(msgId); injected != injectedResponses.end()) {
        const auto& bytes = injected->second;
        if (!bytes.empty()) {
            memcpy(response, bytes.data(), std::min<size_t>(bytes.size(), responseLength));
        }
        injectedResponses.erase(injected);
        return XAL_NO_ERR;
    }

    auto* header = static_cast<xal_response_type_v01*>(response);
    auto fail = [&](uint32_t error) {
        header->result = 1;
        header->error = error;
        ++counters.failedRequests;
        return XAL_NO_ERR;
    };
    if (sizes == nullptr || requestLength != sizes->request) {
        return fail(kErrMalformedMessage);
    }
    if (consume(failures, msgId)) return fail(kErrInjected);

    switch (msgId) {
        case XAL_WDS_BIND_SUBSCRIPTION_REQ_V01:
            client->subscription =
                    readRecord<wds_bind_subscription_req_msg_v01>(request).subscription;
            return XAL_NO_ERR;
        case XAL_WDS_INDICATION_REGISTER_REQ_V01: {
            const auto r = readRecord<wds_indication_register_req_msg_v01>(request);
            client->profileEvents =
                    r.report_profile_changed_events_valid && r.report_profile_changed_events;
            return XAL_NO_ERR;
        }
        case XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01:
            return XAL_NO_ERR;  // recorded above
        case XAL_WDS_CREATE_PROFILE_REQ_V01: {
            const auto r = readRecord<wds_create_profile_req_msg_v01>(request);
            const int32_t type = r.profile_type;
            if (!knownType(type)) return fail(kErrInvalidProfileType);
            Settings settings = emptySettings();
            copyValidFields(settings, r);
            settings.persistent_valid = 1;
            settings.persistent = r.persistent_valid ? (r.persistent ? 1 : 0) : 1;
            const int index = createProfile(type, settings);
            if (index < 0) return fail(kErrNoFreeProfile);
            auto* out = static_cast<wds_create_profile_resp_msg_v01*>(response);
            out->profile.profile_type = static_cast<wds_profile_type_enum_v01>(type);
            out->profile.profile_index = static_cast<uint8_t>(index);
            broadcastProfileChanged(type, static_cast<uint8_t>(index),
                                    WDS_PROFILE_EVENT_CREATE_V01);
            broadcastProfileChanged(type, static_cast<uint8_t>(index),
                                    WDS_PROFILE_EVENT_MODIFY_V01);
            return XAL_NO_ERR;
        }
        case XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01: {
            const auto r = readRecord<wds_modify_profile_settings_req_msg_v01>(request);
            auto it = table.find({r.profile.profile_type, r.profile.profile_index});
            if (it == table.end()) return fail(kErrInvalidProfile);
            copyValidFields(it->second, r);
            broadcastProfileChanged(r.profile.profile_type, r.profile.profile_index,
                                    WDS_PROFILE_EVENT_MODIFY_V01);
            return XAL_NO_ERR;
        }
        case XAL_WDS_DELETE_PROFILE_REQ_V01: {
            const auto r = readRecord<wds_delete_profile_req_msg_v01>(request);
            if (table.erase({r.profile.profile_type, r.profile.profile_index}) == 0) {
                return fail(kErrInvalidProfile);
            }
            broadcastProfileChanged(r.profile.profile_type, r.profile.profile_index,
                                    WDS_PROFILE_EVENT_DELETE_V01);
            return XAL_NO_ERR;
        }
        case XAL_WDS_GET_PROFILE_LIST_REQ_V01: {
            const auto r = readRecord<wds_get_profile_list_req_msg_v01>(request);
            auto* out = static_cast<wds_get_profile_list_resp_msg_v01*>(response);
            const bool corrupt = consume(corruptLists);
            uint32_t count = 0;
            for (const auto& [key, settings] : table) {
                if (r.profile_type_valid && key.first != r.profile_type) continue;
                if (count == WDS_PROFILE_LIST_MAX_V01) break;
                auto& entry = out->profile_list[count++];
                entry.profile_type = static_cast<wds_profile_type_enum_v01>(key.first);
                entry.profile_index = key.second;
                if (corrupt) {
                    memset(entry.profile_name, 'Z', sizeof(entry.profile_name));
                } else if (settings.profile_name_valid) {
                    memcpy(entry.profile_name, settings.profile_name, WDS_PROFILE_NAME_MAX_V01);
                }
            }
            out->profile_list_len = corrupt ? 300 : count;
            return XAL_NO_ERR;
        }
        case XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01: {
            const auto r = readRecord<wds_get_profile_settings_req_msg_v01>(request);
            auto it = table.find({r.profile.profile_type, r.profile.profile_index});
            if (it == table.end()) return fail(kErrInvalidProfile);
            auto* out = static_cast<Settings*>(response);
            *out = it->second;
            out->resp = {};
            if (consume(corruptSettings)) unterminateStrings(*out);
            return XAL_NO_ERR;
        }
        default:
            return fail(kErrMalformedMessage);
    }
}

// --- SimModem ------------------------------------------------------------------

SimModem::SimModem() : mImpl(new Impl) {}

SimModem& SimModem::instance() {
    // Immortal: the library may still talk to it while the process exits.
    static SimModem* sInstance = new SimModem;
    return *sInstance;
}

void SimModem::reset(const Config& config) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    Impl& m = *mImpl;
    m.config = config;
    if (m.config.capacity3gpp < 0) m.config.capacity3gpp = 0;
    if (m.config.capacity3gpp > 255) m.config.capacity3gpp = 255;
    if (m.config.capacity3gpp2 < 0) m.config.capacity3gpp2 = 0;
    if (m.config.capacity3gpp2 > 155) m.config.capacity3gpp2 = 155;
    m.table.clear();
    m.requests.clear();
    m.counters = Counters();
    m.failures.clear();
    m.timeouts.clear();
    m.getAnyServiceFailures = m.clientInitFailures = 0;
    m.corruptLists = m.corruptSettings = 0;
    m.injectedResponses.clear();
    m.serviceUp = true;
    m.touch();
}

void SimModem::setIndicationDelay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->config.indicationDelay = delay;
}

int SimModem::seedProfile(wds_profile_type_enum_v01 type, const Settings& settings) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->createProfile(type, settings);
}

std::optional<Settings> SimModem::getProfile(wds_profile_type_enum_v01 type, uint8_t index) const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    auto it = mImpl->table.find({type, index});
    if (it == mImpl->table.end()) return std::nullopt;
    return it->second;
}

std::vector<Profile> SimModem::profiles() const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    std::vector<Profile> result;
    for (const auto& [key, settings] : mImpl->table) {
        result.push_back({static_cast<wds_profile_type_enum_v01>(key.first), key.second, settings});
    }
    return result;
}

void SimModem::clearProfiles() {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->table.clear();
    mImpl->touch();
}

int SimModem::externalCreate(wds_profile_type_enum_v01 type, const Settings& settings) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    const int index = mImpl->createProfile(type, settings);
    if (index < 0) return -1;
    mImpl->broadcastProfileChanged(type, static_cast<uint8_t>(index), WDS_PROFILE_EVENT_CREATE_V01);
    mImpl->broadcastProfileChanged(type, static_cast<uint8_t>(index), WDS_PROFILE_EVENT_MODIFY_V01);
    return index;
}

bool SimModem::externalModify(wds_profile_type_enum_v01 type, uint8_t index,
                              const Settings& changes) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    auto it = mImpl->table.find({type, index});
    if (it == mImpl->table.end()) return false;
    copyValidFields(it->second, changes);
    mImpl->touch();
    mImpl->broadcastProfileChanged(type, index, WDS_PROFILE_EVENT_MODIFY_V01);
    return true;
}

bool SimModem::externalDelete(wds_profile_type_enum_v01 type, uint8_t index) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    if (mImpl->table.erase({type, index}) == 0) return false;
    mImpl->touch();
    mImpl->broadcastProfileChanged(type, index, WDS_PROFILE_EVENT_DELETE_V01);
    return true;
}

void SimModem::sendProfileChanged(int32_t profileType, uint8_t index, int32_t rawEvent) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->broadcastProfileChanged(profileType, index, rawEvent);
}

void SimModem::sendSubscriptionChange() {
    sendProfileChanged(WDS_PROFILE_TYPE_ALL_V01, 0xFF, WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01);
}

void SimModem::sendProfileReady() {
    sendProfileChanged(WDS_PROFILE_TYPE_ALL_V01, 0xFF, WDS_PROFILE_EVENT_PROFILE_READY_V01);
}

void SimModem::sendUnknownIndication(unsigned int msgId) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->broadcast(msgId, {0x4B, 0x56, 0x01, 0x00});
}

void SimModem::sendInvalidIndication() {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->broadcast(XAL_WDS_PROFILE_CHANGED_IND_V01, encodeProfileChanged(nullptr));
}

void SimModem::sendUndecodableIndication() {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->broadcast(XAL_WDS_PROFILE_CHANGED_IND_V01, {'n', 'o', 'i', 's', 'e'});
}

void SimModem::sendRawIndication(unsigned int msgId, std::vector<uint8_t> bytes) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->broadcast(msgId, std::move(bytes));
}

bool SimModem::waitForCallbacks(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> guard(mImpl->lock);
    return mImpl->changed.wait_for(guard, timeout,
                                   [this] { return mImpl->tasks.empty() && !mImpl->dispatching; });
}

void SimModem::restart() {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    ++mImpl->counters.restarts;
    mImpl->serviceDown();
    mImpl->serviceUpAgain();
}

void SimModem::setServiceUp(bool up) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    if (up) {
        mImpl->serviceUpAgain();
    } else {
        mImpl->serviceDown();
    }
}

bool SimModem::isServiceUp() const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->serviceUp;
}

void SimModem::failNext(unsigned int msgId, int count, int skip) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    if (count <= 0) {
        mImpl->failures.erase(msgId);
    } else {
        mImpl->failures[msgId] = {skip < 0 ? 0 : skip, count};
    }
}

void SimModem::timeoutNext(unsigned int msgId, int count) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->timeouts[msgId] = count;
}

void SimModem::failGetAnyService(int count) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->getAnyServiceFailures = count;
}

void SimModem::failClientInit(int count) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->clientInitFailures = count;
}

void SimModem::corruptNextList(int count) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->corruptLists = count;
}

void SimModem::injectNextResponse(unsigned int msgId, std::vector<uint8_t> bytes) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->injectedResponses[msgId] = std::move(bytes);
}

void SimModem::corruptNextSettings(int count) {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->corruptSettings = count;
}

std::vector<RecordedRequest> SimModem::requests() const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->requests;
}

void SimModem::clearRecordedRequests() {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    mImpl->requests.clear();
    mImpl->requests.shrink_to_fit();
}

std::vector<RecordedRequest> SimModem::requests(xal_client_type client) const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    std::vector<RecordedRequest> result;
    for (const auto& request : mImpl->requests) {
        if (request.client == client) result.push_back(request);
    }
    return result;
}

size_t SimModem::requestCount(unsigned int msgId) const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    size_t count = 0;
    for (const auto& request : mImpl->requests) count += request.msgId == msgId;
    return count;
}

std::vector<ClientInfo> SimModem::clients() const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    std::vector<ClientInfo> result;
    for (const auto& [handle, c] : mImpl->clients) {
        result.push_back({handle, c->notifier, c->released, c->serviceLost, c->profileEvents,
                          c->subscription});
    }
    return result;
}

Counters SimModem::counters() const {
    std::lock_guard<std::mutex> guard(mImpl->lock);
    return mImpl->counters;
}

bool SimModem::waitUntil(const std::function<bool()>& predicate,
                         std::chrono::milliseconds timeout) const {
    const auto deadline = Clock::now() + timeout;
    std::unique_lock<std::mutex> guard(mImpl->lock);
    for (;;) {
        const uint64_t seen = mImpl->generation;
        guard.unlock();
        if (predicate()) return true;
        guard.lock();
        if (!mImpl->changed.wait_until(guard, deadline,
                                       [&] { return mImpl->generation != seen; })) {
            guard.unlock();
            return predicate();
        }
    }
}

}  // namespace xalsim
