/*
 * place_fixture.h: a hardened monitor over a tree, asked what the kernel would tell of a path.
 */
#ifndef TESTS_PLACE_FIXTURE_H
#define TESTS_PLACE_FIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/inode_index.h"
#include "linux/inotify.h"
#include "list.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"
#include "tree_flags.h"

namespace testlib
{

class Place : public ::testing::Test
{
protected:
    Place()
    {
        EXPECT_EQ(0, m.result);
        t = tree.dir("t");
    }
    ~Place() override
    {
        if (held >= 0)
            close(held);
    }
    void watch(uint32_t mask = FMON_CREATE) { ASSERT_EQ(0, m.add(t, mask, kSyncedTree)); }
    void pump_all() { m.pump_all(); }
    void move(const std::string &from, const std::string &to, unsigned flags = 0)
    {
        ASSERT_EQ(0, renameat2(AT_FDCWD, tree.path(from).c_str(), AT_FDCWD, tree.path(to).c_str(), flags)) << from;
    }
    void hold(const std::string &below) { held = open(tree.path(below).c_str(), O_RDONLY | O_CLOEXEC); }

    /* The kinds that the kernel would tell of what is at the path now, by the watch that maps to this path. */
    uint32_t heard(const std::string &below) { return heard_at(tree.path(below)); }
    static uint32_t heard_at(const std::string &path)
    {
        struct stat st;
        struct dentry *d = dcache_find(&fmon.dcache, path.c_str());
        if (!d || stat(path.c_str(), &st) != 0 || !inode_index_is(d, st.st_dev, st.st_ino))
            return 0;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(d), seq_get(&fmlnx.seq, owner_of(d)->wd)) << path;
        return kernel_mask(path);
    }
    uint64_t fan(const std::string &below) { return m.fanotify.mask_of(fmlnx.fan_fd[0], tree.path(below)); }
    bool removed_marks()
    {
        return std::any_of(m.fanotify.marks.begin(), m.fanotify.marks.end(),
                           [](const MarkCall &call) { return call.flags & 0x2; });
    }
    /* A fanotify event of that file reaches the reader. */
    void event_of(const std::string &below, uint32_t mask = FMON_MODIFY)
    {
        m.fanotify.marks.clear();
        int fd = open(tree.path(below).c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        m.feed(1, fanotify_record(mask, fd, 4711));
    }

    TempTree tree;
    LinuxMonitor m{1000, 10000, true};
    std::string t;
    int held = -1;
};

}  // namespace testlib

#endif
