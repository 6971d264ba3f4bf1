// What every client of the WDS service in this project asks it for: the
// service object at the version spoken, and the two requests that subscribe
// to every profile change of every type.
#pragma once

#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace wds {

// The WDS service's version: major 1, minor 0xF1, library 6.
inline constexpr int32_t kServiceMajorVersion = 1;
inline constexpr int32_t kServiceMinorVersion = 0xF1;
inline constexpr int32_t kLibraryVersion = 6;

inline xal_idl_service_object_type serviceObject() {
    return wds_get_service_object_internal_v01(kServiceMajorVersion, kServiceMinorVersion,
                                               kLibraryVersion);
}

// Profile-changed indications reported.
inline wds_indication_register_req_msg_v01 profileChangedEventsRequest() {
    wds_indication_register_req_msg_v01 request = {};
    request.report_profile_changed_events_valid = 1;
    request.report_profile_changed_events = 1;
    return request;
}

// Every profile of every type, and every profile reported.
inline wds_configure_profile_event_list_req_msg_v01 allProfileEventsRequest() {
    wds_configure_profile_event_list_req_msg_v01 request = {};
    request.profile_event_register_valid = 1;
    request.profile_event_register_len = 1;
    request.profile_event_register[0].profile_type = WDS_PROFILE_TYPE_ALL_V01;
    request.profile_event_register[0].profile_index = 0xFF;
    request.report_all_profiles_valid = 1;
    request.report_all_profiles = 1;
    return request;
}

}  // namespace wds
