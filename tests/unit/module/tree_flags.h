/* tree_flags.h: what watches on whole trees ask for. */
#ifndef TREE_FLAGS_H
#define TREE_FLAGS_H

#include "fmon.h"

inline constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE, kSyncedTree = kTree | FMON_SYNC;

#endif
