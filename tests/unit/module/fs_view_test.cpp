/* Looks at mounts that do not keep them from being unmounted, and what is done where no copy of a mount can be had. */
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "fmon_status.h"
#include "linux/fs/fs_served.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

namespace
{

bool is_copy(const struct fs_look &look)
{
    struct fs_stored_key key;
    int own = -1;
    return fs_ask_key(look.fd, &key, &own, nullptr) == 0 && own != look.mount_id;
}

class FsView : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            GTEST_SKIP() << "needs root, for a mount namespace";
        ASSERT_EQ(0, mount("fmon-test", point.c_str(), "tmpfs", 0, nullptr));
        ASSERT_EQ(0u, fs_look_at(point.c_str(), false, &plain, &error));
        close(plain.fd);
    }
    void TearDown() override { umount2(point.c_str(), MNT_DETACH); }

    testlib::TempTree tree;
    const std::string point = tree.dir("point");
    struct fs_look plain = {}, look = {};
    int error = 0;
};

}  // namespace

TEST_F(FsView, WhatIsOpenDoesNotKeepTheMount)
{
    ASSERT_EQ(0u, fs_look_at_mount(point.c_str(), &look, &error));
    EXPECT_TRUE(is_copy(look));
    EXPECT_EQ(plain.mount_id, look.mount_id);
    EXPECT_EQ(plain.dev, look.dev);
    EXPECT_TRUE(fs_key_equal(&plain.key.key, &look.key.key));
    EXPECT_EQ(0, fs_look_opens(&look));
    EXPECT_EQ(0, umount(point.c_str()));
    close(look.fd);
}

TEST_F(FsView, WhereThereIsNoCopyTheMountItselfIsOpened)
{
    const testlib::Fault fault("openat", 1, EMFILE);
    ASSERT_EQ(0u, fs_look_at_mount(point.c_str(), &look, &error));
    EXPECT_TRUE(fault.hit());
    EXPECT_FALSE(is_copy(look));
    EXPECT_EQ(plain.mount_id, look.mount_id);
    EXPECT_EQ(-1, umount(point.c_str()));
    close(look.fd);
}

TEST_F(FsView, WhatHasNoHandleIsRefusedAndNothingStaysOpen)
{
    const int before = testlib::open_fds();
    {
        const testlib::Fault fault("name_to_handle_at", 2, ENOMEM);
        EXPECT_EQ(uint32_t{FMON_FALLBACK_HANDLE}, fs_look_at_mount(point.c_str(), &look, &error));
        EXPECT_EQ(ENOMEM, error);
    }
    {
        const testlib::Fault fault("name_to_handle_at", 3, ENOENT);
        EXPECT_EQ(uint32_t{FMON_FALLBACK_ROOT}, fs_look_at_mount(point.c_str(), &look, &error));
        EXPECT_EQ(ENOENT, error);
    }
    EXPECT_EQ(uint32_t{FMON_FALLBACK_ROOT}, fs_look_at_mount((point + "/none").c_str(), &look, &error));
    EXPECT_EQ(ENOENT, error);
    EXPECT_EQ(before, testlib::open_fds());
}

TEST_F(FsView, AMountIsKnownByItsNumberAndItsRoot)
{
    EXPECT_TRUE(fs_is_mounted(point.c_str(), plain.mount_id, &plain.key.key));
    EXPECT_FALSE(fs_is_mounted(point.c_str(), plain.mount_id + 1, &plain.key.key));
    struct fs_look other;
    ASSERT_EQ(0u, fs_look_at(tree.root().c_str(), false, &other, &error));
    close(other.fd);
    EXPECT_FALSE(fs_is_mounted(point.c_str(), plain.mount_id, &other.key.key));
    const testlib::Fault fault("name_to_handle_at", 1, ENOENT);
    EXPECT_FALSE(fs_is_mounted(point.c_str(), plain.mount_id, &plain.key.key));
}
