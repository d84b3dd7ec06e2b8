/* Fanotify marks of directories that left: the kernel's list of marks is made up, its file handles are real. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "linux/fmon_linux.h"
#include "linux/inode_index.h"
#include "linux/inotify.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

constexpr unsigned kFlush = 0x80;
constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE | FMON_SYNC;

class Sweep : public ::testing::Test
{
protected:
    void SetUp() override
    {
        NEED(is_root(), "file handles are root's");
        ASSERT_EQ(0, m.result);
        tree.dir("t/a/b");
        tree.dir("t/c");
        t = tree.path("t");
        ASSERT_EQ(0, m.add(t, FMON_MODIFY, kTree));
        for (const char *below : {"t", "t/a", "t/a/b", "t/c"})
            list_mark(below);
        m.fanotify.marks.clear();
    }
    ~Sweep() override { clear_redirects(); }

    void list(const std::string &line)
    {
        listed += line;
        char name[64];
        snprintf(name, sizeof(name), "/proc/self/fdinfo/%d", fmlnx.fan_fd[0]);
        redirect_path(name, tree.file("list", "pos:\t0\nflags:\t02\n" + listed));
    }
    /* As the kernel writes it; `dev` 0: the file system's. */
    void list_mark(const std::string &below, unsigned dev = 0)
    {
        struct {
            struct file_handle handle;
            unsigned char room[MAX_HANDLE_SZ];
        } h = {};
        h.handle.handle_bytes = MAX_HANDLE_SZ;
        int mount;
        ASSERT_EQ(0, name_to_handle_at(AT_FDCWD, tree.path(below).c_str(), &h.handle, &mount, 0)) << below;
        struct stat st;
        ASSERT_EQ(0, stat(tree.path(below).c_str(), &st));
        if (dev == 0)
            dev = (major(st.st_dev) << 20) | minor(st.st_dev);
        char head[200];
        snprintf(
            head, sizeof(head),
            "fanotify ino:%lx sdev:%x mflags:0 mask:48000002 ignored_mask:0 fhandle-bytes:%x fhandle-type:%x f_handle:",
            static_cast<unsigned long>(st.st_ino), dev, h.handle.handle_bytes,
            static_cast<unsigned>(h.handle.handle_type));
        std::string line = head;
        for (unsigned i = 0; i < h.handle.handle_bytes; i++) {
            snprintf(head, sizeof(head), "%02x", h.handle.f_handle[i]);
            line += head;
        }
        list(line + "\n");
    }
    void move(const std::string &from, const std::string &to)
    {
        ASSERT_EQ(0, rename(tree.path(from).c_str(), tree.path(to).c_str())) << from;
    }
    void pump_all() { m.pump_all(); }
    std::vector<std::string> removed()
    {
        std::vector<std::string> out;
        for (const MarkCall &call : m.fanotify.marks)
            if (call.flags & 0x2)
                out.push_back(call.path.substr(tree.root().size() + 1));
        std::sort(out.begin(), out.end());
        return out;
    }
    size_t flushes()
    {
        return static_cast<size_t>(std::count_if(m.fanotify.marks.begin(), m.fanotify.marks.end(),
                                                 [](const MarkCall &call) { return call.flags & kFlush; }));
    }
    TempTree tree;
    LinuxMonitor m{1000, 10000, true};
    std::string t, listed;
};

TEST_F(Sweep, MarksOfADepartedTreeAreRemovedWhereverItIs)
{
    move("t/a", "gone");
    pump_all();
    EXPECT_EQ((std::vector<std::string>{"gone", "gone/b"}), removed());
    EXPECT_EQ(0U, fmlnx.stale_marks);
    EXPECT_EQ(0U, flushes());
}

TEST_F(Sweep, AMoveInsideTheTreeTakesNone)
{
    move("t/a", "t/z");
    pump_all();
    EXPECT_TRUE(removed().empty());
}

/* File systems whose devices stat tells otherwise than the kernel's list. */
TEST_F(Sweep, ALiveDirectoryIsKnownByWhatItsHandleOpens)
{
    listed.clear();
    for (const char *below : {"t", "t/c", "t/a", "t/a/b"})
        list_mark(below, 0x12345);
    move("t/a", "gone");
    pump_all();
    EXPECT_EQ((std::vector<std::string>{"gone", "gone/b"}), removed());
}

TEST_F(Sweep, SweepsKeepTheirDistance)
{
    move("t/a", "gone");
    pump_all(); /* at 0 ms */
    m.fanotify.marks.clear();
    move("t/c", "gone2");
    pump_all();
    EXPECT_TRUE(removed().empty());
    fmon_linux_sweep_marks(999);
    EXPECT_TRUE(removed().empty());
    fmon_linux_sweep_marks(1000);
    auto taken = removed();
    EXPECT_EQ(1, std::count(taken.begin(), taken.end(), "gone2"));
}

TEST_F(Sweep, WithoutHandlesTheMarksStayAndAreNotSoughtAgain)
{
    {
        Fault fault("open_by_handle_at", 1, EPERM, 1000);
        move("t/a", "gone");
        pump_all();
        EXPECT_TRUE(removed().empty());
        EXPECT_EQ(2U, fmlnx.stale_marks);
    }
    fmon_linux_sweep_marks(100000);
    EXPECT_TRUE(removed().empty()) << "no new ones";
}

