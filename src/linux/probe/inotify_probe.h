/*
 * inotify_probe.h: which kernel function sees every inotify delivery, and where it has its arguments, by kernel.
 */
#ifndef FMON_INOTIFY_PROBE_H
#define FMON_INOTIFY_PROBE_H

#include "kp_thread_utils.h"

enum { INOTIFY_FETCH_SIZE = 1024 };

/* Records of the first two modes hold 16 bytes of the name, those of the others 128. */
enum inotify_probe_mode { INOTIFY_MODE_OLDEST, INOTIFY_MODE_2_6, INOTIFY_MODE_3, INOTIFY_MODE_NEWER };
inline int inotify_mode_name_size(int mode) { return mode <= INOTIFY_MODE_2_6 ? 16 : 128; }

/* Where a function has the watched directory's inode number, the watch descriptor, the mask and the name. */
struct inotify_probe {
    const char *point; /* the kernel function */
    const char *head;  /* fetch arguments "i", "w" and "m" */
    const char *base;  /* what the name's words lie behind */
    int first_word;    /* bytes from there to the first */
};

/* The probe for a kernel and its mode. Some distributions' kernels differ from their version's; which one it is of the
 * 3.x kind is read from /proc/version. */
struct inotify_probe inotify_probe_choose(const struct kp_os_info *kernel, int *mode);

/* The whole text: the head, then the name's words "f0" to "f1" or to "ff". */
void inotify_probe_fetch(const struct inotify_probe *probe, int mode, char out[INOTIFY_FETCH_SIZE]);

#endif
