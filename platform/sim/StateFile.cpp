#include "StateFile.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "SettingsJson.h"
#include "base/AtomicFile.h"
#include "base/LockFile.h"

namespace xalsim {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;

namespace {

constexpr const char* kFormat = "kivr-modem-state";

kiv::DiskCalls sDiskCalls;
constexpr int kVersion = 2;

Result<Table> parseJson(const std::string& text) {
    nlohmann::json document;
    try {
        document = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& e) {
        // "[json.exception.parse_error.101] parse error at line 3, ..."
        const std::string what = e.what();
        const size_t bracket = what.find("] ");
        return Error() << (bracket == std::string::npos ? what : what.substr(bracket + 2))
                       << (e.id == 101 ? " (is the file cut short?)" : "");
    }
    if (!document.is_object()) return Error() << "not a modem state document";
    for (const auto& [key, value] : document.items()) {
        if (key != "format" && key != "version" && key != "profiles") {
            return Error() << "unknown member \"" << key << "\"";
        }
    }
    if (!document.contains("format") || document["format"] != kFormat) {
        return Error() << "not a modem state document (\"format\" is not \"" << kFormat << "\")";
    }
    if (!document.contains("version") || document["version"] != kVersion) {
        return Error() << "unsupported version "
                       << document.value("version", nlohmann::json()).dump()
                       << " (this program reads " << kVersion << ")";
    }
    if (!document.contains("profiles") || !document["profiles"].is_array()) {
        return Error() << "\"profiles\" must be a list";
    }
    Table table;
    for (const auto& object : document["profiles"]) {
        auto profile = profileFromJson(object);
        if (!profile.ok()) return profile.error();
        const Slot slot{profile->type, profile->index};
        if (!table.emplace(slot, profile->settings).second) {
            return Error() << "profile " << typeName(slot.first) << " "
                           << static_cast<int>(slot.second) << " listed twice";
        }
    }
    return table;
}

}  // namespace

Result<StateFile> StateFile::open(const std::string& path, const std::string& owner,
                                  std::chrono::milliseconds wait) {
    if (path.empty()) return Error() << "no state file given";
    auto resolved = kiv::resolveSymlinks(path);
    if (!resolved.ok()) return resolved.error();
    struct stat info;
    if (stat(resolved->c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        return Error() << *resolved << " is not a regular file";
    }
    const std::string lockPath = *resolved + ".lock";
    const std::string folder = android::base::Dirname(*resolved);
    const auto deadline = std::chrono::steady_clock::now() + wait;
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        std::string holder;
        auto lock = kiv::LockFile::tryLock(lockPath, &holder);
        if (lock.ok()) {
            lock->record(owner + " (pid " + std::to_string(getpid()) + ")\n");
            return StateFile(*resolved, std::move(*lock));
        }
        const int why = lock.error().code();
        if ((why == EACCES || why == EROFS) && access(folder.c_str(), W_OK) != 0) {
            // A folder we may not write to: we can only read a table that is
            // there, and need no lock for that (a save fails, with the
            // reason); a new one cannot be made there.
            if (access(resolved->c_str(), R_OK) == 0) return StateFile(*resolved, std::nullopt);
            if (access(resolved->c_str(), F_OK) != 0) {
                return Error(why) << "cannot make " << *resolved << ": the folder " << folder
                                  << " cannot be written";
            }
        }
        if (why != EWOULDBLOCK) return android::base::unexpected(lock.error());
        const bool daemon = android::base::StartsWith(holder, "kivmodemd");
        if (daemon || std::chrono::steady_clock::now() >= deadline) {
            return Error() << *resolved << " is in use by "
                           << (holder.empty() ? "another process" : holder);
        }
        // Another command holds it for a moment: wait for it, not busily.
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
}

bool StateFile::exists() const {
    struct stat info;
    return stat(mPath.c_str(), &info) == 0;
}

Result<Table> StateFile::load() const {
    std::string text;
    if (!android::base::ReadFileToString(mPath, &text, /*follow_symlinks=*/true)) {
        return ErrnoError() << "cannot read " << mPath;
    }
    auto table = parse(text);
    if (!table.ok()) return Error() << mPath << ": " << table.error().message();
    return table;
}

Result<StateFile::PowerOn> StateFile::powerOn(ModemCore& modem, bool mustSave) const {
    PowerOn result;
    const bool created = !exists();
    Table table;
    if (created) {
        const Table factory = factoryTable();
        table = modem.fitting(factory);
        result.factoryLeftOut = factory.size() - table.size();
    } else {
        auto loaded = load();
        if (!loaded.ok()) return loaded.error();
        table = std::move(*loaded);
    }
    if (auto fits = modem.replaceTable(table); !fits.ok()) {
        return Error() << mPath << ": " << fits.error().message();
    }
    keepPersistent(table);
    // Fits: it is what was just taken, less some.
    (void)modem.replaceTable(table);
    result.profiles = table.size();
    if (created || mustSave) {
        if (auto saved = save(table); !saved.ok()) return saved.error();
    }
    return result;
}

std::string StateFile::serialize(const Table& table) {
    nlohmann::ordered_json document;
    document["format"] = kFormat;
    document["version"] = kVersion;
    document["profiles"] = nlohmann::ordered_json::array();
    for (const auto& [slot, settings] : table) {
        document["profiles"].push_back(profileToJson(slot, settings));
    }
    return document.dump(2) + "\n";
}

Result<Table> StateFile::parse(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    // Even an empty modem is written as a document: nothing at all is a
    // file cut short.
    if (first == std::string::npos) return Error() << "no modem state in it (it is empty)";
    if (text[first] != '{') {
        return Error() << "not a modem state document (it holds no JSON object; a state file "
                          "begins with {\"format\": \"kivr-modem-state\"...)";
    }
    return parseJson(text);
}

Result<void> StateFile::save(const Table& table) const {
    return kiv::replaceFile(mPath, serialize(table), sDiskCalls);
}

void StateFile::setDiskCalls(const DiskCalls& calls) {
    sDiskCalls = calls;
}

}  // namespace xalsim
