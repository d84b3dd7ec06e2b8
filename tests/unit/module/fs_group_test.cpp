/* The fanotify group of whole file systems: which flags it gets by trying, and its marks; calls that fail. */
#include "linux/fs/fs_group.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "linux/fmon_linux.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"

extern "C" void *__real_dlsym(void *, const char *);

namespace
{

constexpr uint64_t kRename = 0x10000000;

/* The kernel's answers, and what it was asked. */
struct {
    std::vector<unsigned> inits, operations;
    std::vector<uint64_t> masks;
    unsigned refused_flags; /* of an init: EINVAL */
    uint64_t refused_bits;  /* of a mark: EINVAL */
    int init_error, mark_error;
} kernel;

int fail(int error)
{
    errno = error;
    return -1;
}

int fake_init(unsigned flags, unsigned)
{
    kernel.inits.push_back(flags);
    if (kernel.init_error)
        return fail(kernel.init_error);
    return (flags & kernel.refused_flags) ? fail(EINVAL) : open("/dev/null", O_RDONLY);
}

int fake_mark(int, unsigned operation, uint64_t mask, int, const char *)
{
    kernel.operations.push_back(operation);
    kernel.masks.push_back(mask);
    if (kernel.mark_error)
        return fail(kernel.mark_error);
    return (mask & kernel.refused_bits) ? fail(EINVAL) : 0;
}

void *fake_dlsym(void *handle, const char *symbol)
{
    const std::string name = symbol;
    if (name == "fanotify_init")
        return reinterpret_cast<void *>(fake_init);
    return name == "fanotify_mark" ? reinterpret_cast<void *>(fake_mark) : __real_dlsym(handle, symbol);
}

class FsGroup : public ::testing::Test
{
protected:
    FsGroup()
    {
        testlib::reset_host();
        testlib::replace_dlsym(fake_dlsym);
        kernel = {};
        const int fd = init_fanotify(); /* finds the calls */
        close(fd);
        kernel = {};
    }
    ~FsGroup() override
    {
        fs_group_close(&group_);
        testlib::replace_dlsym(nullptr);
    }

