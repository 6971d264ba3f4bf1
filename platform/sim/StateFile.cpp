#include "StateFile.h"

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>
#include <thread>
#include <type_traits>

#include "SettingsJson.h"
#include "WdsSettingsFields.h"

namespace xalsim {

using android::base::ErrnoError;
using android::base::Error;
using android::base::Result;
using android::base::unique_fd;

namespace {

constexpr const char* kFormat = "kivr-modem-state";
constexpr int kVersion = 2;

// --- The earlier text format, read only -------------------------------------
//
//     # comment
//     [profile 3gpp 1]
//     persistent = 1
//     profile_name = "internet"
//     apn_type_mask = 0x1
//
// Strings are double-quoted with \\, \", \n, \t and \xHH escapes; numbers
// are decimal or 0x-prefixed hexadecimal.

template <typename T>
using RawOf = typename std::conditional_t<std::is_enum_v<T>, std::underlying_type<T>,
                                          std::common_type<T>>::type;

bool unquote(const std::string& value, std::string& out) {
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') return false;
    out.clear();
    const size_t end = value.size() - 1;  // the closing quote
    for (size_t i = 1; i < end; ++i) {
        const char c = value[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i >= end) return false;
        switch (value[i]) {
            case '\\':
            case '"':
                out += value[i];
                break;
            case 'n':
                out += '\n';
                break;
            case 't':
                out += '\t';
                break;
            case 'x': {
                if (i + 2 >= end) return false;
                unsigned int code = 0;
                if (!android::base::ParseUint(value.substr(i + 1, 2).insert(0, "0x"), &code) ||
                    code == 0) {
                    return false;
                }
                out += static_cast<char>(code);
                i += 2;
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

template <typename T>
bool parseLegacyNumber(const std::string& text, T& field) {
    using Raw = RawOf<T>;
    Raw raw;
    if constexpr (std::is_unsigned_v<Raw>) {
        if (!android::base::ParseUint(text, &raw)) return false;
    } else {
        if (!android::base::ParseInt(text, &raw)) return false;
    }
    field = static_cast<T>(raw);
    return true;
}

bool setLegacyField(Settings& s, const std::string& name, const std::string& value) {
    if (name == "persistent") {
        s.persistent_valid = 1;
        return parseLegacyNumber(value, s.persistent);
    }
    auto readText = [](const std::string& text, auto& array) {
        std::string plain;
        if (!unquote(text, plain) || plain.size() >= sizeof(array)) return false;
        memset(array, 0, sizeof(array));
        memcpy(array, plain.data(), plain.size());
        return true;
    };
#define XALSIM_READ(kind, field)          \
    if (name == #field) {                 \
        s.field##_valid = 1;              \
        return XALSIM_READ_##kind(field); \
    }
#define XALSIM_READ_STR(field) readText(value, s.field)
#define XALSIM_READ_NUM(field) parseLegacyNumber(value, s.field)
    XALSIM_SETTINGS_FIELDS(XALSIM_READ)
#undef XALSIM_READ_NUM
#undef XALSIM_READ_STR
#undef XALSIM_READ
    return false;
}

Result<Table> parseLegacy(const std::string& text) {
    Table table;
    Settings* current = nullptr;
    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        line = android::base::Trim(line);
        if (line.empty() || line[0] == '#') continue;
        if (line.front() == '[') {
            char kind[8] = {};
            int index = -1;
            char close = 0;
            if (sscanf(line.c_str(), "[profile %7s %d%c", kind, &index, &close) != 3 ||
                close != ']') {
                return Error() << "line " << number << ": bad section '" << line << "'";
            }
            const std::string type(kind);
            int32_t profileType;
            if (type == "3gpp" && index >= kFirst3gppIndex && index <= 255) {
                profileType = WDS_PROFILE_TYPE_3GPP_V01;
            } else if (type == "3gpp2" && index >= kFirst3gpp2Index && index <= 255) {
                profileType = WDS_PROFILE_TYPE_3GPP2_V01;
            } else {
                return Error() << "line " << number << ": bad profile type or index in '" << line
                               << "'";
            }
            auto [it, inserted] =
                    table.emplace(Slot{profileType, static_cast<uint8_t>(index)}, emptySettings());
            if (!inserted) return Error() << "line " << number << ": profile listed twice";
            current = &it->second;
            continue;
        }
        const size_t equals = line.find('=');
        if (current == nullptr || equals == std::string::npos) {
            return Error() << "line " << number
                           << ": expected '[profile TYPE INDEX]' or 'field = value'";
        }
        const std::string name = android::base::Trim(line.substr(0, equals));
        const std::string value = android::base::Trim(line.substr(equals + 1));
        if (!setLegacyField(*current, name, value)) {
            return Error() << "line " << number << ": bad field '" << line << "'";
        }
    }
    // Comments alone are no table either.
    if (table.empty()) return Error() << "no modem state in it (only comments)";
    return table;
}

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
        Slot slot;
        Settings settings;
        std::string why;
        if (!profileFromJson(object, &slot, &settings, &why)) return Error() << why;
        if (!table.emplace(slot, settings).second) {
            return Error() << "profile " << typeName(slot.first) << " "
                           << static_cast<int>(slot.second) << " listed twice";
        }
    }
    return table;
}

// Follows a chain of symlinks to the file it ends at, which need not exist.
Result<std::string> resolve(const std::string& path) {
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info;
        if (lstat(current.c_str(), &info) != 0) {
            if (errno == ENOENT) return current;
            return ErrnoError() << "cannot read " << current;
        }
        if (!S_ISLNK(info.st_mode)) return current;
        std::string target;
        if (!android::base::Readlink(current, &target)) {
            return ErrnoError() << "cannot read the link " << current;
        }
        current = target[0] == '/' ? target : android::base::Dirname(current) + "/" + target;
    }
    return Error() << path << ": too many levels of symbolic links";
}

std::string holderOf(int lockFd) {
    std::string text;
    if (lseek(lockFd, 0, SEEK_SET) != 0 || !android::base::ReadFdToString(lockFd, &text)) return "";
    return android::base::Trim(text);
}

}  // namespace

Result<StateFile> StateFile::open(const std::string& path, const std::string& owner,
                                  std::chrono::milliseconds wait) {
    if (path.empty()) return Error() << "no state file given";
    auto resolved = resolve(path);
    if (!resolved.ok()) return resolved.error();
    struct stat info;
    if (stat(resolved->c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        return Error() << *resolved << " is not a regular file";
    }
    const std::string lockPath = *resolved + ".lock";
    unique_fd lock(TEMP_FAILURE_RETRY(
            ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)));
    if (lock.get() < 0 && (errno == EACCES || errno == EROFS) &&
        access(android::base::Dirname(*resolved).c_str(), W_OK) != 0 &&
        access(resolved->c_str(), R_OK) == 0) {
        // A folder we may not write to: we can only read the table, and
        // need no lock for that. A save fails, with the reason.
        return StateFile(*resolved, unique_fd());
    }
    if (lock.get() < 0) return ErrnoError() << "cannot open the lock " << lockPath;

    const auto deadline = std::chrono::steady_clock::now() + wait;
    auto pause = std::chrono::milliseconds(1);
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return ErrnoError() << "cannot lock " << lockPath;
        }
        const std::string holder = holderOf(lock.get());
        const bool daemon = android::base::StartsWith(holder, "kivmodemd");
        if (daemon || std::chrono::steady_clock::now() >= deadline) {
            return Error() << *resolved << " is in use by "
                           << (holder.empty() ? "another process" : holder);
        }
        // Another command holds it for a moment: wait for it, not busily.
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(50));
    }
    const std::string me = owner + " (pid " + std::to_string(getpid()) + ")\n";
    if (ftruncate(lock.get(), 0) == 0) android::base::WriteStringToFd(me, lock.get());
    return StateFile(*resolved, std::move(lock));
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
    if (text[first] == '{') return parseJson(text);
    return parseLegacy(text);
}

