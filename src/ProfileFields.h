// The members of a modem profile, each described once: one row per member
// says how it comes from a client's record, how a requested change of it is
// found and applied, how it is given back, matched and shown. A member that
// takes no part in an operation has no function for it; the technology's
// own rules (the IP types, the profile name) stay in the class's code.
#pragma once

#include <optional>
#include <string>

#include "ProfileParams.h"
#include "Secrets.h"

namespace kiv {

inline std::string itemText(const std::string& value) {
    return value;
}
inline std::string itemText(bool value) {
    return value ? "true" : "false";
}
inline std::string itemText(int value) {
    return std::to_string(value);
}
template <typename Enum>
std::string itemText(Enum value) {
    return toString(value);
}

template <typename Profile>
struct ProfileField {
    const char* label;  // in dump(): "UserName="
    void (*fromParams)(Profile& profile, const ProfileParams& params);
    // A requested value the profile lacks or holds differently goes into
    // changes; true when it did.
    bool (*diff)(const Profile& profile, const ProfileParams& requested, ProfileParams& changes);
    void (*apply)(Profile& profile, const Profile& update);
    void (*toParams)(const Profile& profile, ProfileParams& params);
    // False when the filter asks for this member and the profile does not
    // hold it, or holds another value.
    bool (*matches)(const Profile& profile, const FilterProfileParams& filter);
    // The value as dump() shows it; none when the profile does not hold it.
    std::optional<std::string> (*text)(const Profile& profile);
};

// A row for a member with rules of the technology's own (the IP types, the
// profile name), its operations named as they are given; an operation not
// given takes no part.
template <typename Profile>
class FieldRow {
  public:
    constexpr explicit FieldRow(const char* label)
        : mField{label, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr} {}
    constexpr FieldRow readsParams(void (*fromParams)(Profile&, const ProfileParams&)) const {
        FieldRow row = *this;
        row.mField.fromParams = fromParams;
        return row;
    }
    constexpr FieldRow diffs(bool (*diff)(const Profile&, const ProfileParams&,
                                          ProfileParams&)) const {
        FieldRow row = *this;
        row.mField.diff = diff;
        return row;
    }
    // Taken from an update of the profile.
    constexpr FieldRow applies(void (*apply)(Profile& profile, const Profile& update)) const {
        FieldRow row = *this;
        row.mField.apply = apply;
        return row;
    }
    constexpr FieldRow writesParams(void (*toParams)(const Profile&, ProfileParams&)) const {
        FieldRow row = *this;
        row.mField.toParams = toParams;
        return row;
    }
    constexpr FieldRow matches(bool (*matches)(const Profile&, const FilterProfileParams&)) const {
        FieldRow row = *this;
        row.mField.matches = matches;
        return row;
    }
    // Shown in dump().
    constexpr FieldRow shows(std::optional<std::string> (*text)(const Profile& profile)) const {
        FieldRow row = *this;
        row.mField.text = text;
        return row;
    }
    constexpr operator ProfileField<Profile>() const { return mField; }

  private:
    ProfileField<Profile> mField;
};

// A member the profile holds as the client's record does, with the same
// meaning: Member is the profile's optional, Has, Get and Set the record's
// accessors.
template <typename Profile, auto Member, auto Has, auto Get, auto Set>
struct PlainField {
    static void fromParams(Profile& profile, const ProfileParams& params) {
        if ((params.*Has)()) profile.*Member = (params.*Get)();
    }
    static bool diff(const Profile& profile, const ProfileParams& requested,
                     ProfileParams& changes) {
        if (!(requested.*Has)() || profile.*Member == (requested.*Get)()) return false;
        (changes.*Set)((requested.*Get)());
        return true;
    }
    static void apply(Profile& profile, const Profile& update) {
        if (update.*Member) profile.*Member = update.*Member;
    }
    static void toParams(const Profile& profile, ProfileParams& params) {
        if (profile.*Member) (params.*Set)(*(profile.*Member));
    }
    static bool matches(const Profile& profile, const FilterProfileParams& filter) {
        return !(filter.*Has)() || profile.*Member == (filter.*Get)();
    }
    static std::optional<std::string> text(const Profile& profile) {
        if (!(profile.*Member)) return std::nullopt;
        return itemText(*(profile.*Member));
    }
    static constexpr ProfileField<Profile> row(const char* label) {
        return {label, fromParams, diff, apply, toParams, matches, text};
    }
    // A password: shown as the build shows secrets (Secrets.h).
    static std::optional<std::string> secretText(const Profile& profile) {
        if (!(profile.*Member)) return std::nullopt;
        return shownSecret(itemText(*(profile.*Member)));
    }
    static constexpr ProfileField<Profile> secretRow(const char* label) {
        return {label, fromParams, diff, apply, toParams, matches, secretText};
    }
};

// The rows' operations over a whole table.
template <typename Profile, size_t N>
void fieldsFromParams(const ProfileField<Profile> (&fields)[N], Profile& profile,
                      const ProfileParams& params) {
    for (const auto& field : fields) {
        if (field.fromParams) field.fromParams(profile, params);
    }
}

template <typename Profile, size_t N>
bool fieldsDiff(const ProfileField<Profile> (&fields)[N], const Profile& profile,
                const ProfileParams& requested, ProfileParams& changes) {
    bool changed = false;
    for (const auto& field : fields) {
        if (field.diff && field.diff(profile, requested, changes)) changed = true;
    }
    return changed;
}

template <typename Profile, size_t N>
void fieldsApply(const ProfileField<Profile> (&fields)[N], Profile& profile,
                 const Profile& update) {
    for (const auto& field : fields) {
        if (field.apply) field.apply(profile, update);
    }
}

template <typename Profile, size_t N>
void fieldsToParams(const ProfileField<Profile> (&fields)[N], const Profile& profile,
                    ProfileParams& params) {
    for (const auto& field : fields) {
        if (field.toParams) field.toParams(profile, params);
    }
}

template <typename Profile, size_t N>
bool fieldsMatch(const ProfileField<Profile> (&fields)[N], const Profile& profile,
                 const FilterProfileParams& filter) {
    for (const auto& field : fields) {
        if (field.matches && !field.matches(profile, filter)) return false;
    }
    return true;
}

// Appends "label" "value" "," to a dump.
void appendItem(std::string& out, const char* label, const std::string& value);

template <typename Profile, size_t N>
void fieldsDump(const ProfileField<Profile> (&fields)[N], const Profile& profile,
                std::string& out) {
    for (const auto& field : fields) {
        if (auto text = field.text(profile)) appendItem(out, field.label, *text);
    }
}

}  // namespace kiv
