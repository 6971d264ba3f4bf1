// The messaging client interface, served by the simulated modem.

#include <cstring>

#include "SimModemImpl.h"

namespace xalsim {

namespace {

xal_idl_service_object sWdsService{1};

constexpr uint8_t kMagic0 = 'K';
constexpr uint8_t kMagic1 = 'V';
constexpr uint8_t kWireVersion = 1;
constexpr uint8_t kProfileChangedTlv = 0x10;
constexpr uint16_t kProfileChangedTlvLength = 9;

void putLe32(std::vector<uint8_t>& out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

uint32_t getLe32(const uint8_t* in) {
    return uint32_t{in[0]} | uint32_t{in[1]} << 8 | uint32_t{in[2]} << 16 | uint32_t{in[3]} << 24;
}

}  // namespace

xal_idl_service_object_type wdsServiceObject() {
    return &sWdsService;
}

std::vector<uint8_t> encodeProfileChanged(const wds_profile_changed_ind_type_v01* record) {
    std::vector<uint8_t> out = {kMagic0, kMagic1, kWireVersion, record ? uint8_t{1} : uint8_t{0}};
    if (record != nullptr) {
        out.push_back(kProfileChangedTlv);
        out.push_back(kProfileChangedTlvLength & 0xFF);
        out.push_back(kProfileChangedTlvLength >> 8);
        putLe32(out, static_cast<uint32_t>(record->profile_type));
        out.push_back(record->profile_index);
        putLe32(out, static_cast<uint32_t>(record->profile_change_evt));
    }
    return out;
}

xal_client_error_type decodeProfileChanged(const void* source, unsigned int length,
                                           wds_profile_changed_ind_msg_v01* out) {
    const auto* in = static_cast<const uint8_t*>(source);
    if (length < 4 || in[0] != kMagic0 || in[1] != kMagic1 || in[2] != kWireVersion) {
        return XAL_DECODE_ERR;
    }
    memset(out, 0, sizeof(*out));
    size_t offset = 4;
    for (unsigned int tlv = 0; tlv < in[3]; ++tlv) {
        if (length - offset < 3) return XAL_DECODE_ERR;
        const uint8_t type = in[offset];
        const uint16_t size = static_cast<uint16_t>(in[offset + 1] | in[offset + 2] << 8);
        offset += 3;
        if (length - offset < size) return XAL_DECODE_ERR;
        if (type == kProfileChangedTlv) {
            if (size != kProfileChangedTlvLength) return XAL_DECODE_ERR;
            out->profile_changed_ind_valid = 1;
            out->profile_changed_ind.profile_type =
                    static_cast<wds_profile_type_enum_v01>(getLe32(in + offset));
            out->profile_changed_ind.profile_index = in[offset + 4];
            out->profile_changed_ind.profile_change_evt =
                    static_cast<wds_profile_changed_event_enum_v01>(getLe32(in + offset + 5));
        }
        offset += size;  // unknown TLVs are skipped
    }
    return offset == length ? XAL_NO_ERR : XAL_DECODE_ERR;
}

// Entry points of the C interface, with access to the modem's state.
struct Api {
    static SimModem::Impl& impl() { return *SimModem::instance().mImpl; }
};

}  // namespace xalsim

using xalsim::SimModem;
using xalsim::Task;

namespace {

SimModem::Impl& modem() {
    return xalsim::Api::impl();
}

xal_client_type newClient(SimModem::Impl& m, bool notifier) {
    auto client = std::make_unique<xal_client_struct>();
    client->notifier = notifier;
    xal_client_type handle = client.get();
    m.clients.emplace(handle, std::move(client));
    m.touch();
    return handle;
}

}  // namespace

extern "C" {

xal_idl_service_object_type wds_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t /*idl_min_version*/,
                                                                int32_t /*library_version*/) {
    return idl_maj_version == 1 ? xalsim::wdsServiceObject() : nullptr;
}

xal_client_error_type xal_client_notifier_init(xal_idl_service_object_type service_obj,
                                               xal_client_os_params* os_params,
                                               xal_client_type* user_handle) {
    if (user_handle == nullptr || os_params == nullptr) return XAL_CLIENT_PARAM_ERR;
    if (service_obj != xalsim::wdsServiceObject()) return XAL_CLIENT_PARAM_ERR;
    auto& m = modem();
    std::lock_guard<std::mutex> guard(m.lock);
    *user_handle = newClient(m, true);
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_register_notify_cb(xal_client_type user_handle,
                                                    xal_client_notify_cb notify_cb,
                                                    void* notify_cb_data) {
    auto& m = modem();
    std::lock_guard<std::mutex> guard(m.lock);
    xal_client_struct* client = m.findClient(user_handle);
    if (client == nullptr || client->released) return XAL_CLIENT_INVALID_CLNT;
    client->notifyCb = notify_cb;
    client->notifyData = notify_cb_data;
    if (m.serviceUp && notify_cb != nullptr) {
        m.queue({Task::kNotify, user_handle, xalsim::Clock::now(), XAL_CLIENT_SERVICE_COUNT_INC});
    }
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_get_any_service(xal_idl_service_object_type service_obj,
                                                 xal_service_info* service_info) {
    if (service_info == nullptr || service_obj != xalsim::wdsServiceObject()) {
        return XAL_CLIENT_PARAM_ERR;
    }
    auto& m = modem();
    std::lock_guard<std::mutex> guard(m.lock);
    if (m.getAnyServiceFailures > 0) {
        --m.getAnyServiceFailures;
        return XAL_SERVICE_ERR;
    }
    if (!m.serviceUp) return XAL_SERVICE_ERR;
    memset(service_info, 0, sizeof(*service_info));
    service_info->reserved[0] = 1;  // the one instance of the service
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_init(xal_service_info* service_info,
                                      xal_idl_service_object_type service_obj,
                                      xal_client_ind_cb ind_cb, void* ind_cb_data,
                                      xal_client_os_params* os_params,
                                      xal_client_type* user_handle) {
    if (service_info == nullptr || os_params == nullptr || user_handle == nullptr ||
        service_obj != xalsim::wdsServiceObject()) {
        return XAL_CLIENT_PARAM_ERR;
    }
    auto& m = modem();
    std::lock_guard<std::mutex> guard(m.lock);
    if (m.clientInitFailures > 0) {
        --m.clientInitFailures;
        return XAL_INTERNAL_ERR;
    }
    if (!m.serviceUp) return XAL_SERVICE_ERR;
    xal_client_type handle = newClient(m, false);
    handle->indCb = ind_cb;
    handle->indData = ind_cb_data;
    *user_handle = handle;
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_register_error_cb(xal_client_type user_handle,
                                                   xal_client_error_cb err_cb, void* err_cb_data) {
    auto& m = modem();
    std::lock_guard<std::mutex> guard(m.lock);
    xal_client_struct* client = m.findClient(user_handle);
    if (client == nullptr || client->released || client->notifier) return XAL_CLIENT_INVALID_CLNT;
    client->errorCb = err_cb;
    client->errorData = err_cb_data;
    // A service already lost is reported at once, as it would have been.
    if (client->serviceLost && err_cb != nullptr) {
        m.queue({Task::kError, user_handle, xalsim::Clock::now(), XAL_SERVICE_ERR});
    }
    return XAL_NO_ERR;
}

xal_client_error_type xal_client_send_msg_sync(xal_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int /*timeout_msecs*/) {
    auto& m = modem();
    std::lock_guard<std::mutex> guard(m.lock);
    xal_client_struct* client = m.findClient(user_handle);
    if (client == nullptr || client->released || client->notifier) return XAL_CLIENT_INVALID_CLNT;
    if ((req_c_struct == nullptr && req_c_struct_len != 0) || resp_c_struct == nullptr ||
        resp_c_struct_len < sizeof(xal_response_type_v01)) {
        return XAL_CLIENT_PARAM_ERR;
    }
    if (!m.serviceUp || client->serviceLost) return XAL_SERVICE_ERR;
    return m.serve(client, msg_id, req_c_struct, req_c_struct_len, resp_c_struct,
                   resp_c_struct_len);
}

xal_client_error_type xal_client_message_decode(xal_client_type /*user_handle*/,
                                                xal_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* p_src,
                                                unsigned int src_len, void* p_dst,
                                                unsigned int dst_len) {
    // Decoding needs no live client: indications may be decoded after their
    // client was released.
    if (p_src == nullptr || p_dst == nullptr) return XAL_CLIENT_PARAM_ERR;
    if (req_resp_ind != XAL_IDL_INDICATION || message_id != XAL_WDS_PROFILE_CHANGED_IND_V01) {
        return XAL_DECODE_ERR;
    }
    if (dst_len < sizeof(wds_profile_changed_ind_msg_v01)) return XAL_CLIENT_PARAM_ERR;
    wds_profile_changed_ind_msg_v01 decoded;
    const xal_client_error_type result = xalsim::decodeProfileChanged(p_src, src_len, &decoded);
    if (result == XAL_NO_ERR) memcpy(p_dst, &decoded, sizeof(decoded));
    return result;
}

xal_client_error_type xal_client_release(xal_client_type user_handle) {
    auto& m = modem();
    std::unique_lock<std::mutex> guard(m.lock);
    xal_client_struct* client = m.findClient(user_handle);
    if (client == nullptr || client->released) return XAL_CLIENT_INVALID_CLNT;
    client->released = true;
    for (auto it = m.tasks.begin(); it != m.tasks.end();) {
        it = it->client == user_handle ? m.tasks.erase(it) : std::next(it);
    }
    // A callback of this client running on the dispatcher finishes first,
    // unless it is the caller itself.
    if (std::this_thread::get_id() != m.dispatcher.get_id()) {
        m.changed.wait(guard,
                       [&] { return !(m.dispatching && m.dispatchingClient == user_handle); });
    }
    m.touch();
    return XAL_NO_ERR;
}

}  // extern "C"
