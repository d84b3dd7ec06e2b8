/*
 * rate_ctrl.h: keeps one busy descriptor from taking the monitor thread. Reads are counted per descriptor and second;
 * one that runs ahead of its evenly spread allowance is left out of the selection for some milliseconds.
 */
#ifndef FMON_RATE_CTRL_H
#define FMON_RATE_CTRL_H

#include <cstdint>

#include "fmon.h"

extern "C" {

/* limit: reads per descriptor and second, 0 no throttling; interval: slot in ms, kept in 10..1000; log: non-zero writes
 * each count once a second. Returns 0. */
FMON_API int fmon_linux_rate_ctrl(uint32_t limit, uint32_t interval, uint32_t log);

/* Ends a read pass. */
FMON_API void rate_ctrl(struct fmon *, uint32_t now_ms);

} /* extern "C" */

#endif
