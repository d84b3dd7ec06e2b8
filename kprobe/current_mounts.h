/*
 * current_mounts.h: the mount table as it is now, for filters on their way into the kernel and records on their way
 * out.
 */
#ifndef KPROBE_CURRENT_MOUNTS_H
#define KPROBE_CURRENT_MOUNTS_H

#include <cstdint>
#include <string>

#include "common/mutex.h"
#include "marks.h"
#include "mounts.h"

namespace kprobe
{

// Any thread.
class CurrentMounts
{
public:
    // The filter with devices for its mount ids; from now on these ids are preferred.
    std::string by_device(const std::string &filter) EXCLUDES(lock_);

    // The device of a file record becomes a mount id. False: no mount has it.
    bool name_mount(unsigned char *record) EXCLUDES(lock_);

    // Marks the file systems of the mounts that a filter names.
    void mark(const std::string &filter, Marks &marks) EXCLUDES(lock_);

private:
    void read() REQUIRES(lock_);

    common::Mutex lock_;
    MountMap mounts_ GUARDED_BY(lock_);
    uint64_t read_ns_ GUARDED_BY(lock_) = 0;  // when it was read
};

}  // namespace kprobe

#endif
