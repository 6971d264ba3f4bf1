// The modem service's listening socket: a SOCK_SEQPACKET Unix socket at a
// path, mode 0600 (the table holds passwords), owned by whoever holds the
// lock file beside it ("PATH.lock"). A socket found at the path with no
// holder was left by a service that died, and is replaced. The socket file
// goes when this does.
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <string>

#include "base/LockFile.h"

namespace xalservice {

class ServiceSocket {
  public:
    static android::base::Result<ServiceSocket> listen(const std::string& path);

    ServiceSocket(ServiceSocket&& other) noexcept;
    ServiceSocket& operator=(ServiceSocket&&) = delete;
    ~ServiceSocket();

    int get() const { return mListener.get(); }
    const std::string& path() const { return mPath; }

  private:
    ServiceSocket(std::string path, kiv::LockFile lock)
        : mPath(std::move(path)), mLock(std::move(lock)) {}

    std::string mPath;  // empty: nothing to remove
    kiv::LockFile mLock;
    android::base::unique_fd mListener;
};

}  // namespace xalservice