/* A path that was replaced from above: between the deletion of its watch and the next one nothing is watched on its
 * file system, so that no handle can be opened. */
TEST_F(Sweep, WhatWasOutOfReachIsSoughtFromANewWatch)
{
    move("t", "replaced");
    ASSERT_EQ(0, m.del(t));
    fmon_linux_sweep_marks(0);
    EXPECT_TRUE(removed().empty());
    EXPECT_NE(0U, fmlnx.stale_marks);
    tree.dir("t");
    ASSERT_EQ(0, m.add(t, FMON_MODIFY, kTree));
    fmon_linux_sweep_marks(100000);
    EXPECT_EQ((std::vector<std::string>{"replaced", "replaced/a", "replaced/a/b", "replaced/c"}), removed());
    EXPECT_EQ(0U, fmlnx.stale_marks);
}

TEST_F(Sweep, AtTheLimitWhatIsInReachMakesRoom)
{
    move("t/c", "gone2");
    pump_all();
    move("t/a", "gone");
    pump_all();
    m.fanotify.marks.clear();
    tree.dir("t/made");
    m.fanotify.mark_error = ENOSPC;
    m.fanotify.fail_mark_at = 1;
    pump_all();
    EXPECT_EQ(0U, flushes());
    EXPECT_EQ(3U, removed().size());
    EXPECT_NE(0U, m.fanotify.mask_of(fmlnx.fan_fd[0], tree.path("t/made")));
}

TEST_F(Sweep, AtTheLimitAllArePlacedAnewWhenNoneIsInReach)
{
    Fault fault("open_by_handle_at", 1, EPERM, 1000);
    move("t/a", "gone");
    pump_all();
    m.fanotify.marks.clear();
    tree.dir("t/made");
    m.fanotify.mark_error = ENOSPC;
    m.fanotify.fail_mark_at = 1;
    pump_all();
    EXPECT_EQ(1U, flushes());
    for (const char *below : {"t", "t/c", "t/made"})
        EXPECT_EQ(FMON_MODIFY | 0x48000000U, m.fanotify.mask_of(fmlnx.fan_fd[0], tree.path(below))) << below;
    EXPECT_EQ(0U, m.fanotify.mask_of(fmlnx.fan_fd[0], tree.path("gone")));
    EXPECT_EQ(1U, fmlnx.fan_overflow) << "events may have been missed, and that is said";
    EXPECT_EQ(0U, fmlnx.stale_marks);
}

TEST_F(Sweep, AFullTableOfLiveMarksIsNotFlushed)
{
    tree.dir("t/made");
    m.fanotify.mark_error = ENOSPC;
    pump_all();
    EXPECT_EQ(0U, flushes());
    EXPECT_TRUE(removed().empty());
}

TEST_F(Sweep, AWatchedFilesMarkIsPlacedAnewAsAFiles)
{
    std::string f = tree.file("f");
    ASSERT_EQ(0, m.add(f, FMON_OPEN, FMON_FILE));
    Fault fault("open_by_handle_at", 1, EPERM, 1000);
    move("t/a", "gone");
    pump_all();
    m.fanotify.marks.clear();
    m.fanotify.mark_error = ENOSPC;
    m.fanotify.fail_mark_at = 1;
    tree.dir("t/made");
    pump_all();
    EXPECT_EQ(uint64_t{FMON_OPEN}, m.fanotify.mask_of(fmlnx.fan_fd[0], f));
}

TEST_F(Sweep, EveryCallThatFailsLeavesLiveMarksAlone)
{
    for (const char *call : {"fopen", "fgets", "open", "lstat", "open_by_handle_at", "fstatat"}) {
        fail_each(call, EMFILE, [&](Fault &) {
            m.fanotify.marks.clear();
            fmlnx.stale_marks = 5;
            fmlnx.marks_out_of_reach = fmlnx.sweep_wait = 0;
            int fds = open_fds();
            fmon_linux_sweep_marks(1);
            EXPECT_EQ(fds, open_fds()) << call;
            EXPECT_TRUE(removed().empty()) << call;
        });
    }
}

TEST_F(Sweep, LinesThatAreNone)
{
    listed.clear();
    list("fanotify flags:0 event-flags:8000\n");
    list("fanotify ino:1 sdev:1 mflags:0 mask:1 ignored_mask:0 fhandle-bytes:ffffffff fhandle-type:1 f_handle:00\n");
    list("fanotify ino:1 sdev:1 mflags:0 mask:1 ignored_mask:0 fhandle-bytes:81 fhandle-type:1 f_handle:00\n");
    list("fanotify ino:1 sdev:1 mflags:0 mask:1 ignored_mask:0 fhandle-bytes:8 fhandle-type:1 f_handle:00zz\n");
    list("fanotify ino:1 sdev:1 mflags:0 mask:1 ignored_mask:0 fhandle-bytes:8 fhandle-type:1\n");
    list("fanotify ino:1 sdev:1 mflags:0 mask:1 ignored_mask:0 fhandle-bytes:0 fhandle-type:0 f_handle:\n");
    list("fanotify mnt_id:17 mflags:0 mask:1 ignored_mask:0\n");
    fmlnx.stale_marks = 1;
    fmon_linux_sweep_marks(1);
    EXPECT_TRUE(removed().empty());
    EXPECT_EQ(1U, fmlnx.stale_marks) << "one could be read, and opens nothing";
}

}  // namespace
