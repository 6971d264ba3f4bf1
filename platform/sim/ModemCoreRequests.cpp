// What ModemCore is asked: its clients' requests (the messages it serves,
// each with its record sizes and the member that serves it, one member per
// message), changes made by other parties, and indications to send. The
// rest of the modem is in ModemCore.cpp.

#include <algorithm>
#include <cstring>

#include "ModemCore.h"
#include "wire/IndicationCodec.h"
#include "xal/wds_v01_fields.h"

namespace xalsim {

namespace {

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

}  // namespace

const ModemCore::MessageService* ModemCore::serviceOf(unsigned int msgId) {
    // Local to this unit: a program may hold the modem twice (a test linking
    // the simulator both statically and as libxalsim), and the table must
    // not be one global object shared by both.
    static const MessageService kServices[] = {
            {XAL_WDS_INDICATION_REGISTER_REQ_V01, sizeof(wds_indication_register_req_msg_v01),
             sizeof(wds_generic_resp_msg_v01), &ModemCore::serveIndicationRegisterLocked},
            {XAL_WDS_CREATE_PROFILE_REQ_V01, sizeof(wds_create_profile_req_msg_v01),
             sizeof(wds_create_profile_resp_msg_v01), &ModemCore::serveCreateLocked},
            {XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01,
             sizeof(wds_modify_profile_settings_req_msg_v01),
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
    if (!knownProfileType(type)) return refuseLocked(response, kErrInvalidProfileType);
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

}  // namespace xalsim
