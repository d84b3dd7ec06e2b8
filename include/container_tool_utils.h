/*
 * container_tool_utils.h: which container a process belongs to, and what is known of a container. For the agent's
 * modules; the monitor's own way does not come by here.
 *
 * A container's id is the 64 hexadecimal digits that its engine gave it; the id "host" stands for no container. What is
 * known of a container comes from the agent's container library (orx_sensitivedir.h), which is opened when it is first
 * asked for; without it nothing is known of any container.
 *
 * All functions may be called from any thread, before the monitor's start as well. Failures never stop anything: they
 * are logged and give "host" or empty information.
 */
#ifndef CONTAINER_TOOL_UTILS_H
#define CONTAINER_TOOL_UTILS_H

#include "orx_fmon.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reads the id of a process's container from its control groups into `out` (65 bytes hold every id), or "host" where
 * they name none. 0; -1: there is no such process, or it may not be looked at, and `out` is empty.
 * A smaller `out` gets what fits of an id, terminated, and of "host" all or nothing. With a null `out` or an
 * `out_size` below 1 nothing is written. */
FMON_API int read_container_id(int pid, char *out, int out_size);

/* Adds what is known of a container to `json`, an object of the agent's JSON functions (cJSON, orx_base.h), in this
 * order: the texts "mounts", "user", "container_namespace", "image_id", "image_name", "image_tag", "repository",
 * "container_name", "capability", "ports_binding", the number "privileged" and, with `with_init_pid` other than 0, the
 * number "container_init_pid". The object owns them.
 * 0: done; or there was nothing to do, because `enable` is 0 or `id` is null or "host".
 * -1: nothing is known of the container, and the members are empty texts and zeros; or the agent lacks one of the JSON
 * functions, and the object is as it was. A null `json` is accepted: nothing is added. */
FMON_API int container_info_to_json(int enable, void *json, const char *id, int with_init_pid);

/* 1: usable, which the host always is, and everything is while `enable` is 0. 0: `id` is null, nothing is known of the
 * container, or its status is not 0. */
FMON_API int container_usable(int enable, const char *id);

#ifdef __cplusplus
}
#endif

#endif
