#include "ServiceSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace xalservice {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;

Result<ServiceSocket> ServiceSocket::listen(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        return Error() << "socket path '" << path << "' must have 1 to "
                       << sizeof(address.sun_path) - 1 << " characters";
    }
    memcpy(address.sun_path, path.data(), path.size());

    // Whoever holds the lock owns the socket path; a socket found there
    // without a holder was left by a service that died.
    auto lock = kiv::LockFile::tryLock(path + ".lock", nullptr);
    if (!lock.ok()) {
        if (lock.error().code() == EWOULDBLOCK) {
            return Error() << "another kivmodemd serves " << path;
        }
        return android::base::unexpected(lock.error());
    }
    struct stat info;
    if (lstat(path.c_str(), &info) == 0) {
        if (!S_ISSOCK(info.st_mode)) return Error() << path << " exists and is not a socket";
        if (unlink(path.c_str()) != 0) return ErrnoError() << "cannot replace " << path;
    }
    ServiceSocket socket("", std::move(*lock));
    socket.mListener.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.mListener.get() < 0) return ErrnoError() << "cannot make a socket";
    // Only the owner may talk to the modem: the table holds passwords.
    const mode_t previous = umask(0177);
    const int bound =
            bind(socket.mListener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    const int bindErrno = errno;
    umask(previous);
    if (bound != 0) return Error(bindErrno) << "cannot bind " << path;
    socket.mPath = path;  // from here on the socket file is this one's to remove
    if (chmod(path.c_str(), 0600) != 0) return ErrnoError() << "cannot set the mode of " << path;
    if (::listen(socket.mListener.get(), SOMAXCONN) != 0) {
        return ErrnoError() << "cannot listen on " << path;
    }
    return socket;
}

ServiceSocket::ServiceSocket(ServiceSocket&& other) noexcept
    : mPath(std::exchange(other.mPath, std::string())),
      mLock(std::move(other.mLock)),
      mListener(std::move(other.mListener)) {}

ServiceSocket::~ServiceSocket() {
    // Removed while the lock is still held: nobody else owns the path yet.
    if (!mPath.empty()) unlink(mPath.c_str());
}

}  // namespace xalservice
