// Whether bytes are well-formed UTF-8: the text the modem's string fields,
// the state file and the command line accept.
#pragma once

#include <cstdint>
#include <string>

namespace kiv {

inline bool isUtf8(const std::string& text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        size_t extra;
        uint32_t code;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1;
            code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            code = c & 0x07;
        } else {
            return false;
        }
        if (text.size() - i <= extra) return false;
        for (size_t k = 1; k <= extra; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            code = code << 6 | (next & 0x3F);
        }
        // Overlong forms, surrogates and values beyond Unicode are not UTF-8.
        static constexpr uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
        if (code < kSmallest[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

}  // namespace kiv
