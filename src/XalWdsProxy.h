#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>

#include "EventFd.h"
#include "EventManager.h"
#include "ModemProfile.h"
#include "Mutex.h"
#include "ProfileChangedInd.h"
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

    EventManager& mEventManager;
    const int mSubscription;
    xal_idl_service_object_type mServiceObject = nullptr;
    xal_client_type mClient = nullptr;    // worker thread only
    xal_client_type mNotifier = nullptr;  // worker thread only
    xal_client_os_params mOsParams = {};

    Mutex mIndMutex;
    std::deque<std::unique_ptr<IndInfo_t>> mIndQueue GUARDED_BY(mIndMutex);

    EventFd mSvcUpFd;
    EventFd mErrorFd;
    EventFd mIndFd;
    std::function<void(ProfileChangedInd)> mProfileChangedIndCb;
};

}  // namespace kiv
