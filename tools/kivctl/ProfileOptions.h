// The options that describe a profile or a filter, how their values are
// spelled, and what the modem can hold.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ProfileParams.h"
#include "common/Arguments.h"

namespace kivctl {

// --apn, --user, --password, --auth, --ip, --roam-ip, --types, --class,
// --clat, --disabled, --emergency, --max-conns, --max-conns-time, --wait-time.
const std::vector<KnownOption>& profileOptions();
// What a filter adds: --id, --tech, --kiv, --attach-profile and the criteria.
const std::vector<KnownOption>& filterOptions();
// Lists of options, joined.
std::vector<KnownOption> optionsOf(std::initializer_list<std::vector<KnownOption>> lists);

// The profile options given, into params. Text the modem cannot hold (too
// long, control characters, not UTF-8) and options the technology does not
// have are bad input.
// With offIsUnset, a switch asked off is left unset (for a filter, see heldOff).
void readProfileOptions(const Arguments& args, kiv::ProfileParams& params, kiv::TechType tech,
                        bool offIsUnset = false);
// Text for an option: refused (bad input) when it is not UTF-8, holds a
// control character or is longer than `limit` bytes.
std::string readTextOption(const std::string& text, const std::string& option, size_t limit);
// The filter options given; a filter may ask for anything.
// With ignoreNames, --kiv and --attach-profile (which only the names a
// profile carries answer) are left out.
void readFilterOptions(const Arguments& args, kiv::FilterProfileParams& filter,
                       bool ignoreNames = false);
// --tech, when given.
std::optional<kiv::TechType> techOption(const Arguments& args);

// Values as they are typed, and back.
std::string techName(kiv::TechType tech);
std::string ipName(kiv::IPType type);
std::string authName(kiv::AuthType type);
std::string className(kiv::ApnClass apnClass);
std::vector<std::string> typeNames(uint32_t mask);
// APN type bits by their Android names ("default", "ims", ...; "*" is all).
std::optional<uint32_t> apnTypeByName(const std::string& name);

// An APN name as the library stores it: ASCII letters in lower case.
std::string normalizedApn(const std::string& apn);

// For a filter: a switch asked off (--clat, --disabled, --emergency off)
// is not on, whether the profile holds it off or not at all (the library's
// filter would want it held). Whether the profile's record passes that.
bool heldOff(const Arguments& args, const kiv::ProfileParams& params);

}  // namespace kivctl
