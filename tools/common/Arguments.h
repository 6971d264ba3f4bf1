// One command line, parsed against the options it may hold.
#pragma once

#include <android-base/result.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kivctl {

struct KnownOption {
    const char* name;         // "--apn"
    const char* value;        // what the value is called in help ("NAME"); null for a flag
    const char* help;         // one line
    bool mayBeEmpty = false;  // "--apn=" or --apn "" means an empty value, not a mistake
};

// Options are written "--name value" or "--name=value"; a value is never
// another option, so a value that starts with "-" is written "--name=-1".
// "-h" is "--help"; after "--" every word is an argument. Each option may be
// given once. Anything else is bad input: an error that says why.
class Arguments {
  public:
    static android::base::Result<Arguments> read(const std::vector<std::string>& words,
                                                 const std::vector<KnownOption>& options);
    // The same for kivctl's commands, whose bad input is a UsageError.
    static Arguments parse(const std::vector<std::string>& words,
                           const std::vector<KnownOption>& options);

    bool has(const std::string& name) const { return mValues.count(name) != 0; }
    // The option's value; none when it was not given (or is a flag).
    std::optional<std::string> value(const std::string& name) const;
    const std::vector<std::string>& positionals() const { return mPositionals; }

  private:
    std::map<std::string, std::optional<std::string>> mValues;
    std::vector<std::string> mPositionals;
};

// Numbers typed by the user, within [low, high]; the error names what the
// number is for and the range.
android::base::Result<int> readNumber(const std::string& text, const std::string& what, int low,
                                      int high);
// The same for kivctl's commands, whose bad input is a UsageError.
int parseNumber(const std::string& text, const std::string& what, int low, int high);

}  // namespace kivctl
