/*
 * orx_sensitivedir.h: the agent's container library, liborx_sensitive_dir.6.so, as far as the file monitor uses it.
 *
 * The monitor does not link it: it opens the library at run time, when it first asks for a container, and does without
 * it where it is missing. Structures and prototypes only: the library implements them, and the monitor reads each
 * structure in one source.
 *
 * Conventions: text is NUL-terminated. Functions may be called from any thread, and _orx_get_container_mount once for
 * each event, with the monitor's lock held: it should answer from memory.
 */
#ifndef ORX_SENSITIVEDIR_H
#define ORX_SENSITIVEDIR_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* `status`, as the library that comes with the file monitor sets it. */
enum { ORX_CONTAINER_RUNNING = 0, ORX_CONTAINER_ENDED = 1, ORX_CONTAINER_PAUSED = 2 };

/* The container that a mount belongs to. */
struct orx_container_mount {
    int32_t pid;       /* a process that runs inside: /proc/PID/root shows its files */
    const char *label; /* the container's identity, as events name it */
};

/* What is known of one container. Texts are as the container's engine gives them; null or empty: not known. Lists are
 * joined by ",". */
struct orx_container_info {
    const char *mounts;              /* "SOURCE:DESTINATION" of each mount from outside */
    const char *user;                /* the user that its first process runs as */
    const char *container_namespace; /* the engine's or cluster's name space that it is in */
    const char *image_id;
    const char *image_name; /* with neither repository nor tag */
    const char *image_tag;
    const char *repository; /* where the image comes from */
    const char *container_name;
    const char *capability;    /* the capabilities that were added, "CAP_SYS_ADMIN,..." */
    const char *ports_binding; /* "ADDRESS:PORT->PORT/PROTOCOL" of each port that is open to the outside */
    int32_t privileged;        /* 1: it runs without confinement, else 0 */
    int32_t status;            /* 0: usable; anything else: not, or not now (ORX_CONTAINER_...) */
    int32_t init_pid;          /* its first process, in the numbering outside; 0 while there is none */
};

/* The container of a mount, given the mount's number as text; null: the mount is the host's. The record and its label
 * belong to the library and may change at its next call: copy what is to last. */
const struct orx_container_mount *_orx_get_container_mount(const char *id);

/* What is known of a container, given its id as read_container_id() reads it; null: nothing. The record and its texts
 * are the caller's until they are given back with _orx_free_container_info. */
struct orx_container_info *_orx_get_container_info(const char *id);

void _orx_free_container_info(struct orx_container_info *info); /* null: nothing is done */

/* ---- additions of the library that comes with the file monitor: the monitor itself uses none of them ---- */

/* What one pass over /proc finds. */
struct orx_container_census {
    uint32_t containers, mounts, namespaces, processes;
    uint32_t hidden; /* processes that may not be looked at: no root, or /proc is mounted with hidepid */
    uint32_t cut;    /* mount namespaces that have more mounts than are read */
    uint32_t micros; /* what it took */
};

/* Other directories than /proc and than that of the host's files, which is /rootfs where the host's etc and proc are
 * there, else "/"; null: those again. What was known is forgotten. No look-up may run meanwhile. 0; -ENOMEM. */
int32_t orx_container_set_roots(const char *proc, const char *files);

/* The outermost container that a process is in, from its control groups, with "@UID" where a user other than root may
 * have made that group; `size` of 76 holds all. 0; -ENOENT: it is in none, or there is no such process; -EINVAL: bad
 * arguments; -ENOMEM. */
int32_t orx_container_of_process(int32_t pid, char *out, size_t size);

/* Looks at /proc now, which may take a while, and keeps what it finds for look-ups. 0; -errno: /proc cannot be read. */
int32_t orx_container_survey(struct orx_container_census *out);

static_assert(offsetof(struct orx_container_mount, pid) == 0, "mount record");
static_assert(offsetof(struct orx_container_mount, label) == sizeof(char *), "mount record");
static_assert(sizeof(struct orx_container_mount) == 2 * sizeof(char *), "mount record");

static_assert(offsetof(struct orx_container_info, mounts) == 0, "information record");
static_assert(offsetof(struct orx_container_info, ports_binding) == 9 * sizeof(char *), "information record");
static_assert(offsetof(struct orx_container_info, privileged) == 10 * sizeof(char *), "information record");
static_assert(offsetof(struct orx_container_info, status) == 10 * sizeof(char *) + 4, "information record");
static_assert(offsetof(struct orx_container_info, init_pid) == 10 * sizeof(char *) + 8, "information record");

#ifdef __cplusplus
}
#endif

#endif
