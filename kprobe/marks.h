/*
 * marks.h: inert inotify watches.
 *
 * The kernel reports a close to __fsnotify_parent only on file systems on which somebody has a mark. One watch on the
 * root of a mount, for a kind that never happens there, is enough; the monitor may have none.
 */
#ifndef KPROBE_MARKS_H
#define KPROBE_MARKS_H

#include <cstdint>
#include <set>

#include "common/fd.h"
#include "mounts.h"

namespace kprobe
{

using common::Fd;

class Marks
{
public:
    Marks() = default;
    ~Marks() { remove(); }
    Marks(const Marks &) = delete;
    Marks &operator=(const Marks &) = delete;
    // Marks the file systems of these devices, where they are reachable.
    void place(const std::set<uint32_t> &devices, const MountMap &mounts);
    void remove();

private:
    Fd inotify_;
};

}  // namespace kprobe

#endif
