/*
 * kprobe_subjects.h: a made-up kernel that the library can calibrate itself on: the directories it looks at, with what
 * the machine's own stat() says of them.
 */
#ifndef UNIT_KPROBE_SUBJECTS_H
#define UNIT_KPROBE_SUBJECTS_H

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "testlib/kernel_double/kernel_double.h"
#include "testlib/kernel_double/kernel_objects.h"

namespace kprobe_fixture
{

class Subjects
{
public:
    /* No type information, the symbols, and hits whenever a subject is looked at. `wd`: the first watch's number. */
    explicit Subjects(testlib::KernelDouble *kernel, uint32_t wd = 41) : kernel_(kernel), objects_(&kernel->memory)
    {
        kernel->no_file("/sys/kernel/btf/vmlinux");
        kernel->one_group = kernel->memory.allocate(512);
        std::string symbols;
        for (const char *name :
             {"security_inode_getattr", "security_inode_create", "security_inode_unlink", "d_move",
              "security_inode_rename", "security_inode_link", "__fsnotify_parent", "inotify_handle_inode_event"})
            symbols += "c0000000 T " + std::string(name) + "\n";
        kernel->file("/proc/kallsyms", symbols);
        for (size_t i = 0; i < 2; i++)
            make(i, wd + static_cast<uint32_t>(i));
        kernel->on_stat = [this](const std::string &path) { looked_at(path); };
        kernel->on_open = [this](const std::string &path) { opened(path); };
    }

    bool seen_twice = false; /* somebody else looks as well */

private:
    static constexpr const char *kPaths[] = {"/proc/sys/kernel/random", "/proc/sys/fs/inotify"};
    static constexpr const char *kShort[] = {"/sys/kernel/random", "/sys/fs/inotify"};

    void make(size_t i, uint32_t wd)
    {
        struct stat st;
        stat(kPaths[i], &st);
        if (i == 0)
            super_ = objects_.super_block(static_cast<uint32_t>(major(st.st_dev) << 20 | minor(st.st_dev)));
        inodes_[i] = objects_.inode(st.st_ino, static_cast<uint16_t>(st.st_mode));
        paths_[i] = objects_.struct_path(objects_.path(super_, kShort[i], inodes_[i]));
        marks_[i] = objects_.mark(inodes_[i], wd, kernel_->one_group);
    }
    void looked_at(const std::string &path)
    {
        for (size_t i = 0; i < 2; i++)
            for (int n = 0; path == kPaths[i] && n < (seen_twice ? 2 : 1); n++)
                kernel_->hit({"security_inode_getattr", {paths_[i], 0, 0}});
    }
    void opened(const std::string &path)
    {
        for (size_t i = 0; i < 2; i++)
            if (path == kPaths[i])
                kernel_->hit({"inotify_handle_inode_event", {marks_[i], 0x20, inodes_[i], 0, 0, 0}});
    }

    testlib::KernelDouble *kernel_;
    testlib::KernelObjects objects_;
    uint64_t super_ = 0, inodes_[2] = {}, paths_[2] = {}, marks_[2] = {};
};

}  // namespace kprobe_fixture

#endif
