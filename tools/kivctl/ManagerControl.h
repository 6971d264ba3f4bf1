// The simulated modem manager's control object (kivmmd), as kivctl's
// `modem` actions reach it: the events a real modem manager makes on its
// own, on demand.
#pragma once

#include <string>
#include <vector>

namespace kivctl {

class ManagerControl {
  public:
    // On the bus at `address` (empty: the system bus).
    explicit ManagerControl(std::string address) : mAddress(std::move(address)) {}

    // One action of `kivctl modem` on the modem `modem` (its equipment
    // identifier); returns what was done, for the user. Bad input is a
    // UsageError, a refusal Refused.
    std::string run(const std::string& modem, const std::vector<std::string>& words);

    // The actions, for help texts and errors.
    static const char* const kActions;

  private:
    std::string mAddress;
};

}  // namespace kivctl
