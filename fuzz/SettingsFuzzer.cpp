// A settings response of arbitrary bytes through both profile constructors,
// then everything a profile offers.
#include <cstring>

#include "FuzzSupport.h"
#include "src/Modem3gpp2Profile.h"
#include "src/Modem3gppProfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kiv::fuzz::quietLog();
    wds_get_profile_settings_resp_msg_v01 settings;
    memset(&settings, 0, sizeof(settings));
    memcpy(&settings, data, std::min(size, sizeof(settings)));
    const int id = size > 0 ? data[0] : 0;

    kiv::Modem3gppProfile threeGpp(id, settings);
    kiv::Modem3gpp2Profile threeGpp2(id + 100, settings);
    for (kiv::ModemProfile* profile : {static_cast<kiv::ModemProfile*>(&threeGpp),
                                       static_cast<kiv::ModemProfile*>(&threeGpp2)}) {
        const kiv::ProfileParams seen = profile->get();
        (void)seen.dump();
        (void)profile->dump();
        kiv::FilterProfileParams exact(seen);
        kiv::FilterProfileParams loose(seen);
        loose.addFilterMatchCriteria(0x3F);
        // A profile always matches what it says it is.
        if (!profile->match(loose)) __builtin_trap();
        (void)profile->match(exact);
        (void)profile->constructAddRequest();
        (void)profile->constructModifyRequest();
        auto changes = profile->diff(kiv::ModifyProfileParams(seen));
        profile->apply(changes);
    }
    return 0;
}
