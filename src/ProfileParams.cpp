#include "ProfileParams.h"

#include <iterator>

#include "Secrets.h"

namespace kiv {

namespace {

// names[value - first] when the value has a name, its decimal number otherwise.
template <typename Enum, size_t N>
std::string named(Enum value, const char* const (&names)[N], uint32_t first = 0) {
    const auto raw = static_cast<uint32_t>(value);
    if (raw >= first && raw - first < N) return names[raw - first];
    return std::to_string(raw);
}

// The text of every set bit in ascending order; bits without a text are left out.
template <size_t N>
std::string bits(uint32_t mask, const char* const (&texts)[N]) {
    std::string out;
    for (size_t i = 0; i < N; ++i) {
        if (mask & (1u << i)) out += texts[i];
    }
    return out;
}

constexpr const char* kApnTypeTexts[] = {"DEFAULT|", "MMS|",       "SUPL|", "DUN|",
                                         "HIPRI|",   "FOTA|",      "IMS|",  "CBS|",
                                         "IA|",      "EMERGENCY|", "MCX|",  "XCAP|"};
constexpr const char* kFilterMatchTexts[] = {"HomeIPSubset|",   "RoamIPSubset|",
                                             "ApnNameSubset|",  "ApnTypeBitmaskSubset|",
                                             "HomeIPSuperset|", "RoamIPSuperset|"};

// "Label=value," items of a dump.
class Items {
  public:
    explicit Items(std::string& out) : mOut(out) {}
    template <typename T>
    void add(const char* label, const std::optional<T>& field) {
        if (field) add(label, text(*field));
    }
    void add(const char* label, const std::string& value) {
        mOut.append(label).append(value).push_back(',');
    }

  private:
    static std::string text(const std::string& value) { return value; }
    static std::string text(bool value) { return value ? "true" : "false"; }
    static std::string text(int32_t value) { return std::to_string(value); }
    template <typename Enum>
    static std::string text(Enum value) {
        return toString(value);
    }
    std::string& mOut;
};

}  // namespace

std::string toString(TechType value) {
    static constexpr const char* kNames[] = {"3GPP", "3GPP2"};
    return named(value, kNames);
}

std::string toString(IPType value) {
    static constexpr const char* kNames[] = {"UNKNOWN", "V4", "V6", "V4V6"};
    return named(value, kNames);
}

std::string toString(AuthType value) {
    static constexpr const char* kNames[] = {"NONE", "PAP", "CHAP", "PAP_CHAP"};
    return named(value, kNames);
}

std::string toString(ApnClass value) {
    static constexpr const char* kNames[] = {"IMS", "ADMN", "INET", "APP"};
    return named(value, kNames, 1);
}

std::string toString(ApnTypes mask) {
    return mask == 0 ? "NONE" : bits(mask, kApnTypeTexts);
}

std::string toString(FilterMatchType mask) {
    return mask == 0 ? "None" : bits(mask, kFilterMatchTexts);
}

std::ostream& operator<<(std::ostream& os, TechType value) {
    return os << toString(value);
}
std::ostream& operator<<(std::ostream& os, IPType value) {
    return os << toString(value);
}
std::ostream& operator<<(std::ostream& os, AuthType value) {
    return os << toString(value);
}
std::ostream& operator<<(std::ostream& os, ApnClass value) {
    return os << toString(value);
}
std::ostream& operator<<(std::ostream& os, ApnTypes mask) {
    return os << toString(mask);
}
std::ostream& operator<<(std::ostream& os, FilterMatchType mask) {
    return os << toString(mask);
}

std::string ProfileParams::dump() const {
    std::string out;
    out.reserve(160);
    Items items(out);
    items.add("ApnName=", mApnName);
    items.add("UserName=", mUserName);
    if (mPassword) items.add("Password=", shownSecret(*mPassword));
    items.add("AuthType=", mAuthType);
    items.add("HomeIPType=", mHomeIPType);
    items.add("RoamIPType=", mRoamIPType);
    if (mApnTypesMask) items.add("ApnTypesMask=", toString(static_cast<ApnTypes>(*mApnTypesMask)));
    items.add("ApnClass=", mApnClass);
    items.add("IsClatEnabled=", mIsClatEnabled);
    items.add("MaxPdnsConnPerBlock=", mMaxPdnsConnPerBlock);
    items.add("MaxPdnConnTimer=", mMaxPdnConnTimer);
    items.add("PdnReqWaitInterval=", mPdnReqWaitInterval);
    items.add("IsApnDisabled=", mIsApnDisabled);
    items.add("IsEmergencySupported=", mIsEmergencySupported);
    items.add("IsKivProfile=", mIsKivProfile);
    items.add("IsIAProfile=", mIsIAProfile);
    return out;
}

AddProfileParams::AddProfileParams(bool persistent, TechType techType, bool isIAProfile)
    : mPersistent(persistent), mTechType(techType) {
    mIsIAProfile = isIAProfile;
}

AddProfileParams::AddProfileParams(const ProfileParams& params, bool persistent, TechType techType,
                                   bool isIAProfile)
    : ProfileParams(params), mPersistent(persistent), mTechType(techType) {
    mIsIAProfile = isIAProfile;
}

std::string AddProfileParams::dump() const {
    return toString(mTechType) + (mPersistent ? " persist=true: " : " persist=false: ") +
           ProfileParams::dump();
}

std::string FilterProfileParams::dump() const {
    std::string out = toString(static_cast<FilterMatchType>(mFilterMatchCriteria)) + ": ";
    if (mFilterByTechType) out += "tech=" + toString(*mFilterByTechType) + ",";
    if (mFilterByProfileId) out += "id=" + std::to_string(*mFilterByProfileId) + ",";
    return out + ProfileParams::dump();
}

}  // namespace kiv
