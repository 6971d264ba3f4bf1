#include "FaultPlan.h"

#include <utility>

namespace xalsim {

void FaultPlan::failNext(unsigned int msgId, int count, int skip) {
    if (count <= 0) {
        mFailures.erase(msgId);
    } else {
        mFailures[msgId] = {skip < 0 ? 0 : skip, count};
    }
}

void FaultPlan::timeoutNext(unsigned int msgId, int count) {
    mTimeouts[msgId] = count;
}

void FaultPlan::transportErrorNext(unsigned int msgId, int count) {
    mTransportErrors[msgId] = count;
}

void FaultPlan::failGetAnyService(int count) {
    mGetAnyServiceFailures = count;
}

void FaultPlan::failClientInit(int count) {
    mClientInitFailures = count;
}

void FaultPlan::corruptNextList(int count) {
    mCorruptLists = count;
}

void FaultPlan::corruptNextSettings(int count) {
    mCorruptSettings = count;
}

void FaultPlan::injectNextResponse(unsigned int msgId, std::vector<uint8_t> bytes) {
    mInjectedResponses[msgId] = std::move(bytes);
}

void FaultPlan::clear() {
    *this = FaultPlan();
}

std::vector<PendingFault> FaultPlan::pending() const {
    std::vector<PendingFault> faults;
    for (const auto& [msgId, failures] : mFailures) {
        faults.push_back({"fail", msgId, failures.count, failures.skip});
    }
    for (const auto& [msgId, count] : mTimeouts) {
        if (count > 0) faults.push_back({"timeout", msgId, count, 0});
    }
    for (const auto& [msgId, count] : mTransportErrors) {
        if (count > 0) faults.push_back({"transport", msgId, count, 0});
    }
    for (const auto& [msgId, bytes] : mInjectedResponses) {
        faults.push_back({"response", msgId, 1, 0});
    }
    const std::pair<const char*, int> kCounted[] = {{"service", mGetAnyServiceFailures},
                                                    {"connect", mClientInitFailures},
                                                    {"corrupt-list", mCorruptLists},
                                                    {"corrupt-settings", mCorruptSettings}};
    for (const auto& [kind, count] : kCounted) {
        if (count > 0) faults.push_back({kind, 0, count, 0});
    }
    return faults;
}

bool FaultPlan::takeFailure(unsigned int msgId) {
    auto it = mFailures.find(msgId);
    if (it == mFailures.end()) return false;
    if (it->second.skip > 0) {
        --it->second.skip;
        return false;
    }
    if (--it->second.count <= 0) mFailures.erase(it);
    return true;
}

bool FaultPlan::takeTimeout(unsigned int msgId) {
    return take(mTimeouts, msgId);
}

bool FaultPlan::takeTransportError(unsigned int msgId) {
    return take(mTransportErrors, msgId);
}

std::optional<std::vector<uint8_t>> FaultPlan::takeInjectedResponse(unsigned int msgId) {
    auto it = mInjectedResponses.find(msgId);
    if (it == mInjectedResponses.end()) return std::nullopt;
    std::vector<uint8_t> bytes = std::move(it->second);
    mInjectedResponses.erase(it);
    return bytes;
}

bool FaultPlan::take(std::map<unsigned int, int>& pending, unsigned int msgId) {
    auto it = pending.find(msgId);
    if (it == pending.end() || it->second <= 0) return false;
    if (--it->second == 0) pending.erase(it);
    return true;
}

bool FaultPlan::take(int& pending) {
    if (pending <= 0) return false;
    --pending;
    return true;
}

}  // namespace xalsim
