/*
 * clt_inotify.h: the kernel's inotify deliveries seen by a kernel probe, with the causing process.
 *
 * Sources: clt_inotify.cpp (collector), kp_inotify_record.cpp (its records). Which probe it is, is in inotify_probe.h.
 */
#ifndef FMON_CLT_INOTIFY_H
#define FMON_CLT_INOTIFY_H

#include <cstdint>

#include "orx_fmon.h"

extern "C" {

/* Creates the probe instance; fills at most `clt_inotify_room` descriptors and returns how many; negative: there is no
 * instance, or no room for any descriptor. */
FMON_API int kp_inotify_init(int32_t *descriptors_out);

/* Chooses and registers the probe for the running kernel, on the monitor thread, whose own events it leaves out. The
 * registration's status. */
FMON_API int get_inotify_event(void);

/* Switches the probe. Any thread, takes no lock. */
FMON_API void kp_inotify_enable(int on);

/* Reads the index-th descriptor's records: how many, 0 without an instance or such a descriptor. */
FMON_API int inotify_parse(int index);

FMON_API int kp_inotify_destroy(void); /* 0 */

/* One delivery, as the library hands it on from inside inotify_parse: finds the directory by its watch descriptor,
 * reports the event and keeps the tree. A record without its whole name is dropped. The record is written to. */
FMON_API void read_kp_inotify_event(uint32_t pid, void *record, uint32_t size);

/* (Hidden.) Whether a probe instance exists, what its records hold (inotify_probe.h), and the capacity of the array
 * that kp_inotify_init is given. */
int clt_inotify_active(void);
void clt_inotify_look(struct fmon_source *); /* whether the probe is placed; untouched: not tried yet */
int clt_inotify_mode(void);
extern int32_t clt_inotify_room;

} /* extern "C" */

#endif
