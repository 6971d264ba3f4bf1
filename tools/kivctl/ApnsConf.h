// Reads a carrier APN list in Android's apns-conf.xml format into profile
// records for the library's APN-type update.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ProfileParams.h"

namespace kivctl {

// What a SIM says about itself, for the entries of MVNOs (mobile virtual
// network operators that share a host network's mcc/mnc).
struct SimIdentity {
    std::optional<std::string>
            imsi;  // the full IMSI; mvno_type "imsi" patterns may hold x wildcards
    std::optional<std::string> gid1;   // hex; mvno_type "gid" is a prefix, any case
    std::optional<std::string> spn;    // the service provider name, any case
    std::optional<std::string> iccid;  // mvno_type "iccid" is a prefix

    bool empty() const { return !imsi && !gid1 && !spn && !iccid; }
};

struct CarrierSelection {
    std::string mcc;
    std::string mnc;
    SimIdentity sim;
};

struct ApnEntry {
    std::string carrier;
    std::string mcc;
    std::string mnc;
    kiv::ProfileParams params;
    // Its type was "*" or none: read as every APN type but ia and
    // emergency, which an entry must name, as Android's telephony does.
    bool anyType = false;
};

struct ApnsConfResult {
    bool ok = false;
    std::string error;                   // why the file could not be read
    std::vector<ApnEntry> entries;       // the selected entries, in file order
    std::map<std::string, int> skipped;  // reason -> count
    std::vector<std::string> warnings;   // one per unknown value met
    std::set<std::string> mvnoTypes;     // the MVNO types of the carrier's entries
    int total = 0;                       // <apn> elements in the file
};

// Whether a SIM is the MVNO an entry names, as Android devices decide it.
bool mvnoMatches(const std::string& type, const std::string& matchData, const SimIdentity& sim);

class ApnsConf {
  public:
    // The carrier's entries as a device with that SIM uses them: the MVNO
    // entries that match the SIM when any does, else the entries without an
    // MVNO type. Every entry of the file when selection is empty.
    static ApnsConfResult read(const std::string& path,
                               const std::optional<CarrierSelection>& selection);
};

}  // namespace kivctl
