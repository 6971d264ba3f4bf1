#include "RequestLedger.h"

#include <algorithm>

#include "ClientChoice.h"
#include "sim/ModemCore.h"
#include "wire/RequestHooks.h"
#include "xal/wds_v01.h"

namespace kivctl {

namespace {

bool isChange(unsigned int msgId) {
    return msgId == XAL_WDS_CREATE_PROFILE_REQ_V01 ||
           msgId == XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 ||
           msgId == XAL_WDS_DELETE_PROFILE_REQ_V01;
}

bool isRead(unsigned int msgId) {
    return msgId == XAL_WDS_GET_PROFILE_LIST_REQ_V01 ||
           msgId == XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01;
}

// A change's failure response: the result, the error and the extended error
// code sit where every change response has them.
template <typename Response>
FailedRequest refusal(unsigned int msgId, const void* bytes, unsigned int length) {
    FailedRequest failed{msgId, XAL_NO_ERR};
    if (length < sizeof(Response)) return failed;
    Response response;
    memcpy(&response, bytes, sizeof(response));
    failed.error = response.resp.error;
    if (response.extended_error_code_valid) failed.systemError = response.extended_error_code;
    return failed;
}

}  // namespace

struct RequestLedger::State {
    kiv::Mutex lock;
    std::set<xal_client_type> ignored GUARDED_BY(lock);
    int reading GUARDED_BY(lock) = 0;
    std::vector<FailedRequest> failures GUARDED_BY(lock);
    std::map<unsigned int, size_t> accepted GUARDED_BY(lock);

    // On the requesting thread (the library's worker), as each request ends.
    void observe(const wire::RequestOutcome& outcome) EXCLUDES(lock) {
        kiv::MutexLock guard(lock);
        if (ignored.count(outcome.client) != 0) return;
        const bool change = isChange(outcome.msgId);
        if (!change && !(isRead(outcome.msgId) && reading > 0)) return;
        if (outcome.result != XAL_NO_ERR) {
            failures.push_back({outcome.msgId, outcome.result, outcome.sent});
            return;
        }
        xal_response_type_v01 header{};
        if (outcome.responseLength >= sizeof(header)) {
            memcpy(&header, outcome.response, sizeof(header));
        }
        if (header.result == 0) {
            ++accepted[outcome.msgId];
            return;
        }
        // Gone since the library learnt of it: the table changed, nothing failed.
        if (!change && header.error == xalsim::kErrInvalidProfile) return;
        switch (outcome.msgId) {
            case XAL_WDS_CREATE_PROFILE_REQ_V01:
                failures.push_back(refusal<wds_create_profile_resp_msg_v01>(
                        outcome.msgId, outcome.response, outcome.responseLength));
                break;
            case XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01:
                failures.push_back(refusal<wds_modify_profile_settings_resp_msg_v01>(
                        outcome.msgId, outcome.response, outcome.responseLength));
                break;
            case XAL_WDS_DELETE_PROFILE_REQ_V01:
                failures.push_back(refusal<wds_delete_profile_resp_msg_v01>(
                        outcome.msgId, outcome.response, outcome.responseLength));
                break;
            default:
                failures.push_back({outcome.msgId, XAL_NO_ERR, true, header.error});
                break;
        }
    }
};

RequestLedger::RequestLedger() : mState(std::make_shared<State>()) {
    // The observer shares the state: a request ending while kivctl lets go
    // of the ledger still finds it.
    client::setRequestObserver(
            [state = mState](const wire::RequestOutcome& outcome) { state->observe(outcome); });
}

RequestLedger::~RequestLedger() {
    client::setRequestObserver(nullptr);
}

void RequestLedger::ignore(xal_client_type client) {
    kiv::MutexLock guard(mState->lock);
    mState->ignored.insert(client);
}

RequestLedger::Reading::Reading(RequestLedger& ledger) : mLedger(ledger) {
    kiv::MutexLock guard(mLedger.mState->lock);
    ++mLedger.mState->reading;
}

RequestLedger::Reading::~Reading() {
    kiv::MutexLock guard(mLedger.mState->lock);
    --mLedger.mState->reading;
}

RequestLedger::Reading RequestLedger::reading() {
    return Reading(*this);
}

std::vector<FailedRequest> RequestLedger::takeFailures() {
    kiv::MutexLock guard(mState->lock);
    return std::exchange(mState->failures, {});
}

bool RequestLedger::hasFailures() {
    kiv::MutexLock guard(mState->lock);
    return !mState->failures.empty();
}

bool RequestLedger::onlyUnsent() {
    kiv::MutexLock guard(mState->lock);
    return std::all_of(mState->failures.begin(), mState->failures.end(),
                       [](const FailedRequest& failed) { return !failed.sent; });
}

size_t RequestLedger::accepted(unsigned int msgId) {
    kiv::MutexLock guard(mState->lock);
    auto it = mState->accepted.find(msgId);
    return it == mState->accepted.end() ? 0 : it->second;
}

}  // namespace kivctl
