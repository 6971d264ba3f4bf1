// The simulated modem's table kept in a file between runs, as a modem keeps
// its table in non-volatile memory. Used by the modem service and by
// kivctl's embedded modem alike.
//
// The file is a JSON document (see SettingsJson.h for a profile):
//
//     {"format": "kivr-modem-state", "version": 2, "profiles": [...]}
//
// A truncated file is not a JSON document and is refused.
//
// Whoever opens the file holds an exclusive lock on it ("FILE.lock" beside
// it, removed when let go) until the StateFile is destroyed, so that two
// processes never work on one table. A save writes a new file beside the old one and renames it
// over: never half-written, never through a symlink at the temporary name;
// it keeps the file's mode (new files are 0600, as the table holds
// passwords), and a symlinked state file has its target updated.
#pragma once

#include <android-base/result.h>
#include <android-base/unique_fd.h>

#include <chrono>
#include <optional>
#include <string>

#include "ModemCore.h"
#include "base/AtomicFile.h"
#include "base/LockFile.h"

namespace xalsim {

class StateFile {
  public:
    // Locks the table at `path` for `owner` (a program name, recorded in
    // the lock file for whoever else tries). Waits up to `wait` for another
    // holder to let go, but not for a modem service, which never does.
    static android::base::Result<StateFile> open(const std::string& path, const std::string& owner,
                                                 std::chrono::milliseconds wait);

    // The file written: the path given, or the end of its symlinks.
    const std::string& path() const { return mPath; }
    bool exists() const;
    android::base::Result<Table> load() const;
    android::base::Result<void> save(const Table& table) const;

    // What a power-on did: the profiles the modem started with, and how
    // many factory profiles a new modem had no room for.
    struct PowerOn {
        size_t profiles = 0;
        size_t factoryLeftOut = 0;
    };
    // Powers `modem` on from the file: the table stored there (for a new
    // file, the factory profiles the modem has room for), less what the
    // modem does not store persistently. The file is written when it is new,
    // and always with `mustSave` (a service proves at once that it can store
    // what it serves); otherwise the next change stores what was dropped.
    // An error with a system error number is the system's; one without is
    // the file's content.
    android::base::Result<PowerOn> powerOn(ModemCore& modem, bool mustSave) const;

    // The file's text for a table, and back.
    static std::string serialize(const Table& table);
    static android::base::Result<Table> parse(const std::string& text);

    // The calls a save makes to get the table to the disk whole, so that a
    // test can see them in their order (the system's own by default).
    using DiskCalls = kiv::DiskCalls;
    static void setDiskCalls(const DiskCalls& calls);

  private:
    StateFile(std::string path, std::optional<kiv::LockFile> lock)
        : mPath(std::move(path)), mLock(std::move(lock)) {}

    std::string mPath;
    std::optional<kiv::LockFile> mLock;  // none: a table that may only be read
};

}  // namespace xalsim
