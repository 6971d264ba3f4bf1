#include "XalWdsProxy.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Conversions.h"
#include "LogWrapper.h"
#include "Modem3gpp2Profile.h"
#include "Modem3gppProfile.h"
#include "xal/wds_profile_events.h"

namespace kiv {

namespace {

constexpr unsigned int kTimeoutMs = 1000;
constexpr const char* kSourceFile = "src/XalWdsProxy";

const char* messageName(unsigned int msgId) {
    switch (msgId) {
        case XAL_WDS_CREATE_PROFILE_REQ_V01:
            return "XAL_WDS_CREATE_PROFILE_REQ_V01";
        case XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01:
            return "XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01";
        case XAL_WDS_DELETE_PROFILE_REQ_V01:
            return "XAL_WDS_DELETE_PROFILE_REQ_V01";
        case XAL_WDS_GET_PROFILE_LIST_REQ_V01:
            return "XAL_WDS_GET_PROFILE_LIST_REQ_V01";
        case XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01:
            return "XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01";
        default:
            return "unknown";
    }
}

// Empties an eventfd's counter; several signals collapse into one pass.
void drain(int fd) {
    if (!EventFd::drain(fd)) KLOGE("Error while clearing the read buffer on fd %d", fd);
}

void watch(EventManager& events, const EventFd& fd, EventCallback handler, void* proxy) {
    if (!fd.valid()) {
        KLOGE("Cannot create eventfd instance");
        abort();
    }
    events.addEventHandler(fd.get(), handler, proxy, nullptr, EPOLLIN);
}

bool accepted(xal_client_error_type rc, const void* response) {
    xal_response_type_v01 header;
    memcpy(&header, response, sizeof(header));
    return rc == XAL_NO_ERR && header.result == 0;
}

ProfileChangedEvent toProfileChangedEvent(int32_t modemEvent) {
    switch (modemEvent) {
        case WDS_PROFILE_EVENT_CREATE_V01:
            return ProfileChangedEvent::Create;
        case WDS_PROFILE_EVENT_DELETE_V01:
            return ProfileChangedEvent::Delete;
        case WDS_PROFILE_EVENT_MODIFY_V01:
            return ProfileChangedEvent::Modify;
        case WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01:
            return ProfileChangedEvent::SubscriptionChange;
        default:
            // Any other announcement makes the cache reread the whole table.
            return ProfileChangedEvent::ProfileReady;
    }
}

}  // namespace

XalWdsProxy::XalWdsProxy(EventManager& eventManager, int subscription)
    : mEventManager(eventManager), mSubscription(subscription) {
    mServiceObject = wds::serviceObject();
    watch(mEventManager, mSvcUpFd, handleSvcUp, this);
    watch(mEventManager, mErrorFd, handleError, this);
    watch(mEventManager, mIndFd, handleIndication, this);
    registerXalSvcUp();
    mProfileChangedIndCb = [](ProfileChangedInd) {
        KLOGD("XalWdsProxy::no profileChangedIndCb registered!");
    };
}

XalWdsProxy::~XalWdsProxy() {
    // After a release no callback of that client runs again, so nothing
    // below can be touched from the modem client's threads.
    if (mNotifier != nullptr) {
        xal_client_release(mNotifier);
        mNotifier = nullptr;
    }
    if (mClient != nullptr) {
        xal_client_release(mClient);
        mClient = nullptr;
    }
    for (EventFd* fd : {&mSvcUpFd, &mErrorFd, &mIndFd}) mEventManager.removeEventHandler(fd->get());
    for (EventFd* fd : {&mSvcUpFd, &mErrorFd, &mIndFd}) fd->reset();
}

void XalWdsProxy::registerProfileChangedInd(std::function<void(ProfileChangedInd)> callback) {
    mProfileChangedIndCb = std::move(callback);
}

void XalWdsProxy::registerXalSvcUp() {
    KLOGI("XalWdsProxy::registerXalSvcUp");
    if (mServiceObject == nullptr) {
        KLOGE("cannot obtain service obj, fatal error");
        return;
    }
    mOsParams = {};
    xal_client_notifier_init(mServiceObject, &mOsParams, &mNotifier);
    xal_client_register_notify_cb(mNotifier, xalNotifyCb, this);
}

void XalWdsProxy::signal(const EventFd& fd, const char* failureFormat) {
    const ssize_t written = fd.signal();
    if (written != static_cast<ssize_t>(sizeof(uint64_t))) {
        KLOGE(failureFormat, static_cast<int>(written), strerror(errno));
    }
}

void XalWdsProxy::xalNotifyCb(xal_client_type /*client*/,
                              xal_idl_service_object_type /*serviceObject*/,
                              xal_client_notify_event_type event, void* data) {
    auto* proxy = static_cast<XalWdsProxy*>(data);
    if (proxy == nullptr) {
        KLOGE("XalWdsProxy instance is null");
        return;
    }
    if (event == XAL_CLIENT_SERVICE_COUNT_INC) {
        signal(proxy->mSvcUpFd, "error in writing rv:%d, error:%s");
    } else {
        KLOGE("XalWdsProxy notify cb: unsupported service event");
    }
}

void XalWdsProxy::handleSvcUp(int fd, void* arg) {
    KLOGD("XalWdsProxy service is up, trying to initialize svc client");
    drain(fd);
    auto* proxy = static_cast<XalWdsProxy*>(arg);
    if (proxy == nullptr) {
        KLOGE("XalWdsProxy instance is null");
        return;
    }
    xal_service_info serviceInfo = {};
    if (xal_client_get_any_service(proxy->mServiceObject, &serviceInfo) != XAL_NO_ERR) {
        KLOGE("error get service.");
        return;  // the notifier stays open: the next service-up event retries
    }
    if (proxy->mNotifier != nullptr) {
        xal_client_release(proxy->mNotifier);
        proxy->mNotifier = nullptr;
    }
    if (proxy->mClient != nullptr) {
        KLOGD("XalWdsProxy client is already present, so skipping client initialization.");
        return;
    }
    proxy->mOsParams = {};
    const xal_client_error_type rc = xal_client_init(&serviceInfo, proxy->mServiceObject, xalIndCb,
                                                     proxy, &proxy->mOsParams, &proxy->mClient);
    if (rc != XAL_NO_ERR) {
        proxy->mClient = nullptr;
        KLOGE("xal_client_init error. ErrCode : %d", rc);
        return;
    }
    const xal_client_error_type errorCbResult =
            xal_client_register_error_cb(proxy->mClient, xalErrorCb, proxy);
    KLOGD("xal_client_register_error_cb result: %d", errorCbResult);
    proxy->registerXalIndications();
}

void XalWdsProxy::registerXalIndications() {
    wds_generic_resp_msg_v01 response;

    wds_bind_subscription_req_msg_v01 bind = {};
    bind.subscription = static_cast<uint32_t>(mSubscription);
    response = {};
    if (accepted(xal_client_send_msg_sync(mClient, XAL_WDS_BIND_SUBSCRIPTION_REQ_V01, &bind,
                                          sizeof(bind), &response, sizeof(response), kTimeoutMs),
                 &response)) {
        KLOGD("XalWdsProxy bind register request successful!");
    } else {
        KLOGE("Unable send bind req message");
    }

    wds_indication_register_req_msg_v01 indications = wds::profileChangedEventsRequest();
    response = {};
    if (accepted(xal_client_send_msg_sync(mClient, XAL_WDS_INDICATION_REGISTER_REQ_V01,
                                          &indications, sizeof(indications), &response,
                                          sizeof(response), kTimeoutMs),
                 &response)) {
        KLOGD("XalWdsProxy indication register request successful!");
    } else {
        KLOGE("Unable send indication req message");
    }

    // Every profile of every type, and the second flag present and true.
    wds_configure_profile_event_list_req_msg_v01 events = wds::allProfileEventsRequest();
    response = {};
    if (accepted(xal_client_send_msg_sync(mClient, XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01,
                                          &events, sizeof(events), &response, sizeof(response),
                                          kTimeoutMs),
                 &response)) {
        KLOGD("XalWdsProxy config register request successful!");
    } else {
        KLOGE("Unable send config req message");
    }
}

void XalWdsProxy::xalErrorCb(xal_client_type /*client*/, xal_client_error_type /*error*/,
                             void* data) {
    KLOGD("%s:%d:%s", kSourceFile, __LINE__, "xalErrorCb");
    auto* proxy = static_cast<XalWdsProxy*>(data);
    if (proxy == nullptr) {
        KLOGE("XalWdsProxy NULL in xalErrorCb");
        return;
    }
    signal(proxy->mErrorFd, "error in writing rv: %d, error: %s");
}

void XalWdsProxy::handleError(int fd, void* arg) {
    KLOGD("%s:%d:%s", kSourceFile, __LINE__, "handleError");
    drain(fd);
    auto* proxy = static_cast<XalWdsProxy*>(arg);
    if (proxy == nullptr) {
        KLOGE("arg is null");
        return;
    }
    if (proxy->mClient != nullptr) {
        xal_client_release(proxy->mClient);
        proxy->mClient = nullptr;
    }
    KLOGW("Handling modem down");
    // A notifier left from a failed connection attempt is replaced.
    if (proxy->mNotifier != nullptr) {
        xal_client_release(proxy->mNotifier);
        proxy->mNotifier = nullptr;
    }
    proxy->registerXalSvcUp();
}

void XalWdsProxy::xalIndCb(xal_client_type userHandle, unsigned int msgId, void* indBuf,
                           unsigned int indBufLen, void* data) {
    KLOGV("%s:%d", __PRETTY_FUNCTION__, __LINE__);
    auto* proxy = static_cast<XalWdsProxy*>(data);
    if (indBufLen == 0 || indBuf == nullptr || proxy == nullptr) {
        KLOGE("The ind_cb_data/ind_buf is null or ind_buf_len is %d", indBufLen);
        return;
    }
    auto info = std::make_unique<IndInfo_t>();
    info->userHandle = userHandle;
    info->msgId = msgId;
    info->indBufLen = indBufLen;
    info->proxy = proxy;
    info->indBuf = std::make_unique<uint8_t[]>(indBufLen);
    memcpy(info->indBuf.get(), indBuf, indBufLen);
    {
        MutexLock lock(proxy->mIndMutex);
        info->arrival = ++proxy->mArrivals;
        proxy->mIndQueue.push_back(std::move(info));
    }
    // On failure the record stays queued for the next signal.
    signal(proxy->mIndFd, "Error in writing rv: %d, error: %s");
}

void XalWdsProxy::handleIndication(int fd, void* arg) {
    drain(fd);
    auto* proxy = static_cast<XalWdsProxy*>(arg);
    if (proxy == nullptr) {
        KLOGE("XalWdsProxy nullptr in handleIndication");
        return;
    }
    for (;;) {
        std::unique_ptr<IndInfo_t> info;
        {
            MutexLock lock(proxy->mIndMutex);
            KLOGD("XalWdsProxy: handleIndication indQueue.size[%d]",
                  static_cast<int>(proxy->mIndQueue.size()));
            if (proxy->mIndQueue.empty()) return;
            info = std::move(proxy->mIndQueue.front());
            proxy->mIndQueue.pop_front();
        }
        if (!info) {
            KLOGE("handleIndication: arg is null");
            return;
        }
        if (info->msgId != XAL_WDS_PROFILE_CHANGED_IND_V01) {
            KLOGV("Unknown message ID %lu received", static_cast<unsigned long>(info->msgId));
            continue;
        }
        wds_profile_changed_ind_msg_v01 ind = {};
        if (xal_client_message_decode(info->userHandle, XAL_IDL_INDICATION, info->msgId,
                                      info->indBuf.get(), info->indBufLen, &ind,
                                      sizeof(ind)) != XAL_NO_ERR) {
            // The rest of the queue waits for the next signal.
            KLOGE("Unable to decode the nr status ind message");
            return;
        }
        if (ind.profile_changed_ind_valid == 0) {
            KLOGE("Profile changed ind TLV is not valid");
        } else {
            proxy->mCurrentArrival = info->arrival;
            proxy->handleProfileChangedInd(ind.profile_changed_ind);
            proxy->mCurrentArrival = kNotQueued;
        }
    }
}

void XalWdsProxy::handleProfileChangedInd(const wds_profile_changed_ind_type_v01& ind) {
    KLOGD("XalWdsProxy ProfileChangedInd received!");
    ProfileChangedInd change;
    change.techType = convertProfileType(ind.profile_type);
    change.profileId = ind.profile_index;
    change.event = toProfileChangedEvent(ind.profile_change_evt);
    if (mProfileChangedIndCb) {
        mProfileChangedIndCb(change);
    } else {
        KLOGE("XalWdsProxy: empty profileChangedIndCb, indication %s dropped",
              change.dump().c_str());
    }
}

uint64_t XalWdsProxy::arrivals() {
    MutexLock lock(mIndMutex);
    return mArrivals;
}

uint64_t XalWdsProxy::lastQueuedDelete(int32_t profileType, uint8_t index, uint64_t after,
                                       uint64_t upTo) {
    struct Candidate {
        uint64_t arrival;
        xal_client_type handle;
        std::vector<uint8_t> bytes;
    };
    std::vector<Candidate> candidates;
    {
        MutexLock lock(mIndMutex);
        for (const auto& info : mIndQueue) {
            if (!info || info->arrival <= after || info->arrival > upTo ||
                info->msgId != XAL_WDS_PROFILE_CHANGED_IND_V01) {
                continue;
            }
            candidates.push_back({info->arrival, info->userHandle,
                                  std::vector<uint8_t>(info->indBuf.get(),
                                                       info->indBuf.get() + info->indBufLen)});
        }
    }
    // Read quietly: each is decoded and logged in its turn, as it is handled.
    uint64_t last = after;
    for (const auto& candidate : candidates) {
        wds_profile_changed_ind_msg_v01 ind = {};
        if (xal_client_message_decode(candidate.handle, XAL_IDL_INDICATION,
                                      XAL_WDS_PROFILE_CHANGED_IND_V01, candidate.bytes.data(),
                                      static_cast<unsigned int>(candidate.bytes.size()), &ind,
                                      sizeof(ind)) != XAL_NO_ERR ||
            ind.profile_changed_ind_valid == 0) {
            continue;
        }
        const auto& change = ind.profile_changed_ind;
        if (change.profile_type == profileType && change.profile_index == index &&
            change.profile_change_evt == WDS_PROFILE_EVENT_DELETE_V01) {
            last = std::max(last, candidate.arrival);
        }
    }
    return last;
}

bool XalWdsProxy::send(unsigned int msgId, void* request, unsigned int requestLength,
                       void* response, unsigned int responseLength) {
    mArrivedBeforeRequest = arrivals();
    const xal_client_error_type rc = xal_client_send_msg_sync(
            mClient, msgId, request, requestLength, response, responseLength, kTimeoutMs);
    mArrivedBeforeAnswer = arrivals();
    if (!accepted(rc, response)) {
        KLOGE("Unable send %s message", messageName(msgId));
        return false;
    }
    KLOGI("XalWdsProxy %s request successful!", messageName(msgId));
    return true;
}

bool XalWdsProxy::add(ModemProfile& profile) {
    auto request = profile.constructAddRequest();
    wds_create_profile_resp_msg_v01 response = {};
    if (!send(XAL_WDS_CREATE_PROFILE_REQ_V01, &request, sizeof(request), &response,
              sizeof(response))) {
        return false;
    }
    profile.setProfileId(response.profile.profile_index);
    mPredatesLastAdd = lastQueuedDelete(request.profile_type, response.profile.profile_index,
                                        mArrivedBeforeRequest, mArrivedBeforeAnswer);
    return true;
}

bool XalWdsProxy::modify(ModemProfile& profile, TechType techType, int profileId) {
    auto request = profile.constructModifyRequest();
    request.profile = convertToProfileIdentifier(techType, profileId);
    wds_modify_profile_settings_resp_msg_v01 response = {};
    return send(XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01, &request, sizeof(request), &response,
                sizeof(response));
}

bool XalWdsProxy::remove(TechType techType, int profileId) {
    wds_delete_profile_req_msg_v01 request = {};
    request.profile = convertToProfileIdentifier(techType, profileId);
    wds_delete_profile_resp_msg_v01 response = {};
    return send(XAL_WDS_DELETE_PROFILE_REQ_V01, &request, sizeof(request), &response,
                sizeof(response));
}

std::shared_ptr<ModemProfile> XalWdsProxy::get(TechType techType, int profileId) {
    wds_get_profile_settings_req_msg_v01 request = {};
    request.profile = convertToProfileIdentifier(techType, profileId);
    auto response = std::make_unique<wds_get_profile_settings_resp_msg_v01>();
    if (!send(XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01, &request, sizeof(request), response.get(),
              sizeof(*response))) {
        return nullptr;
    }
    const int index = request.profile.profile_index;
    switch (convertProfileType(request.profile.profile_type)) {
        case TechType::TECH_3GPP2:
            return std::make_shared<Modem3gpp2Profile>(index, *response);
        case TechType::TECH_3GPP:
            return std::make_shared<Modem3gppProfile>(index, *response);
    }
    KLOGE("XalWdsProxy invalid tech type!");
    return nullptr;
}

std::list<std::shared_ptr<ModemProfile>> XalWdsProxy::getAllProfiles() {
    std::list<std::shared_ptr<ModemProfile>> profiles;
    wds_get_profile_list_req_msg_v01 request = {};
    request.profile_type_valid = 1;
    auto response = std::make_unique<wds_get_profile_list_resp_msg_v01>();
    for (auto type : {WDS_PROFILE_TYPE_3GPP_V01, WDS_PROFILE_TYPE_3GPP2_V01}) {
        request.profile_type = type;
        if (!send(XAL_WDS_GET_PROFILE_LIST_REQ_V01, &request, sizeof(request), response.get(),
                  sizeof(*response))) {
            return profiles;
        }
        uint32_t count = response->profile_list_len;
        if (count > WDS_PROFILE_LIST_MAX_V01) {
            KLOGE("XalWdsProxy: profile list count %u above %d, reading %d", count,
                  WDS_PROFILE_LIST_MAX_V01, WDS_PROFILE_LIST_MAX_V01);
            count = WDS_PROFILE_LIST_MAX_V01;
        }
        for (uint32_t i = 0; i < count; ++i) {
            const auto& entry = response->profile_list[i];
            profiles.push_back(get(convertProfileType(entry.profile_type), entry.profile_index));
        }
    }
    return profiles;
}

}  // namespace kiv
