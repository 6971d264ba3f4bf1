// What the library's dump texts and log lines show where a password stands.
// By default the password itself, as they always have (their texts are
// fixed); a production build that must keep secrets out of its logs defines
// KIVR_SECRET_FREE_LOG=1 and shows "(hidden)" instead.
#pragma once

#include <string>

#ifndef KIVR_SECRET_FREE_LOG
#define KIVR_SECRET_FREE_LOG 0
#endif

namespace kiv {

inline constexpr bool kSecretFreeLog = KIVR_SECRET_FREE_LOG != 0;

inline std::string shownSecret(const std::string& password) {
    return kSecretFreeLog ? std::string("(hidden)") : password;
}

}  // namespace kiv
