#include "IndicationCodec.h"

#include <cstring>

namespace wire {

namespace {

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

xal_client_error_type decodeMessage(xal_idl_type_of_msg_type kind, unsigned int messageId,
                                    const void* source, unsigned int sourceLength,
                                    void* destination, unsigned int destinationLength) {
    // Decoding needs no live client: indications may be decoded after their
    // client was released.
    if (source == nullptr || destination == nullptr) return XAL_CLIENT_PARAM_ERR;
    if (kind != XAL_IDL_INDICATION || messageId != XAL_WDS_PROFILE_CHANGED_IND_V01) {
        return XAL_DECODE_ERR;
    }
    if (destinationLength < sizeof(wds_profile_changed_ind_msg_v01)) return XAL_CLIENT_PARAM_ERR;
    wds_profile_changed_ind_msg_v01 decoded;
    const xal_client_error_type result = decodeProfileChanged(source, sourceLength, &decoded);
    if (result == XAL_NO_ERR) memcpy(destination, &decoded, sizeof(decoded));
    return result;
}

}  // namespace wire
