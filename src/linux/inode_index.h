/*
 * inode_index.h: which dentry stands for an inode. A hardened monitor keeps it: every dentry that a mark or a watch
 * descriptor was placed on is in it, under the device and inode number of what was marked, until it carries nothing any
 * more. A dentry is in it once; two dentries may stand for one inode (hard links, bind mounts).
 *
 * Devices are given as stat's st_dev. Called under the monitor lock.
 */
#ifndef FMON_INODE_INDEX_H
#define FMON_INODE_INDEX_H

#include <cstdint>

#include "fmon.h"

extern "C" {

/* Enters the dentry under that inode, in place of the one that it stood for. FMON_ENOMEM: it is in the index under no
 * inode. */
int inode_index_set(struct dentry *, uint64_t dev, uint64_t ino);

void inode_index_remove(struct dentry *); /* also for one that is not in it */

/* A dentry that stands for the inode, or null. Of several, any. */
struct dentry *inode_index_find(uint64_t dev, uint64_t ino);

/* All that stand for the same inode as a dentry that is in the index, in no order: the first, and the one after `d` or
 * null. The index must not change meanwhile. */
struct dentry *inode_index_first(struct dentry *d);
struct dentry *inode_index_next(struct dentry *d);

/* Of these the one with the least address above that of `last`, which may be gone (null: the least of all), or null.
 * The index may change between two calls. */
struct dentry *inode_index_above(struct dentry *d, const struct dentry *last);

/* Whether the dentry is in the index under that inode. */
bool inode_index_is(struct dentry *, uint64_t dev, uint64_t ino);

uint32_t inode_index_count(void);

/* Forgets everything; the dentries are not touched, they may be gone. */
void inode_index_release(void);

} /* extern "C" */

#endif
