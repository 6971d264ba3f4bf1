// What this client library made on a modem that the modem itself cannot
// say: which profiles are temporaries (the modem manager stores every
// profile alike) and, on modems that keep no profile names, the name each
// was given. Kept in a small private file per modem, keyed by the modem's
// identity, so that another process, or a later run, still knows; several
// processes on one modem take turns on it (a lock beside it), and it is
// written whole (base/AtomicFile.h).
//
// An entry holds while the profile at its index still has the APN it was
// made with; a profile deleted, or replaced by someone else's, ends it.
#pragma once

#include <android-base/result.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace xalmm {

struct MadeProfile {
    std::string apn;
    bool temporary = false;
    std::optional<std::string> name;  // only when the modem keeps none
};

class TemporaryRecord {
  public:
    // The record of the modem `identity` in `folder`; nothing is read yet.
    TemporaryRecord(std::string folder, const std::string& identity);
    TemporaryRecord() = default;

    const std::string& path() const { return mPath; }
    // Reads the file again (a missing file is an empty record).
    android::base::Result<void> load();
    std::optional<MadeProfile> find(int32_t index, const std::string& apn) const;
    // Changes one entry (nothing: removes it) in the file, under its lock:
    // the file is read again first, so that no other process's entry is
    // lost. On failure nothing changed.
    android::base::Result<void> update(int32_t index, const std::optional<MadeProfile>& made);
    // Entries for which `holds(index, entry)` is false (the profile deleted,
    // or another in its place) are dropped, in memory and, when there were
    // any, in the file. Returns what could not be written, if anything.
    template <typename Holds>
    std::optional<std::string> forgetStale(const Holds& holds) {
        // Collected first: an update reads the file again into the entries.
        std::vector<int32_t> gone;
        for (const auto& [index, made] : mEntries) {
            if (!holds(index, made)) gone.push_back(index);
        }
        for (const int32_t index : gone) {
            if (auto forgotten = update(index, std::nullopt); !forgotten.ok()) {
                return forgotten.error().message();
            }
        }
        return std::nullopt;
    }

  private:
    std::string mPath;
    std::map<int32_t, MadeProfile> mEntries;
};

}  // namespace xalmm
