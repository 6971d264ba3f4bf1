#include "Watcher.h"

#include "ClientChoice.h"
#include "Output.h"
#include "WdsNames.h"
#include "common/Errors.h"
#include "remote/XalRemote.h"
#include "sim/SettingsJson.h"
#include "xal/wds_profile_events.h"

namespace kivctl {

ChangeWatcher::ChangeWatcher(std::chrono::milliseconds timeout, RequestLedger& ledger)
    : mTimeout(timeout), mLedger(ledger) {
    mService = wds::serviceObject();
    // The notifier says when the service is back after it went away.
    xal_client_os_params os{};
    if (xal_client_notifier_init(mService, &os, &mNotifier) != XAL_NO_ERR ||
        xal_client_register_notify_cb(mNotifier, onNotify, this) != XAL_NO_ERR || !connect()) {
        if (mNotifier != nullptr) xal_client_release(mNotifier);
        throw Refused("cannot reach " + client::where());
    }
}

ChangeWatcher::~ChangeWatcher() {
    disconnect();
    xal_client_release(mNotifier);
}

bool ChangeWatcher::connect() {
    xal_service_info info{};
    xal_client_os_params os{};
    if (xal_client_get_any_service(mService, &info) != XAL_NO_ERR ||
        xal_client_init(&info, mService, onIndication, this, &os, &mClient) != XAL_NO_ERR) {
        mClient = nullptr;
        return false;
    }
    mLedger.ignore(mClient);
    {
        kiv::MutexLock guard(mLock);
        mLost = false;
    }
    xal_client_register_error_cb(mClient, onError, this);
    wds_indication_register_req_msg_v01 events = wds::profileChangedEventsRequest();
    wds_configure_profile_event_list_req_msg_v01 all = wds::allProfileEventsRequest();
    if (!send(XAL_WDS_INDICATION_REGISTER_REQ_V01, &events, sizeof(events)) ||
        !send(XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01, &all, sizeof(all))) {
        disconnect();
        return false;
    }
    return true;
}

void ChangeWatcher::disconnect() {
    if (mClient == nullptr) return;
    // Not with the lock held: a callback running now takes it.
    xal_client_release(mClient);
    mClient = nullptr;
    kiv::MutexLock guard(mLock);
    mLost = false;
}

ChangeWatcher::Change ChangeWatcher::next() {
    for (;;) {
        uint64_t ups;
        {
            kiv::MutexLock guard(mLock);
            if (mClient != nullptr) {
                guard.wait(mChanged, [this]() REQUIRES(mLock) { return !mQueue.empty() || mLost; });
            }
            if (!mQueue.empty()) {
                Change change = std::move(mQueue.front());
                mQueue.pop_front();
                return change;
            }
            ups = mServiceUps;
        }
        if (mClient != nullptr) {
            // Everything the service sent before it went away has been told.
            disconnect();
            return {Change::kServiceDown, 0, {}};
        }
        if (connect()) return {Change::kServiceUp, 0, {}};
        // Not back yet: the notifier says when it is up again.
        kiv::MutexLock guard(mLock);
        guard.wait(mChanged, [&]() REQUIRES(mLock) { return mServiceUps != ups; });
    }
}

std::optional<xalsim::Settings> ChangeWatcher::settings(
        const wds_profile_identifier_type_v01& profile) {
    wds_get_profile_settings_req_msg_v01 request{};
    request.profile = profile;
    wds_get_profile_settings_resp_msg_v01 response{};
    if (xal_client_send_msg_sync(mClient, XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01, &request,
                                 sizeof(request), &response, sizeof(response),
                                 static_cast<unsigned int>(mTimeout.count())) != XAL_NO_ERR ||
        response.resp.result != 0) {
        return std::nullopt;
    }
    return response;
}

nlohmann::ordered_json ChangeWatcher::describe(const Change& indication) {
    nlohmann::ordered_json change;
    if (indication.kind != Change::kIndication) {
        change["event"] = indication.kind == Change::kServiceDown ? "service-down" : "service-up";
        return change;
    }
    wds_profile_changed_ind_msg_v01 decoded{};
    const auto result = xal_client_message_decode(
            nullptr, XAL_IDL_INDICATION, indication.msgId, indication.bytes.data(),
            static_cast<unsigned int>(indication.bytes.size()), &decoded, sizeof(decoded));
    if (indication.msgId != XAL_WDS_PROFILE_CHANGED_IND_V01) {
        change["event"] = "indication";
        change["msgId"] = indication.msgId;
        change["bytes"] = indication.bytes.size();
        return change;
    }
    if (result != XAL_NO_ERR) {
        change["event"] = "undecodable";
        change["bytes"] = indication.bytes.size();
        return change;
    }
    if (!decoded.profile_changed_ind_valid) {
        change["event"] = "empty";
        return change;
    }
    const auto& record = decoded.profile_changed_ind;
    const int32_t event = record.profile_change_evt;
    change["event"] = eventName(event);
    if (record.profile_type != WDS_PROFILE_TYPE_ALL_V01) {
        change["tech"] = xalsim::typeName(record.profile_type);
        change["id"] = record.profile_index;
    }
    if (event == WDS_PROFILE_EVENT_CREATE_V01 || event == WDS_PROFILE_EVENT_MODIFY_V01) {
        if (auto held = settings({record.profile_type, record.profile_index})) {
            auto fields = xalsim::profileToJson({record.profile_type, record.profile_index}, *held);
            fields.erase("type");
            fields.erase("index");
            change["settings"] = spelledSettings(withoutSecrets(fields));
        }
    }
    return change;
}

std::string changeLine(const nlohmann::ordered_json& change) {
    std::string line = change["event"].get<std::string>();
    if (change.contains("tech")) {
        line += " " + change["tech"].get<std::string>() + " " + change["id"].dump();
    }
    if (change.contains("msgId")) line += " " + change["msgId"].dump();
    if (change.contains("bytes")) line += " (" + change["bytes"].dump() + " bytes)";
    if (change.contains("settings")) {
        line += ":";
        for (const auto& [name, value] : change["settings"].items()) {
            line += " " + name + "=" + settingText(value);
        }
    }
    return line;
}

bool ChangeWatcher::send(unsigned int msgId, void* request, unsigned int length) {
    wds_generic_resp_msg_v01 response{};
    return xal_client_send_msg_sync(mClient, msgId, request, length, &response, sizeof(response),
                                    static_cast<unsigned int>(mTimeout.count())) == XAL_NO_ERR &&
           response.resp.result == 0;
}

void ChangeWatcher::onIndication(xal_client_type, unsigned int msgId, void* buffer,
                                 unsigned int length, void* data) {
    auto* self = static_cast<ChangeWatcher*>(data);
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    kiv::MutexLock guard(self->mLock);
    self->mQueue.push_back(
            {Change::kIndication, msgId, std::vector<uint8_t>(bytes, bytes + length)});
    self->mChanged.notify_all();
}

void ChangeWatcher::onError(xal_client_type, xal_client_error_type, void* data) {
    auto* self = static_cast<ChangeWatcher*>(data);
    kiv::MutexLock guard(self->mLock);
    self->mLost = true;
    self->mChanged.notify_all();
}

void ChangeWatcher::onNotify(xal_client_type, xal_idl_service_object_type,
                             xal_client_notify_event_type event, void* data) {
    if (event != XAL_CLIENT_SERVICE_COUNT_INC) return;
    auto* self = static_cast<ChangeWatcher*>(data);
    kiv::MutexLock guard(self->mLock);
    ++self->mServiceUps;
    self->mChanged.notify_all();
}

}  // namespace kivctl
