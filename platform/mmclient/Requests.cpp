// The messaging client's requests over the modem manager: registration in
// this library, the profile requests through the profile manager's List,
// Set and Delete.

#include <android/log.h>

#include <cstring>

#include "mm/MmNames.h"
#include "mmclient/Link.h"
#include "wire/IndicationCodec.h"
#include "xal/wds_v01_fields.h"

namespace xalmm {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct MessageSizes {
    unsigned int msgId;
    size_t request;
    size_t response;
};
constexpr MessageSizes kMessages[] = {
        {XAL_WDS_BIND_SUBSCRIPTION_REQ_V01, sizeof(wds_bind_subscription_req_msg_v01),
         sizeof(wds_generic_resp_msg_v01)},
        {XAL_WDS_INDICATION_REGISTER_REQ_V01, sizeof(wds_indication_register_req_msg_v01),
         sizeof(wds_generic_resp_msg_v01)},
        {XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
         sizeof(wds_configure_profile_event_list_req_msg_v01), sizeof(wds_generic_resp_msg_v01)},
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
};

const MessageSizes* sizesOf(unsigned int msgId) {
    for (const auto& message : kMessages) {
        if (message.msgId == msgId) return &message;
    }
    return nullptr;
}

template <typename Record>
Record readRecord(const void* request) {
    Record record;
    memcpy(&record, request, sizeof(record));
    return record;
}

std::string textOf(const mm::ProfileDict& profile, const char* key) {
    auto it = profile.find(key);
    if (it == profile.end()) return {};
    const auto* text = std::get_if<std::string>(&it->second);
    return text == nullptr ? std::string() : *text;
}

template <size_t N>
std::string textOfField(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// Whether the stored profile holds the name written; nothing: the modem
// keeps no names at all.
std::optional<bool> nameHeld(const mm::Settings& written, const mm::ProfileDict& stored) {
    if (!written.profile_name_valid) return true;
    if (stored.count("profile-name") == 0) return std::nullopt;
    return textOf(stored, "profile-name") == textOfField(written.profile_name);
}

std::string quote(const std::string& text) {
    return "'" + text + "'";
}

}  // namespace

xal_client_error_type Link::sendSync(xal_client_type handle, unsigned int msgId,
                                     const void* request, unsigned int requestLength,
                                     void* response, unsigned int responseLength,
                                     unsigned int timeoutMs) {
    wire::RequestHook hook;
    {
        kiv::MutexLock lock(mLock);
        hook = mHook;
    }
    if (hook) {
        if (auto answer = hook(handle, msgId, request, requestLength, response, responseLength)) {
            kiv::MutexLock lock(mLock);
            if (findLocked(handle) != nullptr) {
                for (auto& [id, payload] : answer->indications) {
                    queueLocked(idOf(handle), Delivery::kIndication, static_cast<int>(id),
                                std::move(payload));
                }
            }
            lock.unlock();
            observe({handle, msgId, XAL_NO_ERR, false, response, responseLength});
            return XAL_NO_ERR;
        }
    }
    bool sent = false;
    const xal_client_error_type result =
            serve(handle, msgId, request, requestLength, response, responseLength, timeoutMs, sent);
    {
        // What was announced before the answer has reached the callbacks
        // before the caller has the answer, as the library counts on (a
        // change that predates its own write must arrive before it). Not
        // from a callback, which would wait for itself.
        kiv::MutexLock lock(mLock);
        if (std::this_thread::get_id() != mEventThread) {
            const uint64_t queued = mQueued;
            lock.waitUntil(mChanged, Clock::now() + milliseconds(timeoutMs > 0 ? timeoutMs : 1),
                           [&]() REQUIRES(mLock) { return mDelivered >= queued; });
        }
    }
    observe({handle, msgId, result, sent, result == XAL_NO_ERR ? response : nullptr,
             result == XAL_NO_ERR ? responseLength : 0});
    return result;
}

void Link::setRequestHook(wire::RequestHook hook) {
    kiv::MutexLock lock(mLock);
    mHook = std::move(hook);
}

void Link::setRequestObserver(wire::RequestObserver observer) {
    kiv::MutexLock lock(mLock);
    mObserver = std::move(observer);
}

void Link::observe(const wire::RequestOutcome& outcome) {
    wire::RequestObserver observer;
    {
        kiv::MutexLock lock(mLock);
        observer = mObserver;
    }
    if (observer) observer(outcome);
}

xal_client_error_type Link::serve(xal_client_type handle, unsigned int msgId, const void* request,
                                  unsigned int requestLength, void* response,
                                  unsigned int responseLength, unsigned int timeoutMs, bool& sent) {
    const MessageSizes* sizes = sizesOf(msgId);
    const size_t needed = sizes != nullptr ? sizes->response : sizeof(wds_generic_resp_msg_v01);
    if (responseLength < needed) return XAL_CLIENT_PARAM_ERR;
    memset(response, 0, responseLength);
    {
        kiv::MutexLock lock(mLock);
        Client* client = findLocked(handle);
        if (client == nullptr || client->notifier) return XAL_CLIENT_INVALID_CLNT;
        if (client->lost || !mModem) return XAL_SERVICE_ERR;
        if (sizes == nullptr || requestLength != sizes->request) {
            auto* header = static_cast<xal_response_type_v01*>(response);
            header->result = 1;
            header->error = kErrMalformed;
            return XAL_NO_ERR;
        }
        switch (msgId) {
            case XAL_WDS_BIND_SUBSCRIPTION_REQ_V01: {
                const uint32_t instance =
                        readRecord<wds_bind_subscription_req_msg_v01>(request).subscription;
                if (instance != mInstance && mSettings.modem.empty()) {
                    // Another place among the modems: found on the next scan.
                    mInstance = instance;
                    mNeedRescan = true;
                    wake();
                }
                return XAL_NO_ERR;
            }
            case XAL_WDS_INDICATION_REGISTER_REQ_V01: {
                const auto r = readRecord<wds_indication_register_req_msg_v01>(request);
                client->events =
                        r.report_profile_changed_events_valid && r.report_profile_changed_events;
                if (client->events && client->returning) {
                    // The table may have changed while the service was away.
                    client->returning = false;
                    mReturning = false;
                    wds_profile_changed_ind_type_v01 ready{WDS_PROFILE_TYPE_ALL_V01, 0xFF,
                                                           WDS_PROFILE_EVENT_PROFILE_READY_V01};
                    queueLocked(idOf(handle), Delivery::kIndication,
                                XAL_WDS_PROFILE_CHANGED_IND_V01,
                                wire::encodeProfileChanged(&ready));
                }
                if (client->events && mSubscriptionChanged) {
                    mSubscriptionChanged = false;
                    wds_profile_changed_ind_type_v01 change{
                            WDS_PROFILE_TYPE_ALL_V01, 0xFF,
                            WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01};
                    queueLocked(idOf(handle), Delivery::kIndication,
                                XAL_WDS_PROFILE_CHANGED_IND_V01,
                                wire::encodeProfileChanged(&change));
                }
                return XAL_NO_ERR;
            }
            case XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01:
                client->registered = true;
                mChanged.notify_all();
                return XAL_NO_ERR;
            default:
                break;
        }
    }
    const milliseconds timeout(timeoutMs > 0 ? timeoutMs : 1);
    // It goes to the modem manager: unanswered, it may have been done.
    sent = true;
    switch (msgId) {
        case XAL_WDS_GET_PROFILE_LIST_REQ_V01:
            return serveList(request, response, timeout);
        case XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01:
            return serveSettings(request, response, timeout);
        case XAL_WDS_CREATE_PROFILE_REQ_V01:
            return serveCreate(request, response, timeout);
        case XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01:
            return serveModify(request, response, timeout);
        default:
            return serveDelete(request, response, timeout);
    }
}

xal_client_error_type Link::refuse(void* response, uint32_t error, const std::string& why) {
    log(ANDROID_LOG_ERROR, "xalmm: " + why);
    auto* header = static_cast<xal_response_type_v01*>(response);
    header->result = 1;
    header->error = error;
    return XAL_NO_ERR;
}

xal_client_error_type Link::failedCall(const char* what, const CallError& error, void* response) {
    switch (error.kind) {
        case CallError::kNone:
            return XAL_NO_ERR;
        case CallError::kTimeout:
            log(ANDROID_LOG_ERROR, std::string("xalmm: ") + what + " got no answer in time (" +
                                           error.describe() + ")");
            return XAL_TIMEOUT_ERR;
        case CallError::kGone: {
            log(ANDROID_LOG_ERROR, std::string("xalmm: ") + what +
                                           " failed: the modem manager "
                                           "or the modem is gone (" +
                                           error.describe() + ")");
            kiv::MutexLock lock(mLock);
            mNeedRescan = true;
            wake();
            return XAL_SERVICE_ERR;
        }
        case CallError::kRefused:
            break;
    }
    uint32_t code = kErrRefused;
    if (error.name == mm::kErrorNotFound) {
        code = kErrInvalidProfile;
    } else if (error.name == mm::kErrorConnected) {
        code = kErrInUse;
    } else if (error.name == mm::kErrorInvalidArgs) {
        code = kErrMalformed;
    } else if (error.name == mm::kErrorWrongState) {
        code = kErrNotEnabled;
        kiv::MutexLock lock(mLock);
        mNeedRescan = true;
        wake();
    } else if (error.message.find("No empty profile") != std::string::npos) {
        code = kErrNoFreeProfile;
    }
    return refuse(response, code, std::string(what) + " refused: " + error.describe());
}

xal_client_error_type Link::listTable(Table& table, void* response, milliseconds timeout) {
    const auto path = modemPath();
    if (!path) return XAL_SERVICE_ERR;
    std::vector<mm::ProfileDict> profiles;
    const CallError error = mCalls.isOpen()
                                    ? mCalls.list(*path, profiles, timeout)
                                    : CallError{CallError::kGone, "", "not connected to the bus"};
    if (!error.ok()) return failedCall("List", error, response);
    table = tableOf(profiles);
    // What this read shows is what the modem holds: a change not yet
    // announced is announced now.
    kiv::MutexLock lock(mLock);
    if (mModem && mModem->path == *path) {
        compareLocked(table);
        mListedAt = Clock::now();
    }
    return XAL_NO_ERR;
}

bool Link::recentTable(Table& table) {
    kiv::MutexLock lock(mLock);
    if (!mModem || !mListedAt || Clock::now() - *mListedAt > kRecentList) return false;
    table = mTable;
    return true;
}

mm::Settings Link::readSettings(int32_t index, const mm::ProfileDict& profile) {
    mm::Settings settings = mm::settingsFromDict(profile);
    if (auto made = mRecord.find(index, textOf(profile, "apn"))) {
        if (made->temporary) settings.persistent = 0;
        if (made->name && !settings.profile_name_valid) {
            const std::string& name = *made->name;
            settings.profile_name_valid = 1;
            const size_t n = std::min(name.size(), sizeof(settings.profile_name) - 1);
            memcpy(settings.profile_name, name.data(), n);
        }
    }
    return settings;
}

android::base::Result<std::vector<std::pair<uint8_t, mm::Settings>>> Link::profiles(
        milliseconds timeout) {
    kiv::MutexLock calls(mCallLock);
    wds_get_profile_list_resp_msg_v01 response = {};
    Table table;
    const xal_client_error_type result =
            recentTable(table) ? XAL_NO_ERR : listTable(table, &response, timeout);
    if (result != XAL_NO_ERR || response.resp.result != 0) {
        return android::base::Error() << "the modem manager's table cannot be read ("
                                      << (result == XAL_TIMEOUT_ERR   ? "no answer in time"
                                          : result == XAL_SERVICE_ERR ? "the modem is not there"
                                                                      : "refused")
                                      << ")";
    }
    std::vector<std::pair<uint8_t, mm::Settings>> profiles;
    kiv::MutexLock lock(mLock);
    for (const auto& [index, profile] : table) {
        profiles.emplace_back(static_cast<uint8_t>(index), readSettings(index, profile));
    }
    return profiles;
}

xal_client_error_type Link::serveList(const void* request, void* response, milliseconds timeout) {
    const auto r = readRecord<wds_get_profile_list_req_msg_v01>(request);
    auto* out = static_cast<wds_get_profile_list_resp_msg_v01*>(response);
    if (r.profile_type_valid && r.profile_type == WDS_PROFILE_TYPE_3GPP2_V01) {
        return XAL_NO_ERR;  // the modem manager keeps no 3GPP2 profiles: none
    }
    if (r.profile_type_valid && r.profile_type != WDS_PROFILE_TYPE_3GPP_V01 &&
        r.profile_type != WDS_PROFILE_TYPE_ALL_V01) {
        return refuse(response, kErrInvalidProfileType,
                      "list: unknown profile type " + std::to_string(r.profile_type));
    }
    kiv::MutexLock calls(mCallLock);
    Table table;
    const xal_client_error_type result = listTable(table, response, timeout);
    if (result != XAL_NO_ERR || out->resp.result != 0) return result;
    kiv::MutexLock lock(mLock);
    for (const auto& [index, profile] : table) {
        if (out->profile_list_len >= std::size(out->profile_list)) break;
        auto& entry = out->profile_list[out->profile_list_len++];
        entry.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
        entry.profile_index = static_cast<uint8_t>(index);
        const mm::Settings settings = readSettings(index, profile);
        memcpy(entry.profile_name, settings.profile_name, sizeof(entry.profile_name));
    }
    return XAL_NO_ERR;
}

xal_client_error_type Link::serveSettings(const void* request, void* response,
                                          milliseconds timeout) {
    const auto r = readRecord<wds_get_profile_settings_req_msg_v01>(request);
    if (r.profile.profile_type != WDS_PROFILE_TYPE_3GPP_V01) {
        return refuse(response, kErrInvalidProfileType,
                      "settings of a profile of type " + std::to_string(r.profile.profile_type) +
                              ": the modem manager keeps 3GPP profiles only");
    }
    kiv::MutexLock calls(mCallLock);
    Table table;
    auto* out = static_cast<wds_get_profile_settings_resp_msg_v01*>(response);
    if (!recentTable(table)) {
        const xal_client_error_type result = listTable(table, response, timeout);
        if (result != XAL_NO_ERR || out->resp.result != 0) return result;
    }
    auto it = table.find(r.profile.profile_index);
    if (it == table.end()) {
        return refuse(response, kErrInvalidProfile,
                      "settings: no profile " + std::to_string(r.profile.profile_index));
    }
    kiv::MutexLock lock(mLock);
    *out = readSettings(it->first, it->second);
    out->resp = {};
    return XAL_NO_ERR;
}

xal_client_error_type Link::serveCreate(const void* request, void* response, milliseconds timeout) {
    const auto r = readRecord<wds_create_profile_req_msg_v01>(request);
    if (r.profile_type != WDS_PROFILE_TYPE_3GPP_V01) {
        return refuse(response, kErrInvalidProfileType,
                      "create: profiles of type " + std::to_string(r.profile_type) +
                              " cannot be made: the modem manager keeps 3GPP profiles only");
    }
    mm::Settings written = {};
    wds::copyValidFields(written, r);
    const bool temporary = r.persistent_valid && r.persistent == 0;
    auto requested = mm::mergeRequest(written, {});
    if (!requested.ok()) {
        return refuse(response, kErrNotHeld,
                      "create: the modem cannot hold " + requested.error().message());
    }

    kiv::MutexLock calls(mCallLock);
    const auto path = modemPath();
    if (!path) return XAL_SERVICE_ERR;
    mm::ProfileDict stored;
    CallError error = mCalls.set(*path, *requested, stored, timeout);
    if (!error.ok()) return failedCall("create (Set)", error, response);
    const auto index = mm::profileIndex(stored);
    if (!index || *index < 1 || *index > 255) {
        return refuse(response, kErrRefused,
                      "create: the modem manager stored the profile "
                      "without an index this client can use");
    }
    // What the modem did not keep fails the request, and the profile goes.
    auto notHeld = mm::firstNotHeld(*requested, stored);
    const auto name = nameHeld(written, stored);
    if (!notHeld && name == std::optional<bool>(false)) notHeld = "profile-name";
    std::optional<MadeProfile> made;
    if (temporary || !name) {
        made = MadeProfile{textOf(stored, "apn"), temporary, std::nullopt};
        if (!name) made->name = textOfField(written.profile_name);
    }
    std::string recordError;
    if (!notHeld && made) {
        kiv::MutexLock lock(mLock);
        if (auto saved = mRecord.update(*index, made); !saved.ok()) {
            recordError = saved.error().message();
        }
    }
    if (notHeld || !recordError.empty()) {
        const CallError undone = mCalls.remove(*path, *index, timeout);
        if (!undone.ok()) {
            log(ANDROID_LOG_ERROR, "xalmm: create: profile " + std::to_string(*index) +
                                           " could not be deleted again: " + undone.describe());
        }
        if (notHeld) {
            return refuse(response, kErrNotHeld,
                          "create: the modem did not keep " + quote(*notHeld) + " (profile " +
                                  std::to_string(*index) + " deleted again)");
        }
        return refuse(response, kErrRecord,
                      "create: " + recordError + " (profile " + std::to_string(*index) +
                              " deleted again)");
    }
    kiv::MutexLock lock(mLock);
    mTable[*index] = stored;
    announceLocked(*index, WDS_PROFILE_EVENT_CREATE_V01);
    announceLocked(*index, WDS_PROFILE_EVENT_MODIFY_V01);
    auto* out = static_cast<wds_create_profile_resp_msg_v01*>(response);
    out->profile.profile_type = WDS_PROFILE_TYPE_3GPP_V01;
    out->profile.profile_index = static_cast<uint8_t>(*index);
    return XAL_NO_ERR;
}

xal_client_error_type Link::serveModify(const void* request, void* response, milliseconds timeout) {
    const auto r = readRecord<wds_modify_profile_settings_req_msg_v01>(request);
    if (r.profile.profile_type != WDS_PROFILE_TYPE_3GPP_V01) {
        return refuse(response, kErrInvalidProfileType,
                      "modify: the modem manager keeps 3GPP profiles only");
    }
    const int32_t index = r.profile.profile_index;
    mm::Settings written = {};
    wds::copyValidFields(written, r);

    kiv::MutexLock calls(mCallLock);
    Table table;
    xal_client_error_type result = listTable(table, response, timeout);
    if (result != XAL_NO_ERR || static_cast<xal_response_type_v01*>(response)->result != 0) {
        return result;
    }
    auto current = table.find(index);
    if (current == table.end()) {
        return refuse(response, kErrInvalidProfile, "modify: no profile " + std::to_string(index));
    }
    const mm::ProfileDict before = current->second;
    // The interface replaces the whole profile: what the request does not
    // carry is written as it is stored.
    auto requested = mm::mergeRequest(written, before);
    if (!requested.ok()) {
        return refuse(response, kErrNotHeld,
                      "modify: the modem cannot hold " + requested.error().message());
    }
    const auto path = modemPath();
    if (!path) return XAL_SERVICE_ERR;
    mm::ProfileDict stored;
    CallError error = mCalls.set(*path, *requested, stored, timeout);
    if (!error.ok()) return failedCall("modify (Set)", error, response);
    auto notHeld = mm::firstNotHeld(*requested, stored);
    const auto name = nameHeld(written, stored);
    if (!notHeld && name == std::optional<bool>(false)) notHeld = "profile-name";

    std::string recordError;
    if (!notHeld) {
        kiv::MutexLock lock(mLock);
        // What the record knows of the profile follows its new APN and name.
        auto made = mRecord.find(index, textOf(before, "apn"));
        if (made || !name) {
            if (!made) made = MadeProfile{};
            made->apn = textOf(stored, "apn");
            if (!name) made->name = textOfField(written.profile_name);
            if (auto saved = mRecord.update(index, made); !saved.ok()) {
                recordError = saved.error().message();
            }
        }
    }
    if (notHeld || !recordError.empty()) {
        mm::ProfileDict restored;
        const CallError undone = mCalls.set(*path, before, restored, timeout);
        if (!undone.ok()) {
            log(ANDROID_LOG_ERROR, "xalmm: modify: profile " + std::to_string(index) +
                                           " could not be written back: " + undone.describe());
        }
        return refuse(
                response, notHeld ? kErrNotHeld : kErrRecord,
                "modify: " + (notHeld ? "the modem did not keep " + quote(*notHeld) : recordError) +
                        " (profile " + std::to_string(index) + " written back)");
    }
    kiv::MutexLock lock(mLock);
    mTable[index] = stored;
    // The modem's echo of a write, even one that changed nothing.
    announceLocked(index, WDS_PROFILE_EVENT_MODIFY_V01);
    return XAL_NO_ERR;
}

xal_client_error_type Link::serveDelete(const void* request, void* response, milliseconds timeout) {
    const auto r = readRecord<wds_delete_profile_req_msg_v01>(request);
    if (r.profile.profile_type != WDS_PROFILE_TYPE_3GPP_V01) {
        return refuse(response, kErrInvalidProfileType,
                      "delete: the modem manager keeps 3GPP profiles only");
    }
    const int32_t index = r.profile.profile_index;
    kiv::MutexLock calls(mCallLock);
    const auto path = modemPath();
    if (!path) return XAL_SERVICE_ERR;
    const CallError error = mCalls.remove(*path, index, timeout);
    if (!error.ok()) return failedCall("delete", error, response);
    kiv::MutexLock lock(mLock);
    if (auto forgotten = mRecord.update(index, std::nullopt); !forgotten.ok()) {
        log(ANDROID_LOG_ERROR, "xalmm: delete: " + forgotten.error().message());
    }
    mTable.erase(index);
    announceLocked(index, WDS_PROFILE_EVENT_DELETE_V01);
    return XAL_NO_ERR;
}

}  // namespace xalmm
