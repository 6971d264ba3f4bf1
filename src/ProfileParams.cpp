#include "ProfileParams.h"

#include <iterator>
#include <sstream>

namespace kiv {

namespace {

// Writes names[value] when the value has a name, its decimal number otherwise.
template <typename Enum, size_t N>
std::ostream& printNamed(std::ostream& os, Enum value, const char* const (&names)[N],
                         uint32_t first = 0) {
    const auto raw = static_cast<uint32_t>(value);
    if (raw >= first && raw - first < N) return os << names[raw - first];
    return os << raw;
}

// Writes the text of every set bit in ascending order; bits without a text
// are left out.
template <size_t N>
void printBits(std::ostream& os, uint32_t mask, const char* const (&texts)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (mask & (1u << i)) os << texts[i];
    }
}

constexpr const char* kApnTypeTexts[] = {"DEFAULT|", "MMS|",       "SUPL|", "DUN|",
                                         "HIPRI|",   "FOTA|",      "IMS|",  "CBS|",
                                         "IA|",      "EMERGENCY|", "MCX|",  "XCAP|"};
constexpr const char* kFilterMatchTexts[] = {"HomeIPSubset|",   "RoamIPSubset|",
                                             "ApnNameSubset|",  "ApnTypeBitmaskSubset|",
                                             "HomeIPSuperset|", "RoamIPSuperset|"};

}  // namespace

std::ostream& operator<<(std::ostream& os, TechType value) {
    static constexpr const char* kNames[] = {"3GPP", "3GPP2"};
    return printNamed(os, value, kNames);
}

std::ostream& operator<<(std::ostream& os, IPType value) {
    static constexpr const char* kNames[] = {"UNKNOWN", "V4", "V6", "V4V6"};
    return printNamed(os, value, kNames);
}

std::ostream& operator<<(std::ostream& os, AuthType value) {
    static constexpr const char* kNames[] = {"NONE", "PAP", "CHAP", "PAP_CHAP"};
    return printNamed(os, value, kNames);
}

std::ostream& operator<<(std::ostream& os, ApnClass value) {
    static constexpr const char* kNames[] = {"IMS", "ADMN", "INET", "APP"};
    return printNamed(os, value, kNames, 1);
}

std::ostream& operator<<(std::ostream& os, ApnTypes mask) {
    if (mask == 0) return os << "NONE";
    printBits(os, mask, kApnTypeTexts);
    return os;
}

std::ostream& operator<<(std::ostream& os, FilterMatchType mask) {
    if (mask == 0) return os << "None";
    printBits(os, mask, kFilterMatchTexts);
    return os;
}

std::string ProfileParams::dump() const {
    std::ostringstream os;
    os << std::boolalpha;
    auto item = [&os](const char* label, const auto& field) {
        if (field) os << label << *field << ",";
    };
    item("ApnName=", mApnName);
    item("UserName=", mUserName);
    item("Password=", mPassword);
    item("AuthType=", mAuthType);
    item("HomeIPType=", mHomeIPType);
    item("RoamIPType=", mRoamIPType);
    if (mApnTypesMask) os << "ApnTypesMask=" << static_cast<ApnTypes>(*mApnTypesMask) << ",";
    item("ApnClass=", mApnClass);
    item("IsClatEnabled=", mIsClatEnabled);
    item("MaxPdnsConnPerBlock=", mMaxPdnsConnPerBlock);
    item("MaxPdnConnTimer=", mMaxPdnConnTimer);
    item("PdnReqWaitInterval=", mPdnReqWaitInterval);
    item("IsApnDisabled=", mIsApnDisabled);
    item("IsEmergencySupported=", mIsEmergencySupported);
    item("IsKivProfile=", mIsKivProfile);
    item("IsIAProfile=", mIsIAProfile);
    return os.str();
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
    std::ostringstream os;
    os << mTechType << " persist=" << std::boolalpha << mPersistent << ": "
       << ProfileParams::dump();
    return os.str();
}

std::string FilterProfileParams::dump() const {
    std::ostringstream os;
    os << static_cast<FilterMatchType>(mFilterMatchCriteria) << ": ";
    if (mFilterByTechType) os << "tech=" << *mFilterByTechType << ",";
    if (mFilterByProfileId) os << "id=" << *mFilterByProfileId << ",";
    os << ProfileParams::dump();
    return os.str();
}

}  // namespace kiv
