// The modem manager's profile dictionaries, whatever a modem manager sends,
// into the modem's records and back: nothing read outside a field, and
// every dictionary this side writes is one the interface accepts.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <cstring>

#include "mm/ProfileDict.h"

namespace {

const char* const kKeys[] = {"profile-id",
                             "profile-name",
                             "apn",
                             "ip-type",
                             "allowed-auth",
                             "user",
                             "password",
                             "apn-type",
                             "profile-enabled",
                             "access-type-preference",
                             "roaming-allowance",
                             "profile-source"};

mm::ProfileDict dictFrom(FuzzedDataProvider& data) {
    mm::ProfileDict dict;
    const size_t entries = data.ConsumeIntegralInRange<size_t>(0, 16);
    for (size_t i = 0; i < entries && data.remaining_bytes() > 0; ++i) {
        const std::string key =
                data.ConsumeBool()
                        ? kKeys[data.ConsumeIntegralInRange<size_t>(0, std::size(kKeys) - 1)]
                        : data.ConsumeRandomLengthString(24);
        switch (data.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
                dict[key] = data.ConsumeIntegral<int32_t>();
                break;
            case 1:
                dict[key] = data.ConsumeIntegral<uint32_t>();
                break;
            case 2:
                dict[key] = data.ConsumeBool();
                break;
            default:
                dict[key] = data.ConsumeRandomLengthString(300);
                break;
        }
    }
    return dict;
}

// Every text field ends within its array.
void requireTerminated(const mm::Settings& s) {
    if (strnlen(s.profile_name, sizeof(s.profile_name)) == sizeof(s.profile_name) ||
        strnlen(s.apn_name, sizeof(s.apn_name)) == sizeof(s.apn_name) ||
        strnlen(s.username, sizeof(s.username)) == sizeof(s.username) ||
        strnlen(s.password, sizeof(s.password)) == sizeof(s.password)) {
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const mm::ProfileDict stored = dictFrom(data);
    const bool wellFormed = mm::checkDict(stored).ok();
    requireTerminated(mm::settingsFromDict(stored));
    (void)mm::profileIndex(stored);
    (void)mm::isClearedSlot(stored);

    // A request of any bytes, written over the stored profile.
    mm::Settings request;
    std::vector<uint8_t> raw = data.ConsumeBytes<uint8_t>(sizeof(request));
    raw.resize(sizeof(request));
    memcpy(&request, raw.data(), sizeof(request));
    auto written = mm::mergeRequest(request, stored);
    if (written.ok()) {
        if (wellFormed && !mm::checkDict(*written).ok()) abort();
        (void)mm::firstNotHeld(*written, stored);
    }

    // The simulated side: a written dictionary applied and listed again.
    mm::ProfileDict extra;
    const mm::Settings applied = mm::applyDict(request, stored, extra);
    const mm::ProfileDict listed = mm::dictFromSettings(applied, 1, extra);
    if (wellFormed && !mm::checkDict(listed).ok()) abort();
    return 0;
}
