/*
 * inotify.h: the inotify descriptor that watches are placed on.
 */
#ifndef FMON_INOTIFY_H
#define FMON_INOTIFY_H

#include <cstdint>

#include "orx_fmon.h"

extern "C" {

/* Opens the inotify descriptor and asks for kernel-probe sources. Fills fds[0..result-1]; -1: inotify refused. */
FMON_API int init_inotify(int32_t *fds);
FMON_API int inotify_set(const char *path, uint32_t mask); /* never follows a link; -1 and errno */
FMON_API int inotify_del(int wd);
FMON_API void inotify_free(void);

/* (Hidden.) As inotify_set, of an open descriptor's name below /proc. */
int inotify_set_opened(const char *link, uint32_t mask);

/* (Hidden.) The descriptor, -1: none. */
int inotify_descriptor(void);

} /* extern "C" */

#endif
