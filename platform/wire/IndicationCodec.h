// The simulated modem's wire format of indications: "KV", version 1, a TLV
// count, then TLVs of a type byte, a 16-bit little-endian length and the
// value. TLV 0x10 is the profile-changed record: 32-bit profile type, 8-bit
// index, 32-bit event; other TLVs are skipped.
#pragma once

#include <cstdint>
#include <vector>

#include "xal/wds_v01.h"
#include "xal/xal_client.h"

namespace wire {

// A null record encodes an indication without the record (valid flag 0).
std::vector<uint8_t> encodeProfileChanged(const wds_profile_changed_ind_type_v01* record);
xal_client_error_type decodeProfileChanged(const void* source, unsigned int length,
                                           wds_profile_changed_ind_msg_v01* out);
// xal_client_message_decode, as every transport of the simulated modem
// implements it.
xal_client_error_type decodeMessage(xal_idl_type_of_msg_type kind, unsigned int messageId,
                                    const void* source, unsigned int sourceLength,
                                    void* destination, unsigned int destinationLength);

}  // namespace wire
