// The faults injected into the simulated modem that are still to come. Each
// kind counts down as the requests or calls it waits for arrive; a request
// takes at most one fault of each kind it meets.
//
// Not thread-safe: its owner (ModemCore) keeps it under its own lock.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace xalsim {

// One fault still to come: what it does ("fail", "timeout", "transport",
// "service", "connect", "corrupt-list", "corrupt-settings", "response"), the
// message id it waits for (0: none), how many and after how many others of
// the kind.
struct PendingFault {
    std::string kind;
    unsigned int msgId;
    int count;
    int skip;
};

class FaultPlan {
  public:
    // Failure results for `count` requests of msgId, after the next `skip`
    // of them; a count of 0 or less forgets the kind's faults.
    void failNext(unsigned int msgId, int count, int skip);
    // No answer for the next `count` requests of msgId.
    void timeoutNext(unsigned int msgId, int count);
    // A transport error for the next `count` requests of msgId.
    void transportErrorNext(unsigned int msgId, int count);
    void failGetAnyService(int count);
    void failClientInit(int count);
    void corruptNextList(int count);
    void corruptNextSettings(int count);
    // The next response to msgId is these bytes.
    void injectNextResponse(unsigned int msgId, std::vector<uint8_t> bytes);

    void clear();
    std::vector<PendingFault> pending() const;

    // Whether what happens now meets a fault of the kind, which it then takes.
    bool takeFailure(unsigned int msgId);
    bool takeTimeout(unsigned int msgId);
    bool takeTransportError(unsigned int msgId);
    bool takeGetAnyServiceFailure() { return take(mGetAnyServiceFailures); }
    bool takeClientInitFailure() { return take(mClientInitFailures); }
    bool takeCorruptList() { return take(mCorruptLists); }
    bool takeCorruptSettings() { return take(mCorruptSettings); }
    std::optional<std::vector<uint8_t>> takeInjectedResponse(unsigned int msgId);

  private:
    struct Failures {
        int skip = 0;
        int count = 0;
    };
    static bool take(std::map<unsigned int, int>& pending, unsigned int msgId);
    static bool take(int& pending);

    std::map<unsigned int, Failures> mFailures;
    std::map<unsigned int, int> mTimeouts;
    std::map<unsigned int, int> mTransportErrors;
    int mGetAnyServiceFailures = 0;
    int mClientInitFailures = 0;
    int mCorruptLists = 0;
    int mCorruptSettings = 0;
    std::map<unsigned int, std::vector<uint8_t>> mInjectedResponses;
};

}  // namespace xalsim
