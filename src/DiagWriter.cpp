#include "DiagWriter.h"

#include "diag/diag_log.h"

namespace kiv {

namespace {

constexpr uint16_t kDiagLine = 116;
constexpr uint16_t kDiagSubsystemId = 63;
constexpr uint32_t kDiagMaskBits = 0x1F;

}  // namespace

DiagWriter::DiagWriter() {
    Diag_LSM_Init(nullptr);
}

DiagWriter::~DiagWriter() {
    Diag_LSM_DeInit();
}

int DiagWriter::convertPrio(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
            return 4;
        case LogLevel::Fatal:
            return 16;
        case LogLevel::Info:
            return 4;
        default:
            return 1;
    }
}

void DiagWriter::write(LogLevel level, std::string tag, std::string message) {
    const auto mask = static_cast<uint32_t>(convertPrio(level));
    if ((mask & kDiagMaskBits) == 0) return;
    static const msg_const_type sDescriptor = {
            {kDiagLine, kDiagSubsystemId, mask}, "|%s| %s", "src/LocalLogBuffer"};
    msg_sprintf(&sDescriptor, tag.c_str(), message.c_str());
}

}  // namespace kiv
