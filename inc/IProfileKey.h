// A client's handle of one cached profile. Clients never hold profiles, only
// handles; the library counts the handles of each profile and hears when the
// last one goes.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ProfileParams.h"

namespace kiv {

// Handles are always owned by std::shared_ptr.
class IProfileKey : public std::enable_shared_from_this<IProfileKey> {
  public:
    virtual ~IProfileKey() = default;

    // The modem's profile number and technology of the profile.
    virtual int getProfileId() const = 0;
    virtual TechType getTechType() const = 0;

    // Asks to be called, on the library's worker thread, when the profile
    // leaves the library's cache while this handle is still alive. The
    // listener must not block on the library.
    virtual void registerExpirationListener(std::function<void()> listener) = 0;

    virtual std::string dump() const = 0;
};

}  // namespace kiv
