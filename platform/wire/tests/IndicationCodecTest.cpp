// The simulated modem's indication encoding.

#include <gtest/gtest.h>

#include <cstring>

#include "wire/IndicationCodec.h"
#include "xal/xal_client.h"

namespace {

// Indications reach other processes' libraries through this decoding: a
// buffer cut anywhere, or longer than its records, is refused.
TEST(IndicationCodecTest, DecodeRejectsMalformedBuffers) {
    wds_profile_changed_ind_msg_v01 out{};
    const uint8_t good[] = {'K', 'V', 1, 1, 0x10, 9, 0, 1, 0, 0, 0, 101, 3, 0, 0, 0};
    auto decode = [&](const uint8_t* bytes, unsigned int length, unsigned int outLength) {
        return xal_client_message_decode(nullptr, XAL_IDL_INDICATION, 0xA8, bytes, length, &out,
                                         outLength);
    };
    ASSERT_EQ(decode(good, sizeof(good), sizeof(out)), XAL_NO_ERR);
    EXPECT_EQ(out.profile_changed_ind_valid, 1);
    EXPECT_EQ(out.profile_changed_ind.profile_type, WDS_PROFILE_TYPE_3GPP2_V01);
    EXPECT_EQ(out.profile_changed_ind.profile_index, 101);
    EXPECT_EQ(out.profile_changed_ind.profile_change_evt, WDS_PROFILE_EVENT_MODIFY_V01);
    for (unsigned int cut = 0; cut < sizeof(good); ++cut) {
        EXPECT_EQ(decode(good, cut, sizeof(out)), XAL_DECODE_ERR) << cut;
    }
    uint8_t longer[sizeof(good) + 1] = {};
    memcpy(longer, good, sizeof(good));
    EXPECT_EQ(decode(longer, sizeof(longer), sizeof(out)), XAL_DECODE_ERR);
    EXPECT_EQ(decode(good, sizeof(good), 8), XAL_CLIENT_PARAM_ERR);
}

}  // namespace
