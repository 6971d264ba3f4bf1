#include "Arguments.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <algorithm>
#include <cctype>

#include "Errors.h"
#include "base/Utf8.h"

namespace kivctl {

std::string printable(const std::string& text) {
    static const char kDigits[] = "0123456789ABCDEF";
    // UTF-8 text stays as it is, apart from its control characters (C0, DEL
    // and C1); in text that is not UTF-8, every byte above ASCII is escaped.
    const bool utf8 = kiv::isUtf8(text);
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool c1 =
                c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if ((c >= 0x20 && c < 0x7F && c != '\\') || (c >= 0x80 && utf8 && !c1)) {
            out += static_cast<char>(c);
            continue;
        }
        const size_t width = c1 ? 2 : 1;
        for (size_t k = 0; k < width; ++k) {
            const auto b = static_cast<unsigned char>(text[i + k]);
            out += "\\x";
            out += kDigits[b >> 4];
            out += kDigits[b & 0xF];
        }
        i += width - 1;
    }
    return out;
}

android::base::Result<Arguments> Arguments::read(const std::vector<std::string>& words,
                                                 const std::vector<KnownOption>& options) {
    using android::base::Error;
    Arguments result;
    auto known = [&](const std::string& name) -> const KnownOption* {
        for (const auto& option : options) {
            if (name == option.name) return &option;
        }
        return nullptr;
    };
    bool onlyArguments = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (onlyArguments || word.empty() || word[0] != '-' || word == "-") {
            result.mPositionals.push_back(word);
            continue;
        }
        if (word == "--") {
            onlyArguments = true;
            continue;
        }
        const size_t equals = word.find('=');
        std::string name = word.substr(0, equals);
        if (name == "-h") name = "--help";
        const KnownOption* option = known(name);
        if (option == nullptr || !android::base::StartsWith(name, "--")) {
            return Error() << "unknown option " << quote(name);
        }
        if (result.has(name)) return Error() << "option " << name << " given twice";
        std::optional<std::string> value;
        if (option->value == nullptr) {
            if (equals != std::string::npos)
                return Error() << "option " << name << " takes no value";
        } else if (equals != std::string::npos) {
            value = word.substr(equals + 1);
        } else if (i + 1 < words.size() && !(words[i + 1].size() > 1 && words[i + 1][0] == '-')) {
            value = words[++i];
        } else {
            return Error() << "option " << name << " needs " << option->value << " (write " << name
                           << "=VALUE for a value that starts with '-')";
        }
        if (value && value->empty() && !option->mayBeEmpty) {
            return Error() << "option " << name << " needs " << option->value
                           << ", not an empty word";
        }
        result.mValues[name] = std::move(value);
    }
    return result;
}

Arguments Arguments::parse(const std::vector<std::string>& words,
                           const std::vector<KnownOption>& options) {
    auto parsed = read(words, options);
    if (!parsed.ok()) throw UsageError(parsed.error().message());
    return std::move(*parsed);
}

std::optional<std::string> Arguments::value(const std::string& name) const {
    auto it = mValues.find(name);
    return it == mValues.end() ? std::nullopt : it->second;
}

android::base::Result<int> readNumber(const std::string& text, const std::string& what, int low,
                                      int high) {
    int value = 0;
    // Decimal digits only, a minus sign where the range allows one.
    const size_t digits = !text.empty() && text[0] == '-' && low < 0 ? 1 : 0;
    const bool plain = text.size() > digits &&
                       std::all_of(text.begin() + static_cast<long>(digits), text.end(),
                                   [](char c) { return isdigit(static_cast<unsigned char>(c)); });
    if (!plain || !android::base::ParseInt(text, &value, low, high)) {
        return android::base::Error() << "bad number " << quote(text) << " for " << what << " ("
                                      << low << " to " << high << ")";
    }
    return value;
}

int parseNumber(const std::string& text, const std::string& what, int low, int high) {
    auto number = readNumber(text, what, low, high);
    if (!number.ok()) throw UsageError(number.error().message());
    return *number;
}

}  // namespace kivctl
