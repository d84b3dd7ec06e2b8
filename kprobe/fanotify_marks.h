/*
 * fanotify_marks.h: who watches a file system with fanotify.
 *
 * Kernels before 6.7 may crash when a probe is deleted whose control files somebody still holds open, and a fanotify
 * event holds the file open that it reports, long after whoever opened it has closed it.
 */
#ifndef KPROBE_FANOTIFY_MARKS_H
#define KPROBE_FANOTIFY_MARKS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kprobe
{

// A file system as the kernel names it in the lists of marks.
struct FileSystem {
    uint32_t device = 0;  // major << 20 | minor
    std::vector<int32_t> mounts;
};

// Whether the text of a /proc/PID/fdinfo file names a fanotify mark on the file system, on one of its mounts or on
// one of its files.
bool has_fanotify_mark(std::string_view fdinfo, const FileSystem &where);

// The first process that has one; 0: none that can be seen. `proc` is "/proc".
int fanotify_watcher(const std::string &proc, const FileSystem &where);

}  // namespace kprobe

#endif
