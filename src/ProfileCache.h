#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ClientRequest.h"
#include "ClientResponse.h"
#include "EventManager.h"
#include "LogWriter.h"
#include "ModemProfile.h"
#include "ProfileChangedInd.h"
#include "ProfileKey.h"
#include "XalWdsProxy.h"

namespace kiv {

// The library's image of the modem's profile table: one shared ModemProfile
// per modem profile under a token of its own. The only place where client
// operations meet the modem. Lives on the worker thread; nothing here locks.
class ProfileCache {
  public:
    // subscription goes to the proxy; requestFunction is copied into every
    // key so that a dying key can send its release (from a client thread it
    // waits for the worker; on the worker it runs after the current pass).
    ProfileCache(EventManager& eventManager, int subscription, RequestFunction requestFunction);
    ~ProfileCache();
    ProfileCache(const ProfileCache&) = delete;
    ProfileCache& operator=(const ProfileCache&) = delete;

    // A fresh token: process-wide, starting at 0, never reused.
    static unsigned long generateToken();

    // Rereads the whole table; every earlier token dies. Always true.
    bool refresh();
    std::shared_ptr<IProfileKey> add(const AddProfileParams& params);
    // True when the key is valid, whether or not the modem took the change.
    bool modify(const ModifyProfileParams& params, std::shared_ptr<ProfileKey> key);
    bool remove(std::shared_ptr<ProfileKey> key);
    std::optional<ProfileParams> get(std::shared_ptr<ProfileKey> key);
    std::list<std::shared_ptr<IProfileKey>> filter(const FilterProfileParams& filter);
    bool match(const FilterProfileParams& filter, std::shared_ptr<ProfileKey> key);
    std::vector<std::string> dump() const;
    // Changes with every change of what dump() shows (more often is harmless).
    uint64_t generation() const { return mGeneration; }
    // Drops every profile (their listeners run) and every pending echo.
    void clear();

    // A modem announcement: an echo of an own operation is consumed, any
    // other change is folded in.
    void onIndication(ProfileChangedInd ind);

    // Attaches a client's listener to the cached profile. Returns false in
    // every case.
    bool registerExpirationListener(std::function<void()> listener, std::weak_ptr<IProfileKey> key,
                                    unsigned long token);
    // One handle of the token died. The last handle of a non-persistent
    // profile that the library created deletes it on the modem.
    bool releaseProfile(unsigned long token);

    // Deletes from the modem every non-persistent profile that is the
    // library's (by its profile name, or created by this cache) and that no
    // live key holds: the temporaries that rereads, refused or failed
    // releases and dead processes leave behind. A dry run deletes nothing.
    // Returns them, by technology and id.
    std::vector<ReclaimedProfile> reclaim(bool dryRun);

  private:
    using ProfileMap = std::unordered_map<unsigned long, std::shared_ptr<ModemProfile>>;

    // An indication an own operation will cause. One that reached the
    // library no later than `after` (an arrival number of the proxy) is not
    // it: it was on its way before the operation's request was sent, or
    // before the profile it would name existed.
    struct PendingEcho {
        ProfileChangedInd ind;
        uint64_t after;
    };

    std::shared_ptr<IProfileKey> makeKey(TechType techType, int profileId, unsigned long token);
    // The entry of a key's token, or end() after logging at the given level.
    ProfileMap::iterator find(const ProfileKey& key, LogLevel missingLevel);
    ProfileMap::iterator find(unsigned long token, LogLevel missingLevel);
    void expect(TechType techType, int profileId, ProfileChangedEvent event, uint64_t after);
    // Whether the indication now handled describes the modem from before the
    // entry's profile was created here.
    bool predates(unsigned long token) const;

    RequestFunction mRequestFunction;
    XalWdsProxy mProxy;
    ProfileMap mProfiles;
    // Keys handed out per token whose release has not come yet. Unlike a
    // profile's reference count, which keeps its last holder when a profile
    // is not deleted on release, this says whether any key is alive.
    std::unordered_map<unsigned long, int> mLiveKeys;
    std::list<PendingEcho> mPending;  // echoes of own operations, oldest first
    // Profiles created here, by token: the last arrival number of an
    // indication that describes the modem from before they existed.
    std::unordered_map<unsigned long, uint64_t> mCreatedAfter;
    uint64_t mGeneration = 0;
};

}  // namespace kiv
