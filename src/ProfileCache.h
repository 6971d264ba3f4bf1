#pragma once

namespace kiv {

// The library's image of the modem's profile table.
class ProfileCache {
  public:
    // A fresh token: process-wide, starting at 0, never reused. Called on the
    // worker thread only.
    static unsigned long generateToken();
};

}  // namespace kiv
