#include "mmclient/TemporaryRecord.h"

#include <android-base/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "base/AtomicFile.h"
#include "base/LockFile.h"

using android::base::Error;
using android::base::Result;

namespace xalmm {

namespace {

constexpr const char* kFormat = "kivr-modem-manager-temporaries";

// A file name of the identity: letters, digits, '.', '-' and '_' only.
std::string fileNameOf(const std::string& identity) {
    std::string name = "temporaries-";
    for (char c : identity) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
        name += plain ? c : '_';
    }
    return name + ".json";
}

Result<std::map<int32_t, MadeProfile>> parse(const std::string& text, const std::string& path) {
    std::map<int32_t, MadeProfile> entries;
    const auto document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object() || document.value("format", "") != kFormat ||
        !document.contains("profiles") || !document["profiles"].is_array()) {
        return Error() << path << ": not a record of temporary profiles";
    }
    for (const auto& entry : document["profiles"]) {
        if (!entry.is_object() || !entry.contains("index") || !entry["index"].is_number_integer() ||
            !entry.contains("apn") || !entry["apn"].is_string()) {
            return Error() << path << ": an entry without an index or an APN";
        }
        MadeProfile made;
        made.apn = entry["apn"].get<std::string>();
        made.temporary = entry.value("temporary", false);
        if (entry.contains("name") && entry["name"].is_string()) {
            made.name = entry["name"].get<std::string>();
        }
        entries[entry["index"].get<int32_t>()] = made;
    }
    return entries;
}

std::string serialize(const std::map<int32_t, MadeProfile>& entries) {
    nlohmann::ordered_json document;
    document["format"] = kFormat;
    document["profiles"] = nlohmann::ordered_json::array();
    for (const auto& [index, made] : entries) {
        nlohmann::ordered_json entry;
        entry["index"] = index;
        entry["apn"] = made.apn;
        entry["temporary"] = made.temporary;
        if (made.name) entry["name"] = *made.name;
        document["profiles"].push_back(entry);
    }
    return document.dump(2) + "\n";
}

}  // namespace

TemporaryRecord::TemporaryRecord(std::string folder, const std::string& identity)
    : mPath(folder + "/" + fileNameOf(identity)) {}

Result<void> TemporaryRecord::load() {
    if (mPath.empty()) return {};
    std::string text;
    if (!android::base::ReadFileToString(mPath, &text, /*follow_symlinks=*/true)) {
        if (errno == ENOENT) {
            mEntries.clear();
            return {};
        }
        return android::base::ErrnoError() << "cannot read " << mPath;
    }
    auto entries = parse(text, mPath);
    if (!entries.ok()) return entries.error();
    mEntries = std::move(*entries);
    return {};
}

std::optional<MadeProfile> TemporaryRecord::find(int32_t index, const std::string& apn) const {
    auto it = mEntries.find(index);
    if (it == mEntries.end() || it->second.apn != apn) return std::nullopt;
    return it->second;
}

Result<void> TemporaryRecord::update(int32_t index, const std::optional<MadeProfile>& made) {
    if (!made && mEntries.count(index) == 0) return {};
    if (mPath.empty()) return Error() << "no folder for the record of temporary profiles";
    // The folder and those above it, private when new.
    for (size_t slash = mPath.find('/', 1); slash != std::string::npos;
         slash = mPath.find('/', slash + 1)) {
        const std::string folder = mPath.substr(0, slash);
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
            return android::base::ErrnoError() << "cannot create " << folder;
        }
    }
    auto target = kiv::resolveSymlinks(mPath);
    if (!target.ok()) return target.error();
    // Another process holds it only for a read and a write.
    auto lock = kiv::LockFile::lock(*target + ".lock");
    if (!lock.ok()) return lock.error();
    if (auto loaded = load(); !loaded.ok()) return loaded.error();
    auto entries = mEntries;
    if (made) {
        entries[index] = *made;
    } else if (entries.erase(index) == 0) {
        return {};
    }
    if (auto written = kiv::replaceFile(*target, serialize(entries)); !written.ok()) {
        return written.error();
    }
    mEntries = std::move(entries);
    return {};
}

}  // namespace xalmm
