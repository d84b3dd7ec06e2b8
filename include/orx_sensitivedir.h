/*
 * orx_sensitivedir.h: the agent's container library, liborx_sensitive_dir.6.so, as far as the file monitor uses it.
 *
 * The monitor does not link it: it opens the library at run time, inside a container only, and does without it where
 * it is missing.
 */
#ifndef ORX_SENSITIVEDIR_H
#define ORX_SENSITIVEDIR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The container that a mount belongs to. */
struct orx_container_mount {
    int32_t pid;       /* a process that runs inside: /proc/PID/root shows its files */
    const char *label; /* the container's identity, as events name it */
};

/* The container of a mount, given the mount's number as text; null: the mount is the host's. The record and its label
 * belong to the library and may change at its next call: copy what is to last. */
const struct orx_container_mount *_orx_get_container_mount(const char *id);

#ifdef __cplusplus
}
#endif

#endif
