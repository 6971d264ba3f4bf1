#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>

#include "EventManager.h"
#include "ModemProfile.h"
#include "ProfileChangedInd.h"
#include "base/EventFd.h"
#include "base/Mutex.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace kiv {

class XalWdsProxy;

// One indication, copied on the modem client's thread, handled on the worker.
struct IndInfo_t {
    xal_client_type userHandle;
    unsigned int msgId;
    std::unique_ptr<uint8_t[]> indBuf;
    unsigned int indBufLen;
    XalWdsProxy* proxy;
    uint64_t arrival;  // its place among the indications that reached the proxy, from 1
};

// The library's client of the modem's wireless data service: finds the
// service, connects and reconnects across modem restarts, carries
// profile-changed indications to the worker thread, and performs the profile
// operations. Everything but the three xal callbacks runs on the worker.
class XalWdsProxy {
  public:
    XalWdsProxy(EventManager& eventManager, int subscription);
    ~XalWdsProxy();
    XalWdsProxy(const XalWdsProxy&) = delete;
    XalWdsProxy& operator=(const XalWdsProxy&) = delete;

    void registerProfileChangedInd(std::function<void(ProfileChangedInd)> callback);

    // Creates the profile and gives it its modem index.
    bool add(ModemProfile& profile);
    // Writes the profile's settings to the modem profile (techType, profileId).
    bool modify(ModemProfile& profile, TechType techType, int profileId);
    bool remove(TechType techType, int profileId);
    // Null when the profile cannot be read.
    std::shared_ptr<ModemProfile> get(TechType techType, int profileId);
    // Every 3GPP profile, then every 3GPP2 profile; a profile that cannot be
    // read leaves a null in its place.
    std::list<std::shared_ptr<ModemProfile>> getAllProfiles();

    // Where an indication stands against the requests: indications are
    // numbered as they reach the proxy, from 1.
    //
    // The arrival number of the indication being handed to the callback
    // now; kNotQueued for one that did not come through the queue, which
    // counts as the latest of all.
    static constexpr uint64_t kNotQueued = UINT64_MAX;
    uint64_t currentArrival() const { return mCurrentArrival; }
    // The last number given before the latest request was sent: what came
    // no later cannot be an answer to it.
    uint64_t arrivedBeforeLastRequest() const { return mArrivedBeforeRequest; }
    // For the profile the latest add created: the last number of an
    // indication that provably describes the modem before the profile
    // existed. Those that reached the proxy before the create was sent do;
    // so do those the modem sent before its answer, up to the last Delete
    // of that index among them, since the index was free when it was
    // handed out (a messaging client that delivers indications in order
    // with its answers has delivered them all by the time the answer is
    // returned). A lone library never sees such a Delete that is not its
    // own echo, so for it nothing changes.
    uint64_t predatesLastAdd() const { return mPredatesLastAdd; }

    // Event handlers on the worker thread; arg is the proxy.
    static void handleSvcUp(int fd, void* arg);
    static void handleError(int fd, void* arg);
    static void handleIndication(int fd, void* arg);

    // Callbacks of the modem client interface, on its threads; data is the proxy.
    static void xalNotifyCb(xal_client_type client, xal_idl_service_object_type serviceObject,
                            xal_client_notify_event_type event, void* data);
    static void xalErrorCb(xal_client_type client, xal_client_error_type error, void* data);
    static void xalIndCb(xal_client_type userHandle, unsigned int msgId, void* indBuf,
                         unsigned int indBufLen, void* data);

  private:
    void registerXalSvcUp();
    void registerXalIndications();
    void handleProfileChangedInd(const wds_profile_changed_ind_type_v01& ind);
    // One synchronous request; true when the modem answered and accepted.
    bool send(unsigned int msgId, void* request, unsigned int requestLength, void* response,
              unsigned int responseLength);
    static void signal(const EventFd& fd, const char* failureFormat);
    uint64_t arrivals() EXCLUDES(mIndMutex);
    // The arrival number of the last Delete of (profileType, index) among
    // the queued indications numbered after `after` up to `upTo`; `after`
    // when there is none.
    uint64_t lastQueuedDelete(int32_t profileType, uint8_t index, uint64_t after, uint64_t upTo)
            EXCLUDES(mIndMutex);

    EventManager& mEventManager;
    const int mSubscription;
    xal_idl_service_object_type mServiceObject = nullptr;
    xal_client_type mClient = nullptr;    // worker thread only
    xal_client_type mNotifier = nullptr;  // worker thread only
    xal_client_os_params mOsParams = {};

    Mutex mIndMutex;
    std::deque<std::unique_ptr<IndInfo_t>> mIndQueue GUARDED_BY(mIndMutex);
    uint64_t mArrivals GUARDED_BY(mIndMutex) = 0;
    // Worker thread only.
    uint64_t mCurrentArrival = kNotQueued;
    uint64_t mArrivedBeforeRequest = 0;
    uint64_t mArrivedBeforeAnswer = 0;
    uint64_t mPredatesLastAdd = 0;

    EventFd mSvcUpFd;
    EventFd mErrorFd;
    EventFd mIndFd;
    std::function<void(ProfileChangedInd)> mProfileChangedIndCb;
};

}  // namespace kiv
