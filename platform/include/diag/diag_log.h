/*
 * Modem diagnostics logging interface.
 *
 * The device's diagnostics library carries log lines from user space to the
 * modem diagnostics channel. On the host, platform/diag provides a stand-in
 * that prints each line or hands it to a capturing hook (diag_host.h).
 */
#ifndef DIAG_LOG_H
#define DIAG_LOG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    uint16_t line;
    uint16_t ss_id;
    uint32_t ss_mask;
} msg_desc_type;

typedef struct {
    msg_desc_type desc;
    const char* fmt;
    const char* fname;
} msg_const_type;

/* Non-zero on success. */
int Diag_LSM_Init(unsigned char* env);
int Diag_LSM_DeInit(void);

/* Formats const_blk->fmt with the arguments and emits one diagnostics line
 * carrying const_blk->desc. */
void msg_sprintf(const msg_const_type* const_blk, ...);

#ifdef __cplusplus
}
#endif

#endif /* DIAG_LOG_H */
