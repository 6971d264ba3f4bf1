#include "Rehearsal.h"

#include <cstring>

#include "ClientChoice.h"
#include "wire/IndicationCodec.h"
#include "wire/RequestHooks.h"
#include "xal/wds_v01.h"

namespace kivctl {

namespace {

// A modify the modem accepts, without the modem: the answer (success), and
// the echo a modem sends after it.
std::optional<wire::LocalAnswer> rehearse(xal_client_type, unsigned int msgId, const void* request,
                                          unsigned int requestLength, void* response,
                                          unsigned int responseLength) {
    if (msgId != XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01 ||
        requestLength != sizeof(wds_modify_profile_settings_req_msg_v01)) {
        return std::nullopt;
    }
    wds_modify_profile_settings_req_msg_v01 modify;
    memcpy(&modify, request, sizeof(modify));
    memset(response, 0, responseLength);
    wds_profile_changed_ind_type_v01 echo{};
    echo.profile_type = modify.profile.profile_type;
    echo.profile_index = modify.profile.profile_index;
    echo.profile_change_evt = WDS_PROFILE_EVENT_MODIFY_V01;
    wire::LocalAnswer answer;
    answer.indications.emplace_back(XAL_WDS_PROFILE_CHANGED_IND_V01,
                                    wire::encodeProfileChanged(&echo));
    return answer;
}

}  // namespace

Rehearsal::Rehearsal() {
    client::setRequestHook(rehearse);
}

Rehearsal::~Rehearsal() {
    client::setRequestHook(nullptr);
}

}  // namespace kivctl
