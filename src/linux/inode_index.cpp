/*
 * An open table of dentries with linear probing. The key lies in the dentry's owner area, so that an entry costs a
 * pointer; deletion closes the gap, so that there are no tombstones and a table that churns stays as quick as it was.
 */
#include "linux/inode_index.h"

#include <sys/sysmacros.h>

#include <cstdlib>

namespace
{

constexpr uint32_t kFirstSize = 64; /* slots; a power of two, as every later size */

struct {
    struct dentry **slots;
    uint32_t size, count;
} table;

/* The kernel's own form: twelve bits of major number, twenty of minor. */
uint32_t short_dev(uint64_t dev) { return (gnu_dev_major(dev) << 20) | (gnu_dev_minor(dev) & 0xfffffu); }

uint32_t home_of(uint32_t dev, uint64_t ino)
{
    uint64_t key = (ino ^ (uint64_t{dev} << 40)) * 0x9e3779b97f4a7c15u;
    return static_cast<uint32_t>(key >> 32) & (table.size - 1);
}

uint32_t home_of(struct dentry *d) { return home_of(owner_of(d)->dev, owner_of(d)->ino); }

uint32_t after(uint32_t slot) { return (slot + 1) & (table.size - 1); }

/* The table always has a free slot. */
void insert(struct dentry *d)
{
    uint32_t slot = home_of(d);
    while (table.slots[slot])
        slot = after(slot);
    table.slots[slot] = d;
}

bool resize(uint32_t size)
{
    auto **slots = static_cast<struct dentry **>(calloc(size, sizeof(struct dentry *)));
    if (!slots)
        return false;
    struct dentry **old = table.slots;
    uint32_t old_size = table.size;
    table.slots = slots;
    table.size = size;
    for (uint32_t i = 0; i < old_size; i++)
        if (old[i])
            insert(old[i]);
    free(old);
    return true;
}

/* Half full is the wish, seven eighths is what a table that cannot grow goes to. */
bool has_room()
{
    if (table.count < table.size / 2)
        return true;
    return resize(table.size ? table.size * 2 : kFirstSize) || table.count < table.size / 8 * 7;
}

/* Moves entries back into the gap until the next one lies where it should: none is ever found behind a free slot. */
void close_gap(uint32_t gap)
{
    table.slots[gap] = nullptr;
    for (uint32_t slot = after(gap); table.slots[slot]; slot = after(slot)) {
        uint32_t home = home_of(table.slots[slot]);
        bool reaches_gap = ((slot - home) & (table.size - 1)) >= ((slot - gap) & (table.size - 1));
        if (!reaches_gap)
            continue;
        table.slots[gap] = table.slots[slot];
        table.slots[slot] = nullptr;
        gap = slot;
    }
}

/* From `slot` to the end of its run. */
struct dentry *find_from(uint32_t slot, uint32_t dev, uint64_t ino)
{
    for (; table.slots[slot]; slot = after(slot)) {
        const struct dentry_owner *own = owner_of(table.slots[slot]);
        if (own->ino == ino && own->dev == dev)
            return table.slots[slot];
    }
    return nullptr;
}

uint32_t slot_of(struct dentry *d)
{
    uint32_t slot = home_of(d);
    while (table.slots[slot] != d)
        slot = after(slot);
    return slot;
}

}  // namespace

int inode_index_set(struct dentry *d, uint64_t dev, uint64_t ino)
{
    if (inode_index_is(d, dev, ino))
        return 0;
    inode_index_remove(d);
    if (!has_room())
        return FMON_ENOMEM;
    owner_of(d)->dev = short_dev(dev);
    owner_of(d)->ino = ino;
    d->owner_bits |= DENTRY_INDEXED;
    insert(d);
    table.count++;
    return 0;
}

void inode_index_remove(struct dentry *d)
{
    if (!(d->owner_bits & DENTRY_INDEXED))
        return;
    close_gap(slot_of(d));
    table.count--;
    d->owner_bits &= static_cast<uint16_t>(~DENTRY_INDEXED);
}

struct dentry *inode_index_find(uint64_t dev, uint64_t ino)
{
    uint32_t short_form = short_dev(dev);
    return table.count ? find_from(home_of(short_form, ino), short_form, ino) : nullptr;
}

struct dentry *inode_index_first(struct dentry *d) { return find_from(home_of(d), owner_of(d)->dev, owner_of(d)->ino); }

struct dentry *inode_index_next(struct dentry *d)
{
    return find_from(after(slot_of(d)), owner_of(d)->dev, owner_of(d)->ino);
}

struct dentry *inode_index_above(struct dentry *d, const struct dentry *last)
{
    const auto address = [](const struct dentry *of) { return reinterpret_cast<uintptr_t>(of); };
    struct dentry *found = nullptr;
    for (d = inode_index_first(d); d; d = inode_index_next(d))
        if (address(d) > address(last) && (!found || address(d) < address(found)))
            found = d;
    return found;
}

bool inode_index_is(struct dentry *d, uint64_t dev, uint64_t ino)
{
    const struct dentry_owner *own = owner_of(d);
    return (d->owner_bits & DENTRY_INDEXED) && own->ino == ino && own->dev == short_dev(dev);
}

uint32_t inode_index_count(void) { return table.count; }

void inode_index_release(void)
{
    free(table.slots);
    table = {};
}
