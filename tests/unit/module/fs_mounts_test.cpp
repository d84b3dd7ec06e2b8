/* File systems mounted below a watch: how they are found, joined to their directory, and lost. */
#include "linux/fs/fs_mounts.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "testlib/fault.h"

namespace
{

class FsMounts : public ::testing::Test
{
protected:
    ~FsMounts() override { fs_mounts_free(&mounts_); }
    void parse(const std::string &text) { ASSERT_TRUE(fs_mounts_parse(strdup(text.c_str()), &mounts_)); }

    struct fs_mounts mounts_ = {};
};

TEST_F(FsMounts, ALineOfTheTable)
{
    parse("36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n");
    ASSERT_EQ(1u, mounts_.count);
    const struct fs_mount &mount = mounts_.all[0];
    EXPECT_EQ(36, mount.id);
    EXPECT_EQ(35, mount.parent);
    EXPECT_EQ(98u, mount.major);
    EXPECT_EQ(0u, mount.minor);
    EXPECT_STREQ("/mnt1", mount.root);
    EXPECT_STREQ("/mnt2", mount.point);
    EXPECT_STREQ("ext3", mount.type);
}

TEST_F(FsMounts, NoOptionalFieldsAndSeveral)
{
    parse(
        "1 0 8:1 / / rw - ext4 /dev/a rw\n"
        "2 1 0:5 / /b rw shared:1 master:2 unbindable - tmpfs t rw\n");
    ASSERT_EQ(2u, mounts_.count);
    EXPECT_STREQ("ext4", mounts_.all[0].type);
    EXPECT_STREQ("tmpfs", mounts_.all[1].type);
    EXPECT_EQ(&mounts_.all[1], fs_mounts_find(&mounts_, 2));
    EXPECT_EQ(nullptr, fs_mounts_find(&mounts_, 3));
}

TEST_F(FsMounts, EscapesAreUndone)
{
    parse("2 1 0:5 /x\\134y /a\\040b\\011c\\012d\\400\\04 rw - tmpfs t rw\n");
    ASSERT_EQ(1u, mounts_.count);
    EXPECT_STREQ("/x\\y", mounts_.all[0].root);
    EXPECT_STREQ("/a b\tc\nd\\400\\04", mounts_.all[0].point);
}

TEST_F(FsMounts, LinesThatAreNoneAreLeftOut)
{
    parse(
        "\n"
        "nonsense\n"
        "1 0 8:1\n"
        "1 0 8:1 / relative rw - ext4 a rw\n"
        "1 0 8:1 / /no/separator rw ext4 a rw\n"
        "4 1 8:1 / /good rw - ext4 a rw\n"
        "5 1 8:1 / /cut");
    ASSERT_EQ(1u, mounts_.count);
    EXPECT_EQ(4, mounts_.all[0].id);
}

TEST_F(FsMounts, TheMachinesTableHasTheRoot)
{
    ASSERT_TRUE(fs_mounts_read(&mounts_));
    bool root = false;
    for (size_t i = 0; i < mounts_.count; i++)
        root |= strcmp(mounts_.all[i].point, "/") == 0;
    EXPECT_TRUE(root);
}

TEST_F(FsMounts, WhatCannotBeReadLeavesTheTableAsItWas)
{
    ASSERT_TRUE(fs_mounts_read(&mounts_));
    const size_t count = mounts_.count;
    for (const char *call : {"open", "read", "realloc", "calloc"}) {
        testlib::Fault fault(call);
        EXPECT_FALSE(fs_mounts_read(&mounts_)) << call;
        EXPECT_TRUE(fault.hit()) << call;
        EXPECT_EQ(count, mounts_.count) << call;
    }
}

TEST_F(FsMounts, AnInterruptedReadGoesOn)
{
    testlib::Fault fault("read", 1, EINTR);
    EXPECT_TRUE(fs_mounts_read(&mounts_));
    EXPECT_TRUE(fault.hit());
}

TEST_F(FsMounts, KindsOfFileSystems)
{
    struct fs_mount mount = {};
    for (const char *type : {"proc", "sysfs", "tracefs", "debugfs", "autofs", "cgroup2", "devpts"}) {
        mount.type = type;
        EXPECT_TRUE(fs_mount_is_pseudo(&mount)) << type;
        EXPECT_FALSE(fs_mount_is_remote(&mount)) << type;
    }
    for (const char *type : {"nfs", "nfs4", "cifs", "fuse", "fuse.sshfs", "9p"}) {
        mount.type = type;
        EXPECT_TRUE(fs_mount_is_remote(&mount)) << type;
        EXPECT_FALSE(fs_mount_is_pseudo(&mount)) << type;
    }
    for (const char *type : {"ext4", "tmpfs", "overlay", "xfs", "fuseblk", "devtmpfs"}) {
        mount.type = type;
        EXPECT_FALSE(fs_mount_is_remote(&mount) || fs_mount_is_pseudo(&mount)) << type;
    }
}

TEST(FsPath, Below)
{
    EXPECT_TRUE(fs_path_is_below("/a/b", "/a"));
    EXPECT_TRUE(fs_path_is_below("/a", "/"));
    EXPECT_FALSE(fs_path_is_below("/", "/"));
    EXPECT_FALSE(fs_path_is_below("/a", "/a"));
    EXPECT_FALSE(fs_path_is_below("/ab", "/a"));
    EXPECT_FALSE(fs_path_is_below("/a", "/a/b"));
}

}  // namespace