    struct fs_group group_ = {-1, true};
};

TEST_F(FsGroup, AsksForNamesAndTargets)
{
    ASSERT_EQ(0, fs_group_open(&group_, false));
    ASSERT_EQ(1u, kernel.inits.size());
    EXPECT_EQ(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE | 0x1e00u, kernel.inits[0]);
    EXPECT_TRUE(group_.rename);
    EXPECT_NE(0, fcntl(group_.fd, F_GETFD) & FD_CLOEXEC);
}

TEST_F(FsGroup, WithoutTargetsWhereTheKernelKnowsNone)
{
    kernel.refused_flags = 0x1000;
    ASSERT_EQ(0, fs_group_open(&group_, true));
    ASSERT_EQ(2u, kernel.inits.size());
    EXPECT_EQ(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | 0xc00u, kernel.inits[1]);
}

TEST_F(FsGroup, IsRefused)
{
    kernel.init_error = EPERM;
    EXPECT_EQ(-1, fs_group_open(&group_, false));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(1u, kernel.inits.size());
    kernel.init_error = EINVAL;
    EXPECT_EQ(-1, fs_group_open(&group_, false));
    EXPECT_EQ(3u, kernel.inits.size());
    EXPECT_EQ(-1, group_.fd);
}

TEST_F(FsGroup, AFileSystemsMarkAlwaysHasChangesOfDirectories)
{
    constexpr uint64_t kBase = FAN_CREATE | FAN_DELETE | FAN_ONDIR;
    EXPECT_EQ(kBase | kRename, fs_group_system_bits(&group_, 0));
    EXPECT_EQ(kBase | kRename | FAN_MODIFY | FAN_OPEN, fs_group_system_bits(&group_, FMON_MODIFY | FMON_OPEN));
    EXPECT_EQ(kBase | kRename, fs_group_system_bits(&group_, FMON_DELETE_SELF | FMON_MOVE_SELF));
    group_.rename = false;
    EXPECT_EQ(kBase | FAN_MOVED_FROM | FAN_MOVED_TO, fs_group_system_bits(&group_, 0));
}

TEST_F(FsGroup, ADirectorysMarkHasWhatIsAskedFor)
{
    EXPECT_EQ(0u, fs_group_directory_bits(&group_, FMON_CREATE | FMON_MODIFY, false));
    EXPECT_EQ(uint64_t{FAN_DELETE_SELF | FAN_ONDIR},
              fs_group_directory_bits(&group_, FMON_CREATE | FMON_DELETE_SELF, false));
    EXPECT_EQ(uint64_t{FAN_CREATE | FAN_ONDIR | FAN_EVENT_ON_CHILD},
              fs_group_directory_bits(&group_, FMON_CREATE, true));
    EXPECT_EQ(kRename | FAN_ONDIR | FAN_EVENT_ON_CHILD, fs_group_directory_bits(&group_, FMON_MOVED_TO, true));
}

TEST_F(FsGroup, AKernelWithoutWholeRenamesIsAskedForHalves)
{
    kernel.refused_bits = kRename;
    EXPECT_EQ(-EAGAIN, fs_group_mark(&group_, 3, true, fs_group_system_bits(&group_, 0)));
    EXPECT_FALSE(group_.rename);
    EXPECT_EQ(0, fs_group_mark(&group_, 3, true, fs_group_system_bits(&group_, 0)));
    EXPECT_EQ(unsigned{FAN_MARK_ADD | FAN_MARK_FILESYSTEM}, kernel.operations[1]);
}

TEST_F(FsGroup, ARefusedMark)
{
    kernel.mark_error = ENODEV;
    EXPECT_EQ(-1, fs_group_mark(&group_, 3, true, fs_group_system_bits(&group_, 0)));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_TRUE(group_.rename);
    kernel.mark_error = EINVAL; /* for another reason than renames */
    EXPECT_EQ(-EAGAIN, fs_group_mark(&group_, 3, true, fs_group_system_bits(&group_, 0)));
    EXPECT_EQ(-1, fs_group_mark(&group_, 3, true, fs_group_system_bits(&group_, 0)));
}

TEST_F(FsGroup, WhetherAMarkIsStillThere)
{
    EXPECT_TRUE(fs_group_is_marked(&group_, 3));
    EXPECT_EQ(unsigned{FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM}, kernel.operations[0]);
    EXPECT_EQ(uint64_t{FAN_OPEN_EXEC}, kernel.masks[0]);
    kernel.mark_error = ENOENT;
    EXPECT_FALSE(fs_group_is_marked(&group_, 3));
    kernel.mark_error = EPERM;
    EXPECT_TRUE(fs_group_is_marked(&group_, 3));
}

TEST_F(FsGroup, FilesOfADirectoryAreIgnoredAndRenamesAndDirectoriesAreNot)
{
    constexpr unsigned kIgnore = 0x440, kEvictable = 0x200;
    EXPECT_EQ(0, fs_group_ignore(&group_, 3));
    EXPECT_EQ(FAN_MARK_ADD | FAN_MARK_ONLYDIR | kIgnore | kEvictable, kernel.operations[0]);
    EXPECT_EQ(0u, kernel.masks[0] & (kRename | FAN_ONDIR | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_DELETE_SELF));
    EXPECT_NE(0u, kernel.masks[0] & FAN_EVENT_ON_CHILD);
    EXPECT_EQ(0, fs_group_heed(&group_, 3));
    EXPECT_EQ(FAN_MARK_REMOVE | FAN_MARK_ONLYDIR | kIgnore, kernel.operations[1]);
    EXPECT_EQ(kernel.masks[0], kernel.masks[1]);
}

TEST_F(FsGroup, NothingIsIgnoredWhereTheKernelCannot)
{
    kernel.mark_error = EINVAL;
    EXPECT_EQ(-1, fs_group_ignore(&group_, 3));
    EXPECT_EQ(EINVAL, errno);
    group_.rename = false; /* which way a directory went would not be known */
    kernel.operations.clear();
    EXPECT_EQ(-1, fs_group_ignore(&group_, 3));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(kernel.operations.empty());
}

TEST_F(FsGroup, WhatIsNotIgnoredIsHeard)
{
    kernel.mark_error = ENOENT;
    EXPECT_EQ(0, fs_group_heed(&group_, 3));
    kernel.mark_error = ENOMEM;
    EXPECT_EQ(-1, fs_group_heed(&group_, 3));
}

/* ---- reading ---- */

class FsGroupRead : public ::testing::Test
{
protected:
    FsGroupRead()
    {
        EXPECT_EQ(0, pipe2(pipe_, O_NONBLOCK | O_CLOEXEC));
        group_.fd = pipe_[0];
    }
    ~FsGroupRead() override
    {
        close(pipe_[0]);
        close(pipe_[1]);
    }
    size_t read(size_t size) { return fs_group_read(&group_, buffer_, size, &drained_, &error_); }
    void feed(size_t size)
    {
        EXPECT_EQ(static_cast<ssize_t>(size), write(pipe_[1], std::string(size, 'x').data(), size));
    }

    struct fs_group group_ = {-1, true};
    int pipe_[2];
    char buffer_[16384];
    bool drained_ = false;
    int error_ = -1;
};

TEST_F(FsGroupRead, UntilNothingWaits)
{
    EXPECT_EQ(0u, read(sizeof buffer_));
    EXPECT_TRUE(drained_);
    feed(3000);
    EXPECT_EQ(3000u, read(sizeof buffer_));
    EXPECT_TRUE(drained_);
    EXPECT_EQ(0, error_);
}

TEST_F(FsGroupRead, RoomThatIsLeftSaysThatNothingWaits)
{
    feed(3000);
    const testlib::CallCount reads("read");
    EXPECT_EQ(3000u, read(3000 + FS_GROUP_ROOM));
    EXPECT_TRUE(drained_);
    EXPECT_EQ(1, reads.calls());
    feed(3000);
    EXPECT_EQ(3000u, read(3000 + FS_GROUP_ROOM - 1));
    EXPECT_FALSE(drained_);
}

TEST_F(FsGroupRead, UntilARecordMayNotFit)
{
    feed(10000);
    EXPECT_EQ(8192u, read(8192));
    EXPECT_FALSE(drained_);
    EXPECT_EQ(0u, read(FS_GROUP_ROOM - 1));
    EXPECT_FALSE(drained_);
}

TEST_F(FsGroupRead, AnErrorIsAsIfNothingWaited)
{
    feed(100);
    {
        testlib::Fault fault("read", 1, EIO);
        EXPECT_EQ(0u, read(sizeof buffer_));
    }
    EXPECT_TRUE(drained_);
    EXPECT_EQ(EIO, error_);
    EXPECT_EQ(100u, read(sizeof buffer_));
    EXPECT_EQ(0, error_);
}

TEST_F(FsGroupRead, AnInterruptionIsNone)
{
    feed(100);
    testlib::Fault fault("read", 1, EINTR);
    EXPECT_EQ(100u, read(sizeof buffer_));
    EXPECT_EQ(0, error_);
}

}  // namespace
