/*
 * clt_file.h: system-wide file events by kernel probes, and the platform facts they need.
 *
 * Sources: clt_file.cpp (collector), kp_file_record.cpp (its records), os_info.cpp (platform and structure offsets),
 * mount_id.cpp. What the probes fetch is in fetch_text.h, which mounts they report in mount_filter.h.
 */
#ifndef FMON_CLT_FILE_H
#define FMON_CLT_FILE_H

#include <atomic>
#include <cstdint>

#include "kp_thread_utils.h"
#include "orx_fmon.h"

enum { CLT_FILE_PROBES = 6 };

extern "C" {

/* The running kernel. `platform` indexes "x86_64", "i386", "i686". */
struct os_info {
    uint8_t platform, major, minor, patch;
    uint32_t build; /* the number behind the first "-" of the release */
};
static_assert(sizeof(struct os_info) == 8, "passed by value to init_file_offset_conf");

/* 0, or -1: uname failed, another machine, or a release of another shape than MAJOR.MINOR.PATCH-BUILD. */
FMON_API int get_os_info(struct os_info *);

/* Takes the structure offsets from the kernel's section of fmon.ini, or the built-in ones. 0, or -1: no file. */
FMON_API int init_file_offset_conf(struct os_info);

/* Starts the collector. Fills at most `clt_file_room` descriptors; negative: not available. */
FMON_API int init_kpnotify(int32_t *descriptors_out);

/* Back to zero, the offsets too. Probes stay registered in the library. Returns 0. */
FMON_API int kp_notify_destroy(void);

/* Switches the probe of one event kind; kinds without a registered probe are ignored. */
FMON_API void enable_event(uint32_t event_bit, int on);

/* Switches the probe of the agent's first wanted kind (watch_map). Any thread, takes no lock. */
FMON_API void kpnotify_enable(int on);

/* Rebuilds the mount filter from a fresh mount table. */
FMON_API void enable_filter(uint32_t event_bit);

/* Reads the index-th descriptor's records: how many, 0 without an instance or such a descriptor. */
FMON_API int kpnotify_parse(int index);

/* Throws away the records that wait in the library. */
FMON_API void clean_global_event(void);

/* One probe hit, as the library hands it on from inside kpnotify_parse. A record shorter than a file record is dropped;
 * one that is longer is taken for what it begins with. The record is written to. */
FMON_API void read_kp_crt_event(uint32_t pid, void *record, uint32_t size);
FMON_API void read_kp_del_event(uint32_t pid, void *record, uint32_t size);
FMON_API void read_kp_writeclose_event(uint32_t pid, void *record, uint32_t size);
FMON_API void read_kp_movefrom_event(uint32_t pid, void *record, uint32_t size);
FMON_API void read_kp_moveto_event(uint32_t pid, void *record, uint32_t size);
FMON_API void read_kp_link_event(uint32_t pid, void *record, uint32_t size);

/* Rebuilds the path of a whole file record (420 bytes) and reports the event. 0; -1: the record has no path that could
 * be rebuilt. */
FMON_API int transform_to_fmon_event(void *record, uint32_t event_bit, uint32_t pid);

/* Copies the mount id of an open descriptor as text (at most 10 characters) to `out`, at least 11 zeroed bytes. 0 also
 * where the kernel does not say; -1. */
FMON_API int read_mount_id(int fd, char *out);

/* (Hidden.) The same for the descriptor of an event, which is asked for with each of them: on a host, where nothing but
 * the text depends on it, in one system call where the kernel has that. */
int event_mount_id(int fd, char *out);

/* (Hidden.) What the library has lost, into the counters of probes; they stay where it reports none. */
void kpnotify_losses(struct fmon_loss_counts *out);

/* (Hidden.) The collector; zero while it does not run. */
struct clt_file_state {
    std::atomic<void *> instance; /* atomic: kpnotify_enable runs without the monitor lock */
    int32_t *fds;                 /* made by the library, freed by us */
    int32_t fd_count;
    int32_t mode; /* for the log only: there is one way to place these probes */
    struct kp_probe_def probes[CLT_FILE_PROBES];
    int32_t s_mounts_offset, mnt_id_offset; /* bytes into the kernel's structures */
};
extern struct clt_file_state clt_file;

/* (Hidden.) Capacity of the array that init_kpnotify is given, set by its caller. */
extern int32_t clt_file_room;

} /* extern "C" */

#endif
