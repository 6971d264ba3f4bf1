// Reads a carrier APN list in Android's apns-conf.xml format into profile
// records for the library's APN-type update.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ProfileParams.h"

namespace kivctl {

struct CarrierSelection {
    std::string mcc;
    std::string mnc;
    // When given, only the MVNO entries with this type and match data are
    // used; otherwise only the entries without an MVNO type.
    std::optional<std::string> mvnoType;
    std::optional<std::string> mvnoMatchData;
};

struct ApnEntry {
    std::string carrier;
    std::string mcc;
    std::string mnc;
    kiv::ProfileParams params;
};

struct ApnsConfResult {
    bool ok = false;
    std::string error;                   // why the file could not be read
    std::vector<ApnEntry> entries;       // the selected entries, in file order
    std::map<std::string, int> skipped;  // reason -> count
    std::vector<std::string> warnings;   // one per unknown value met
    int total = 0;                       // <apn> elements in the file
};

// APN type bits by their Android names ("default", "ims", ...; "*" is all).
std::optional<uint32_t> apnTypeByName(const std::string& name);

class ApnsConf {
  public:
    // Every entry of the file when selection is empty.
    static ApnsConfResult read(const std::string& path,
                               const std::optional<CarrierSelection>& selection);
};

}  // namespace kivctl
