/*
 * open_files.h: which files a process has open, as /proc shows them.
 */
#ifndef KPROBE_OPEN_FILES_H
#define KPROBE_OPEN_FILES_H

#include <dirent.h>

#include <string>
#include <string_view>

#include "common/fd.h"

namespace kprobe
{

// Calls `body` with each name in a directory that is a number, until it returns true.
template <typename Body>
bool any_number(const std::string &path, Body &&body)
{
    const common::Dir directory(opendir(path.c_str()));
    while (const dirent *entry = directory ? readdir(directory.get()) : nullptr)
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9' && body(std::string(entry->d_name)))
            return true;
    return false;
}

// Whether a symbolic link such as /proc/PID/fd/N leads exactly there.
bool leads_to(const std::string &link, std::string_view target);

}  // namespace kprobe

#endif
