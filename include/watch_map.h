/*
 * watch_map.h: the agent's table of event kinds that it wants from the whole system.
 */
#ifndef ORX_WATCH_MAP_H
#define ORX_WATCH_MAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The first entry is the event kind that _clt_file_enable switches. Optional: an agent may leave it out. */
extern uint32_t watch_map[] __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
