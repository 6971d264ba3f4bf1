// Carrier APN files of arbitrary bytes through the reader.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kivctl/ApnsConf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string sPath = "/tmp/kivr-apns-fuzz-" + std::to_string(getpid()) + ".xml";
    FILE* file = fopen(sPath.c_str(), "wb");
    if (file == nullptr) return 0;
    fwrite(data, 1, size, file);
    fclose(file);
    kivctl::CarrierSelection selection{"001", "01", {}};
    selection.sim.imsi = "001010123456789";
    selection.sim.gid1 = "BA01";
    selection.sim.spn = "Example Mobile";
    selection.sim.iccid = "8901";
    const auto all = kivctl::ApnsConf::read(sPath, std::nullopt);
    const auto one = kivctl::ApnsConf::read(sPath, selection);
    if (all.ok && one.ok && one.entries.size() > all.entries.size()) __builtin_trap();
    for (const auto& entry : all.entries) (void)entry.params.dump();
    return 0;
}
