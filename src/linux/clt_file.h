/*
 * clt_file.h: system-wide file events by kernel probes, and the platform facts they need.
 */
#ifndef FMON_CLT_FILE_H
#define FMON_CLT_FILE_H

#include <cstdint>

#include "orx_fmon.h"

extern "C" {

/* The running kernel. `platform` indexes "x86_64", "i386", "i686". */
struct os_info {
    uint8_t platform, major, minor, patch;
    uint32_t build; /* the number behind the first "-" of the release */
};

FMON_API int get_os_info(struct os_info *);            /* 0, or -1: other machine, or a release of another shape */
FMON_API int init_file_offset_conf(struct os_info);    /* 0, or -1: no configuration file */

/* Starts the collector. Fills at most `clt_file_room` descriptors; negative: not available. */
FMON_API int init_kpnotify(int32_t *descriptors_out);
FMON_API int kp_notify_destroy(void); /* 0 */
FMON_API void enable_event(uint32_t event_bit, int on);
FMON_API void kpnotify_enable(int on);
FMON_API void enable_filter(uint32_t event_bit);
FMON_API int kpnotify_parse(int index); /* events read; 0 without an instance */
FMON_API void clean_global_event(void);

/* Copies the mount id of an open descriptor as text (at most 10 characters) to `out`, at least 11 zeroed bytes. 0 also
 * where the kernel does not tell; -1. */
FMON_API int read_mount_id(int fd, char *out);

/* (Hidden.) Capacity of the array that init_kpnotify is given, set by its caller. */
extern int32_t clt_file_room;

} /* extern "C" */

#endif
