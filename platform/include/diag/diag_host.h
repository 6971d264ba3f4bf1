/*
 * Host-only controls of the diagnostics stand-in: where its lines go.
 */
#ifndef DIAG_HOST_H
#define DIAG_HOST_H

#include "diag/diag_log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Receives every formatted diagnostics line with its descriptor. */
typedef void (*diag_host_sink_fn)(const msg_desc_type* desc, const char* line, void* ctx);

/* Installs a sink for every later line; NULL restores the default, which
 * prints "diag[ss=<id> mask=0x<mask>] <line>" to standard error. */
void diag_host_set_sink(diag_host_sink_fn sink, void* ctx);

/* Number of Diag_LSM_Init calls not yet matched by Diag_LSM_DeInit. */
int diag_host_init_count(void);

#ifdef __cplusplus
}
#endif

#endif /* DIAG_HOST_H */
