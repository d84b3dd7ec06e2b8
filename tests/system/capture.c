/*
 * Functions and data that an agent may well have of its own: an event library's, a cache's. The module must never come
 * here, whatever they are called.
 */
#include <stdio.h>
#include <stdlib.h>

static void captured(const char *name)
{
    fprintf(stderr, "captured: %s\n", name);
    _Exit(3);
}

#define CAPTURE(name) \
    __attribute__((used)) void name(void) { captured(#name); }

CAPTURE(event_init)
CAPTURE(event_free)
CAPTURE(event_deinit)
CAPTURE(event_process)
CAPTURE(event_str)
CAPTURE(dcache_init)
CAPTURE(dcache_add)
CAPTURE(dcache_find)
CAPTURE(dentry_path)
CAPTURE(fmon_init)
CAPTURE(fmon_run)
CAPTURE(fmon_create_instance)
CAPTURE(fmon_linux_init)
CAPTURE(rate_ctrl)
CAPTURE(seq_set)
CAPTURE(seq_get)
CAPTURE(init_inotify)
CAPTURE(init_fanotify)
CAPTURE(full_name_hash)

/* Data of the module's names: it must not use this either. */
__attribute__((used)) int g_container_flag = 1;
__attribute__((used)) char fmon[4096];
__attribute__((used)) char fmlnx[4096];
