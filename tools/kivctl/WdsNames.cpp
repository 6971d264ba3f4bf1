#include "WdsNames.h"

#include <cstdio>
#include <utility>

#include "xal/wds_v01.h"

namespace kivctl {

namespace {

const std::pair<const char*, unsigned int> kRequests[] = {
        {"create", XAL_WDS_CREATE_PROFILE_REQ_V01},
        {"modify", XAL_WDS_MODIFY_PROFILE_SETTINGS_REQ_V01},
        {"delete", XAL_WDS_DELETE_PROFILE_REQ_V01},
        {"list", XAL_WDS_GET_PROFILE_LIST_REQ_V01},
        {"get", XAL_WDS_GET_PROFILE_SETTINGS_REQ_V01},
        {"bind", XAL_WDS_BIND_SUBSCRIPTION_REQ_V01},
        {"register", XAL_WDS_INDICATION_REGISTER_REQ_V01},
        {"events", XAL_WDS_CONFIGURE_PROFILE_EVENT_LIST_REQ_V01},
};

const std::pair<const char*, int32_t> kEvents[] = {
        {"create", WDS_PROFILE_EVENT_CREATE_V01},
        {"delete", WDS_PROFILE_EVENT_DELETE_V01},
        {"modify", WDS_PROFILE_EVENT_MODIFY_V01},
        {"subscription-change", WDS_PROFILE_EVENT_SUBSCRIPTION_CHANGE_V01},
        {"profile-ready", WDS_PROFILE_EVENT_PROFILE_READY_V01},
};

}  // namespace

std::optional<unsigned int> requestByName(const std::string& name) {
    for (const auto& [known, msgId] : kRequests) {
        if (name == known) return msgId;
    }
    return std::nullopt;
}

std::string requestName(unsigned int msgId) {
    for (const auto& [name, known] : kRequests) {
        if (msgId == known) return name;
    }
    char hex[16];
    snprintf(hex, sizeof(hex), "0x%02X", msgId);
    return hex;
}

std::optional<int32_t> eventByName(const std::string& name) {
    for (const auto& [known, event] : kEvents) {
        if (name == known) return event;
    }
    return std::nullopt;
}

std::string eventName(int32_t event) {
    for (const auto& [name, known] : kEvents) {
        if (event == known) return name;
    }
    return std::to_string(event);
}

}  // namespace kivctl
