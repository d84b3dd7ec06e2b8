/* Tests of linux/fmon_linux.h: watches on whole mounts. */

#include <gtest/gtest.h>

#include <cerrno>
#include <list>

#include "linux/fmon_linux.h"
#include "linux/mount.h"
#include "list.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"

using namespace testlib;

namespace
{

class Mounts : public ::testing::Test
{
protected:
    Mounts()
    {
        EXPECT_EQ(0, m.result);
        mount_release(&fmlnx.mounts);
        list_init(&fmlnx.mounts);
        for (const char *mount : {"/", "/home", "/home/user", "/home2", "/srv"})
            add_mount(mount);
    }
    void add_mount(const char *path)
    {
        std::string line = std::to_string(next_id_++) + " 1 8:1 / " + path + " rw - ext4 /dev rw";
        mount_parse_line(line.data(), &fmlnx.mounts);
    }
    int add_mount_watch(const std::string &path, uint32_t flags = 0, uint32_t mask = FMON_MODIFY)
    {
        watches_.push_back({});
        struct watch &w = watches_.back();
        w.mask = mask;
        w.flags = FMON_MOUNT | flags;
        paths_.push_back(path);
        w.path = paths_.back().data();
        return fmon_linux_add_watch(&fmon, &w);
    }
    int links()
    {
        int count = 0;
        FMON_LIST_EACH (node, &fmlnx.mounts) {
            FMON_LIST_EACH (link, &FMON_RECORD(node, struct mount_entry, link)->watches)
                count++;
        }
        return count;
    }
    ~Mounts() override
    {
        g_container_flag = 0;
        for (auto &w : watches_) {
            if (w.dentry)
                fmon_linux_del_watch(&fmon, &w);
        }
    }
    std::list<struct watch> watches_;
    std::list<std::string> paths_;
    uint64_t fan_mount(const std::string &path) { return m.fanotify.mask_of(fmlnx.fan_fd[1], path); }
    LinuxMonitor m;
    int next_id_ = 20;
};

TEST_F(Mounts, LongestMountPointWins)
{
    ASSERT_EQ(0, add_mount_watch("/home/user/data"));
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/home/user"));
    ASSERT_EQ(0, add_mount_watch("/home2/x"));
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/home2"));
    EXPECT_EQ(0U, fan_mount("/home"));
    ASSERT_EQ(0, add_mount_watch("/var"));
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/"));
}

TEST_F(Mounts, MarksUseTheMountDescriptorAndFlag)
{
    ASSERT_EQ(0, add_mount_watch("/srv"));
    ASSERT_EQ(1U, m.fanotify.marks.size());
    EXPECT_EQ(fmlnx.fan_fd[1], m.fanotify.marks[0].fd);
    EXPECT_EQ(0x1U | 0x4U | 0x10U, m.fanotify.marks[0].flags);
}

TEST_F(Mounts, RecursiveWatchMarksMountsBelow)
{
    ASSERT_EQ(0, add_mount_watch("/home", FMON_RECURSIVE));
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/home"));
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/home/user"));
    EXPECT_EQ(0U, fan_mount("/home2"));
    EXPECT_EQ(0U, fan_mount("/"));
    EXPECT_EQ(2, links());
}

TEST_F(Mounts, RecursiveWatchWithoutAMountBelowIsRefused)
{
    EXPECT_EQ(-114, add_mount_watch("/home/user/data", FMON_RECURSIVE));
    EXPECT_EQ(0, links());
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Mounts, RootCoversEverything)
{
    ASSERT_EQ(0, add_mount_watch("/", FMON_RECURSIVE));
    EXPECT_EQ(5, links());
}

TEST_F(Mounts, HalfwayFailureLeavesNoLink)
{
    m.fanotify.mark_error = EACCES;
    m.fanotify.fail_mark_at = 2;
    EXPECT_EQ(-109, add_mount_watch("/", FMON_RECURSIVE));
    EXPECT_TRUE(logged(1, "watch mount /home failed\n"));
    EXPECT_EQ(0, links());
    EXPECT_EQ(nullptr, watches_.back().dentry);
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/")) << "marks already made stay";
}

TEST_F(Mounts, FailedLinkAllocation)
{
    for (int nth = 1;; nth++) {
        int result;
        bool hit;
        {
            Fault fault("calloc", nth, ENOMEM);
            result = add_mount_watch("/srv");
            hit = fault.hit();
        }
        if (!hit)
            break;
        EXPECT_EQ(-101, result) << nth;
        EXPECT_EQ(0, links());
        EXPECT_EQ(0U, fmon.dcache.count);
    }
}

TEST_F(Mounts, OnlyMissingKindsAreAddedAndUnneededOnesRemoved)
{
    ASSERT_EQ(0, add_mount_watch("/srv", 0, FMON_MODIFY | FMON_OPEN));
    ASSERT_EQ(0, add_mount_watch("/srv", 0, FMON_MODIFY | FMON_ACCESS));
    EXPECT_EQ(uint64_t{FMON_ACCESS}, m.fanotify.marks[1].mask);
    EXPECT_EQ(0, fmon_linux_del_watch(&fmon, &watches_.front()));
    watches_.front().dentry = nullptr;
    EXPECT_EQ(uint64_t{FMON_MODIFY | FMON_ACCESS}, fan_mount("/srv"));
    EXPECT_EQ(1, links());
}

/* Deleting a mount watch collects nothing: the dentry stays cached, in the watch too. */
TEST_F(Mounts, DeletionKeepsTheDentry)
{
    ASSERT_EQ(0, add_mount_watch("/srv"));
    EXPECT_EQ(0, fmon_linux_del_watch(&fmon, &watches_.front()));
    EXPECT_TRUE(cached("/srv"));
    EXPECT_NE(nullptr, watches_.front().dentry);
    EXPECT_EQ(0U, fan_mount("/srv"));
    watches_.front().dentry = nullptr;
}

TEST_F(Mounts, ContainerMarksThePathItself)
{
    g_container_flag = 1;
    ASSERT_EQ(0, add_mount_watch("/rootfs/x"));
    EXPECT_EQ(uint64_t{FMON_MODIFY}, fan_mount("/rootfs/x"));
    EXPECT_EQ(0, links());
    m.fanotify.mark_error = EACCES;
    EXPECT_EQ(-109, add_mount_watch("/rootfs/y"));
    EXPECT_TRUE(logged(1, "watch mount /rootfs/y failed\n"));
}

TEST_F(Mounts, NoTableNoMount)
{
    mount_release(&fmlnx.mounts);
    list_init(&fmlnx.mounts);
    EXPECT_EQ(-114, add_mount_watch("/srv"));
}

}  // namespace
