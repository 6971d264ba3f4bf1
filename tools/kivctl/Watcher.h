// kivctl watch: a client of the modem service of its own, which hears every
// profile change the modem announces.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "ModemCore.h"
#include "Mutex.h"
#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace kivctl {

class ChangeWatcher {
  public:
    struct Indication {
        unsigned int msgId;
        std::vector<uint8_t> bytes;
    };

    // Registers for every profile of every type; refused when the service
    // cannot be reached.
    explicit ChangeWatcher(std::chrono::milliseconds timeout);
    ~ChangeWatcher();
    ChangeWatcher(const ChangeWatcher&) = delete;
    ChangeWatcher& operator=(const ChangeWatcher&) = delete;

    // The next indication; none when the service went away.
    std::optional<Indication> next() EXCLUDES(mLock);
    // The settings the modem holds for a profile; none when it cannot say.
    std::optional<xalsim::Settings> settings(const wds_profile_identifier_type_v01& profile);
    // One change as watch prints it: the event, the profile and, after a
    // create or modify, the modem's settings.
    nlohmann::ordered_json describe(const Indication& indication);

  private:
    bool send(unsigned int msgId, void* request, unsigned int length);
    static void onIndication(xal_client_type, unsigned int msgId, void* buffer, unsigned int length,
                             void* data);
    static void onError(xal_client_type, xal_client_error_type, void* data);

    const std::chrono::milliseconds mTimeout;
    xal_client_type mClient = nullptr;
    kiv::Mutex mLock;
    std::condition_variable mChanged;
    std::deque<Indication> mQueue GUARDED_BY(mLock);
    bool mLost GUARDED_BY(mLock) = false;
};

// One change as a line of text.
std::string changeLine(const nlohmann::ordered_json& change);

}  // namespace kivctl
