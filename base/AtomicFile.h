// Files written whole: a new text goes to a file beside the old one, to the
// disk, and then takes the old one's place by rename, so that a crash or a
// full disk leaves the old text or the new one, never a part. The file
// keeps its mode and owner (a new one is private), and is never written
// through a symlink: the symlink's end is replaced, and the symlink stays.
#pragma once

#include <android-base/file.h>
#include <android-base/result.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace kiv {

// The calls that get a file to the disk whole, so that a test can see them
// in their order (the system's own by default).
struct DiskCalls {
    int (*fsync)(int fd) = ::fsync;
    int (*rename)(const char* from, const char* to) = ::rename;
};

// Follows a chain of symlinks to the file it ends at, which need not exist.
inline android::base::Result<std::string> resolveSymlinks(const std::string& path) {
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info;
        if (lstat(current.c_str(), &info) != 0) {
            if (errno == ENOENT) return current;
            return android::base::ErrnoError() << "cannot read " << current;
        }
        if (!S_ISLNK(info.st_mode)) return current;
        std::string target;
        if (!android::base::Readlink(current, &target)) {
            return android::base::ErrnoError() << "cannot read the link " << current;
        }
        current = target[0] == '/' ? target : android::base::Dirname(current) + "/" + target;
    }
    return android::base::Error() << path << ": too many levels of symbolic links";
}

// Replaces the file at `path` (no symlink: resolve it first) with `text`.
// An error carries the system's error number.
inline android::base::Result<void> replaceFile(const std::string& path, const std::string& text,
                                               const DiskCalls& calls = DiskCalls()) {
    mode_t mode = 0600;
    struct stat old;
    const bool existed = stat(path.c_str(), &old) == 0;
    if (existed) mode = old.st_mode & 07777;

    std::string temporary =
            android::base::Dirname(path) + "/." + android::base::Basename(path) + ".XXXXXX";
    // mkostemp creates the name exclusively: a symlink planted there fails it.
    android::base::unique_fd fd(mkostemp(temporary.data(), O_CLOEXEC));
    // The new text is written beside the old one, then renamed over it: the
    // folder must take a new file.
    if (fd.get() < 0) {
        return android::base::ErrnoError() << "cannot write " << path << " (a new file in "
                                           << android::base::Dirname(path) << ")";
    }
    auto fail = [&](const char* what) -> android::base::Result<void> {
        const int saved = errno;
        unlink(temporary.c_str());
        return android::base::Error(saved) << what << " " << path;
    };
    if (fchmod(fd.get(), mode) != 0) return fail("cannot set the mode of");
    if (existed && (old.st_uid != geteuid() || old.st_gid != getegid()) &&
        fchown(fd.get(), old.st_uid, old.st_gid) != 0 && errno != EPERM) {
        return fail("cannot set the owner of");
    }
    if (!android::base::WriteFully(fd.get(), text.data(), text.size())) {
        return fail("cannot write");
    }
    // On the disk before it takes the old one's place, so that a power cut
    // leaves the old text or the new one, never an empty file.
    if (calls.fsync(fd.get()) != 0) return fail("cannot write");
    if (close(fd.release()) != 0) return fail("cannot write");
    if (calls.rename(temporary.c_str(), path.c_str()) != 0) return fail("cannot replace");
    // The rename itself reaches the disk with the directory.
    android::base::unique_fd dir(
            ::open(android::base::Dirname(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) calls.fsync(dir.get());
    return {};
}

}  // namespace kiv
