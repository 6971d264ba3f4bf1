// What kivctl prints: profiles as a table, one in full, or as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "ProfileParams.h"
#include "base/Mutex.h"

namespace kivctl {

// One profile as the library sees it, with what the modem adds.
struct ProfileView {
    int id = 0;
    kiv::TechType tech = kiv::TechType::TECH_3GPP;
    kiv::ProfileParams params;
    bool persistent = false;
    int handle = 0;      // the shell's #N; 0: none
    bool stale = false;  // the handle's key no longer names a profile
};

// "library", "attach", "persistent", "emergency", "disabled", "clat", and
// "stale" for a handle whose key no longer names a profile.
std::vector<std::string> flagsOf(const ProfileView& view);

nlohmann::ordered_json profileJson(const ProfileView& view);

// One member of a profile record as kivctl shows it ("types", "default,supl");
// none when the record does not hold it. A password shows as (hidden).
struct ShownField {
    const char* name;
    std::optional<std::string> (*text)(const kiv::ProfileParams& params);
    // Whether two records hold the same value (a password compared, not shown).
    bool (*same)(const kiv::ProfileParams& a, const kiv::ProfileParams& b);
};
const std::vector<ShownField>& shownFields();
// A profile's settings as the modem holds them, passwords hidden.
nlohmann::json withoutSecrets(nlohmann::json settings);
// The same with the modem's enumerations and bit masks spelled as kivctl
// spells them elsewhere: IP types "v4v6", APN types ["default","supl"] (the
// modem's own bits, as its message definitions number them).
nlohmann::ordered_json spelledSettings(const nlohmann::ordered_json& settings);

// The passwords kivctl has met, so that none reaches what it prints: the
// library's dump and log lines carry them (unless it was built secret-free).
class Secrets {
  public:
    void learn(const std::string& password) EXCLUDES(mLock);
    // Every password field of the modem's profiles (SettingsJson.h).
    void learnFromModem(const nlohmann::json& profiles) EXCLUDES(mLock);
    // The line with every password it holds shown as (hidden): each one
    // met, and whatever follows "Password=" up to the next field of the
    // library's texts (",Name=") or the line's end, met or not.
    std::string hide(std::string line) const EXCLUDES(mLock);

  private:
    mutable kiv::Mutex mLock;
    std::set<std::string> mKnown GUARDED_BY(mLock);
};
// One of those settings for a terminal: text quoted and escaped as printable().
std::string settingText(const nlohmann::json& value);
// One JSON document on one line; text that is not UTF-8 is replaced, never
// written as invalid JSON.
void printJson(std::ostream& out, const nlohmann::ordered_json& document);

// A help text, or in JSON {"help": text}.
void printHelp(std::ostream& out, bool json, const std::string& text);

// A table with a header, each column as wide as its widest cell.
void printTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows);
// The profiles as a table; the shell's handles first, when any has one.
void printProfiles(std::ostream& out, const std::vector<ProfileView>& views);
// One profile in full, then the settings the modem holds for it.
void printProfile(std::ostream& out, const ProfileView& view, const nlohmann::json& modemSettings);

}  // namespace kivctl
