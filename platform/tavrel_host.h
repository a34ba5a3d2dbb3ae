/*
 * Host stand-ins for the daemon and its closed libraries (log switches,
 * libkvutils, libkvdiag, libtavrel, libtavrel_common, libtavrelxfrmutils),
 * so that libnltavrel runs on a development host. Tools and tests link
 * libtavrel_host next to libnltavrel; the device never has it.
 */
#ifndef TAVREL_HOST_H
#define TAVREL_HOST_H

#include <stdint.h>

#include "libnltavrel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Diagnostics channel: messages go to the installed sink; without one they
 * are dropped. */
typedef void (*tavrel_host_diag_sink)(const tavrel_log_site *site, const char *text);
void tavrel_host_set_diag_sink(tavrel_host_diag_sink sink);
/* A ready-made sink: "[diag] file:line text" on stderr. */
void tavrel_host_diag_to_stderr(const tavrel_log_site *site, const char *text);

/* The daemon's global configuration record, as far as the library reads it. */
struct tavrel_main_cfg_record {
    uint8_t reserved0[2332];
    uint32_t output_mark_enabled; /* 1: mark TX SAs by link technology */
    uint8_t reserved1[60];
};

#ifdef __cplusplus
}
#endif

#endif /* TAVREL_HOST_H */
