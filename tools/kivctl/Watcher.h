// kivctl watch: a client of the modem service of its own, which hears every
// profile change the modem announces, and follows the service when it goes
// down and comes back (a modem restart, the service stopped and started).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "RequestLedger.h"
#include "base/Mutex.h"
#include "sim/ModemCore.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace kivctl {

class ChangeWatcher {
  public:
    struct Change {
        enum Kind { kIndication, kServiceDown, kServiceUp };
        Kind kind;
        unsigned int msgId = 0;  // an indication's
        std::vector<uint8_t> bytes;
    };

    // Registers for every profile of every type; refused when the service
    // cannot be reached. Its own requests are kept out of `ledger`.
    ChangeWatcher(std::chrono::milliseconds timeout, RequestLedger& ledger);
    ~ChangeWatcher();
    ChangeWatcher(const ChangeWatcher&) = delete;
    ChangeWatcher& operator=(const ChangeWatcher&) = delete;

    // The next change: an indication, or the service going down or coming
    // back (registered again). Waits as long as it takes.
    Change next() EXCLUDES(mLock);
    // The settings the modem holds for a profile; none when it cannot say.
    std::optional<xalsim::Settings> settings(const wds_profile_identifier_type_v01& profile);
    // One change as watch prints it: the event, the profile and, after a
    // create or modify, the modem's settings.
    nlohmann::ordered_json describe(const Change& change);

  private:
    // Opens a client and registers it for profile events; false when the
    // service is not there (or goes away meanwhile).
    bool connect() EXCLUDES(mLock);
    void disconnect() EXCLUDES(mLock);
    bool send(unsigned int msgId, void* request, unsigned int length);
    static void onIndication(xal_client_type, unsigned int msgId, void* buffer, unsigned int length,
                             void* data);
    static void onError(xal_client_type, xal_client_error_type, void* data);
    static void onNotify(xal_client_type, xal_idl_service_object_type,
                         xal_client_notify_event_type event, void* data);

    const std::chrono::milliseconds mTimeout;
    RequestLedger& mLedger;
    xal_idl_service_object_type mService = nullptr;
    xal_client_type mNotifier = nullptr;
    xal_client_type mClient = nullptr;  // the caller's thread only
    kiv::Mutex mLock;
    std::condition_variable mChanged;
    std::deque<Change> mQueue GUARDED_BY(mLock);
    bool mLost GUARDED_BY(mLock) = false;        // the client lost the service, not yet said
    uint64_t mServiceUps GUARDED_BY(mLock) = 0;  // times the notifier heard "up"
};

// One change as a line of text.
std::string changeLine(const nlohmann::ordered_json& change);

}  // namespace kivctl
