/*
 * record.h: from the kernel's raw record to the one that the monitor knows. Pure functions over bytes.
 */
#ifndef KPROBE_RECORD_H
#define KPROBE_RECORD_H

#include <cstdint>
#include <set>
#include <vector>

#include "mounts.h"
#include "plan.h"
#include "tracefs.h"

namespace kprobe
{

// Where a plan's pieces are in the raw record, as the kernel laid it out.
class Layout
{
public:
    // False: the kernel lacks one of the fields.
    bool resolve(const Plan &plan, const std::vector<RawField> &fields);

    uint32_t size() const { return size_; }

    // Fills size() bytes. False: the raw record is shorter than it must be, or a name in it could not be read, and so
    // nothing may be handed on.
    bool fill(const unsigned char *raw, uint32_t raw_size, unsigned char *out) const;

    // Whose delivery an inotify record is; only of a raw record that fill() has taken.
    uint64_t group(const unsigned char *raw) const;

private:
    struct Copy {
        uint32_t from, from_size, to, size;
    };
    std::vector<Copy> copies_;
    // A field that is looked at here and not handed on. False: the kernel lacks it.
    bool look_at(const std::vector<RawField> &fields, const std::string &name, Copy &out);
    Copy name_pointer_ = {}, group_ = {};  // from_size 0: none
    Shape shape_ = Shape::kOther;
    bool by_device_ = false;
    uint32_t size_ = 0, raw_size_ = 0;
};

// Whether every directory of a file record has a name, up to the mount's root or to where it ends.
bool has_all_names(const unsigned char *record);

// The first word of a file record: the device in, the mount id out. False: no mount has it.
bool put_mount_id(const MountMap &mounts, unsigned char *record);

// What the monitor's own thread does is left out of inotify records, but for the end of a watched file: when that
// thread is the last to let go of it, nobody else will report it. The watch's own end is reported behind it; one that
// the monitor took away itself is not.
class WatchEnds
{
public:
    // Whether a record of that thread is to be handed on. Inotify records come in order.
    bool passes(const unsigned char *record);

private:
    std::set<int32_t> ending_;  // descriptors of files that have gone and whose watches are about to
};

}  // namespace kprobe

#endif