Result<void> StateFile::save(const Table& table) const {
    const std::string text = serialize(table);
    // The file keeps its mode and owner; a new one is private.
    mode_t mode = 0600;
    struct stat old;
    const bool existed = stat(mPath.c_str(), &old) == 0;
    if (existed) mode = old.st_mode & 07777;

    std::string temporary =
            android::base::Dirname(mPath) + "/." + android::base::Basename(mPath) + ".XXXXXX";
    // mkostemp creates the name exclusively: a symlink planted there fails it.
    unique_fd fd(mkostemp(temporary.data(), O_CLOEXEC));
    // The new table is written beside the old one, then renamed over it: the
    // folder must take a new file.
    if (fd.get() < 0) {
        return ErrnoError() << "cannot write " << mPath << " (a new file in "
                            << android::base::Dirname(mPath) << ")";
    }
    auto fail = [&](const char* what) -> Result<void> {
        const int saved = errno;
        unlink(temporary.c_str());
        return Error(saved) << what << " " << mPath;
    };
    if (fchmod(fd.get(), mode) != 0) return fail("cannot set the mode of");
    if (existed && (old.st_uid != geteuid() || old.st_gid != getegid()) &&
        fchown(fd.get(), old.st_uid, old.st_gid) != 0 && errno != EPERM) {
        return fail("cannot set the owner of");
    }
    if (!android::base::WriteFully(fd.get(), text.data(), text.size())) {
        return fail("cannot write");
    }
    if (fsync(fd.get()) != 0) return fail("cannot write");
    if (close(fd.release()) != 0) return fail("cannot write");
    if (rename(temporary.c_str(), mPath.c_str()) != 0) return fail("cannot replace");
    // The rename itself reaches the disk with the directory.
    unique_fd dir(
            ::open(android::base::Dirname(mPath).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) fsync(dir.get());
    return {};
}

}  // namespace xalsim
