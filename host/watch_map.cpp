/* The table of watch_map.h. */

#include "watch_map.h"

#include "orx_fmon.h"

/* Creations are what the kernel probes report for the whole system. The 0 ends the table. */
uint32_t watch_map[] = {FMON_CREATE, 0};
