// Any bytes as a modem state file: never a crash, and what loads saves to
// text that loads back to the same text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "sim/StateFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    auto table = xalsim::StateFile::parse(text);
    if (!table.ok()) return 0;
    const std::string saved = xalsim::StateFile::serialize(*table);
    auto again = xalsim::StateFile::parse(saved);
    if (!again.ok() || xalsim::StateFile::serialize(*again) != saved) abort();
    return 0;
}
