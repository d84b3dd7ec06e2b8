/*
 * filter.h: filters in the monitor's words and in the kernel's. Pure functions over text.
 */
#ifndef KPROBE_FILTER_H
#define KPROBE_FILTER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "definition.h"
#include "mounts.h"

namespace kprobe
{

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
