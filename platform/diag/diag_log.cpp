// Host stand-in for the modem diagnostics library: each line is printed to
// standard error with its subsystem id and mask, or handed to a test's sink.

#include <cstdarg>
#include <cstdio>

#include "base/Mutex.h"
#include "diag/diag_host.h"

namespace {

kiv::Mutex sSinkLock;
diag_host_sink_fn sSink GUARDED_BY(sSinkLock) = nullptr;
void* sSinkCtx GUARDED_BY(sSinkLock) = nullptr;
int sInitCount GUARDED_BY(sSinkLock) = 0;

constexpr size_t kMaxLine = 1024;

}  // namespace

extern "C" {

int Diag_LSM_Init(unsigned char* /*env*/) {
    kiv::MutexLock lock(sSinkLock);
    ++sInitCount;
    return 1;
}

int Diag_LSM_DeInit(void) {
    kiv::MutexLock lock(sSinkLock);
    if (sInitCount > 0) --sInitCount;
    return 1;
}

void msg_sprintf(const msg_const_type* const_blk, ...) {
    if (const_blk == nullptr || const_blk->fmt == nullptr) return;
    char line[kMaxLine];
    va_list args;
    va_start(args, const_blk);
    vsnprintf(line, sizeof(line), const_blk->fmt, args);
    va_end(args);

    // The sink runs under the lock so that a sink being removed is never
    // called afterwards; sinks must not log through this interface.
    kiv::MutexLock lock(sSinkLock);
    if (sSink != nullptr) {
        sSink(&const_blk->desc, line, sSinkCtx);
        return;
    }
    fprintf(stderr, "diag[ss=%u mask=0x%x] %s\n", const_blk->desc.ss_id, const_blk->desc.ss_mask,
            line);
}

void diag_host_set_sink(diag_host_sink_fn sink, void* ctx) {
    kiv::MutexLock lock(sSinkLock);
    sSink = sink;
    sSinkCtx = ctx;
}

int diag_host_init_count(void) {
    kiv::MutexLock lock(sSinkLock);
    return sInitCount;
}

}  // extern "C"
