/*
 * mount_filter.h: the filter that the file probes share: which mounts they report.
 */
#ifndef FMON_MOUNT_FILTER_H
#define FMON_MOUNT_FILTER_H

enum { MOUNT_FILTER_SIZE = 256 };

/* "(mnt==A||mnt==B||mnt==0)" from a fresh mount table: the mounts watched as a whole, and records whose mount could not
 * be read. 0, also without such a mount, which leaves the text empty; -1: they are too many for it. */
int mount_filter_make(char out[MOUNT_FILTER_SIZE]);

#endif
