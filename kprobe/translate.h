/*
 * translate.h: from a definition as it was written to what the running kernel is asked for, and back to the record that
 * was meant.
 *
 * The monitor's texts are exact for the kernels of their time. Since then functions have moved, arguments have changed
 * places, and a mount id can no longer be told from a super block; also one array costs a fraction of the words that it
 * holds. So what is fetched differs from what is handed on: a plan says how.
 */
#ifndef KPROBE_TRANSLATE_H
#define KPROBE_TRANSLATE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "definition.h"
#include "facts.h"
#include "mounts.h"

namespace kprobe
{

// What the monitor's records look like.
inline constexpr uint32_t kFileRecord = 420, kAncestors = 11, kAncestorSize = 32, kLeafOffset = 356, kLeafSize = 64,
                          kInotifyHead = 16;

// The kernel takes no longer expression (what stands behind "=", its type included).
inline constexpr size_t kMaxExpression = 63;

// A fetched argument's place in the record that is handed on. Shorter values are widened with zeros.
struct Piece {
    std::string arg;
    uint32_t to, size;
};

struct Plan {
    Shape shape = Shape::kOther;
    std::string point;
    std::vector<FetchArg> args;
    std::vector<Piece> pieces;
    uint32_t size = 0;          // of the record that is handed on
    bool by_device = false;     // the record's first word and the filter's "mnt" are devices in the kernel
    bool name_pointer = false;  // argument "z" tells whether there is a name at all: a failed fetch leaves old bytes
    bool tells_group = false;   // argument "g" tells whose delivery it is, see groups.h
    bool needs_marks = false;   // the kernel calls this function only for file systems on which somebody has a mark

    // "p:GROUP/NAME POINT ARGS"
    std::string command(const std::string &group, const std::string &name) const;
};

// False: it cannot be placed on this kernel, or nobody knows what it would tell there, and why.
bool translate(const Definition &def, const Facts &facts, Plan *out, std::string *why);

// Whether the inotify source can work here at all.
bool can_watch_inotify(const Facts &facts);

// The filter with devices for mount ids; an id that no mount has becomes a device that none has.
std::string filter_by_device(std::string_view filter, const MountMap &mounts);

// The monitor's room for a filter is small: with many mounts it cuts off the end of the close_write probe's, which
// would then be refused. Puts the end back.
std::string whole_filter(const Definition &def, std::string_view filter);

// The mount ids that a filter names.
std::vector<int32_t> mount_ids(std::string_view filter);

// A watched file ends when the last one lets go of it, and that may be the monitor's own thread, which the filter of
// the inotify probe leaves out: this one lets every end of a watch pass, see WatchEnds.
std::string filter_with_ends(std::string_view filter);

// The threads that a filter leaves out, as "common_pid!=12" does.
std::vector<uint32_t> threads_left_out(std::string_view filter);

}  // namespace kprobe

#endif
