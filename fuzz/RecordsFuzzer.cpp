// Sequences of record operations: setters, copies, dumps, and the profiles
// built from the records matched, diffed and applied against each other.
#include <fuzzer/FuzzedDataProvider.h>

#include "FuzzSupport.h"
#include "src/Modem3gpp2Profile.h"
#include "src/Modem3gppProfile.h"

namespace {

using namespace kiv;

void setField(FuzzedDataProvider& in, ProfileParams& p) {
    switch (in.ConsumeIntegralInRange<int>(0, 13)) {
        case 0:
            p.setApnName(in.ConsumeRandomLengthString(300));
            break;
        case 1:
            p.setUserName(in.ConsumeRandomLengthString(200));
            break;
        case 2:
            p.setPassword(in.ConsumeRandomLengthString(200));
            break;
        case 3:
            p.setAuthType(static_cast<AuthType>(in.ConsumeIntegral<uint32_t>()));
            break;
        case 4:
            p.setHomeIPType(static_cast<IPType>(in.ConsumeIntegral<uint32_t>()));
            break;
        case 5:
            p.setRoamIPType(static_cast<IPType>(in.ConsumeIntegral<uint32_t>()));
            break;
        case 6:
            p.setApnTypesMask(in.ConsumeIntegral<uint32_t>());
            break;
        case 7:
            p.setApnClass(static_cast<ApnClass>(in.ConsumeIntegral<uint32_t>()));
            break;
        case 8:
            p.setIsClatEnabled(in.ConsumeBool());
            break;
        case 9:
            p.setIsEmergencySupported(in.ConsumeBool());
            break;
        case 10:
            p.setIsApnDisabled(in.ConsumeBool());
            break;
        case 11:
            p.setMaxPdnsConnPerBlock(in.ConsumeIntegral<int32_t>());
            break;
        case 12:
            p.setMaxPdnConnTimer(in.ConsumeIntegral<int32_t>());
            break;
        default:
            p.setPdnReqWaitInterval(in.ConsumeIntegral<int32_t>());
            break;
    }
}

void setFilter(FuzzedDataProvider& in, FilterProfileParams& f) {
    switch (in.ConsumeIntegralInRange<int>(0, 5)) {
        case 0:
            f.addFilterMatchCriteria(in.ConsumeIntegral<uint32_t>());
            break;
        case 1:
            f.removeFilterMatchCriteria(in.ConsumeIntegral<uint32_t>());
            break;
        case 2:
            f.setFilterByProfileId(in.ConsumeIntegral<int32_t>());
            break;
        case 3:
            f.setFilterByTechType(static_cast<TechType>(in.ConsumeIntegral<uint32_t>()));
            break;
        case 4:
            f.setFilterByIsKivProfile(in.ConsumeBool());
            break;
        default:
            f.setFilterByIsIAProfile(in.ConsumeBool());
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    FuzzedDataProvider in(data, size);
    ProfileParams base;
    FilterProfileParams filter;
    ModifyProfileParams change;
    while (in.remaining_bytes() > 0) {
        switch (in.ConsumeIntegralInRange<int>(0, 6)) {
            case 0:
                setField(in, base);
                break;
            case 1:
                setField(in, filter);
                break;
            case 2:
                setFilter(in, filter);
                break;
            case 3:
                setField(in, change);
                break;
            case 4:
                static_cast<ProfileParams&>(filter) = base;
                break;
            case 5:
                base = FilterProfileParams(change);
                break;
            default: {
                AddProfileParams add(base, in.ConsumeBool(),
                                     static_cast<TechType>(in.ConsumeIntegral<uint32_t>()),
                                     in.ConsumeBool());
                (void)add.dump();
                break;
            }
        }
    }
    (void)base.dump();
    (void)filter.dump();
    Modem3gppProfile threeGpp(base);
    threeGpp.setProfileName(base.getUserName());
    Modem3gpp2Profile threeGpp2(base);
    for (ModemProfile* profile :
         {static_cast<ModemProfile*>(&threeGpp), static_cast<ModemProfile*>(&threeGpp2)}) {
        (void)profile->match(filter);
        auto update = profile->diff(change);
        profile->apply(update);
        (void)profile->dump();
        (void)profile->get().dump();
        (void)profile->constructAddRequest();
        (void)profile->constructModifyRequest();
    }
    return 0;
}
