/* The backend beside a kernel-probe library that tells of the system but gives no instance. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>

#include "event.h"
#include "kp_thread_utils.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

struct kp_os_info os_record;
int32_t os_status;

int32_t paper_os_info(const struct kp_os_info **out)
{
    *out = &os_record;
    return os_status;
}

void *paper_ins_crt(const char *, int32_t **, int32_t *) { return nullptr; }

void *probe_symbol(const char *symbol)
{
    if (strcmp(symbol, "_os_info_get") == 0)
        return reinterpret_cast<void *>(paper_os_info);
    if (strcmp(symbol, "_kp_ins_crt") == 0)
        return reinterpret_cast<void *>(paper_ins_crt);
    return nullptr;
}

class Probe : public ::testing::Test
{
protected:
    Probe() { fanotify.probe_symbol = probe_symbol; }
    ~Probe() override
    {
        fmon_linux_deinit();
        reset_host();
        g_container_flag = 0;
    }
    int start(uint8_t major, uint8_t minor, uint8_t count)
    {
        os_status = 0;
        os_record = {};
        os_record.major = major;
        os_record.minor = minor;
        os_record.count = count;
        return fmon_linux_init(&fmon);
    }
    PaperFanotify fanotify;
};

TEST_F(Probe, PositionsFollowTheLibrarysCount)
{
    ASSERT_EQ(0, start(6, 1, 3));
    EXPECT_EQ(8, fmlnx.fd_num);
    EXPECT_EQ(1, fmlnx.inotify_num);
    EXPECT_EQ(inotify_descriptor(), fmlnx.fds[0]);
    EXPECT_TRUE(logged(3, "total 8 fd to select"));
    EXPECT_EQ(0, log_count_containing("maybe not support kprobe!"));
    EXPECT_TRUE(fmon_method.read_event == fmon_linux_read_event);
}

TEST_F(Probe, OldKernelsHaveFourPositions)
{
    for (auto [major, minor] : {std::pair{2, 6}, {2, 40}, {3, 0}, {3, 9}}) {
        ASSERT_EQ(0, start(static_cast<uint8_t>(major), static_cast<uint8_t>(minor), 7));
        EXPECT_EQ(4, fmlnx.fd_num) << major << "." << minor;
        EXPECT_TRUE(logged(3, "kprobe not support multi-instance!"));
        fmon_linux_deinit();
    }
    ASSERT_EQ(0, start(3, 10, 7));
    EXPECT_EQ(16, fmlnx.fd_num);
}

TEST_F(Probe, LibraryThatCountsNothingStillGetsRoomForThree)
{
    ASSERT_EQ(0, start(6, 1, 0));
    EXPECT_TRUE(logged(3, "total 2 fd to select"));
    EXPECT_EQ(3, fmlnx.fd_num);
    EXPECT_GT(fmlnx.fds[2], 0);
}

TEST_F(Probe, LargestCount)
{
    ASSERT_EQ(0, start(6, 1, 255));
    EXPECT_EQ(512, fmlnx.fd_num);
}

/* As many positions as there are inotify sources become -1; the rest stays 0, which is not ours to close. */
TEST_F(Probe, FailedGlobalSourcesLeaveZeros)
{
    ASSERT_EQ(0, start(6, 1, 3));
    EXPECT_TRUE(logged(1, "init kpnotify failed"));
    EXPECT_TRUE(logged(4, "kp_fd_num:1, fd_num:8, cur_fd_num:3"));
    EXPECT_EQ(-1, fmlnx.fds[3]);
    for (int i = 4; i < 8; i++)
        EXPECT_EQ(0, fmlnx.fds[i]) << i;
    EXPECT_TRUE(logged(3, "fd[7] = 0"));
    bool open_before = fcntl(0, F_GETFD) >= 0;
    fmon_linux_deinit();
    EXPECT_EQ(open_before, fcntl(0, F_GETFD) >= 0);
}

TEST_F(Probe, InAContainerTheSlotsAreUnusable)
{
    g_container_flag = 1;
    ASSERT_EQ(0, start(6, 1, 3));
    for (int i = 3; i < 8; i++)
        EXPECT_EQ(-1, fmlnx.fds[i]) << i;
    EXPECT_EQ(0, log_count_containing("kpnotify"));
}

/* ---- the read pass ---- */

class Pass : public Probe
{
protected:
    Pass()
    {
        EXPECT_EQ(0, start(6, 1, 1));
        saved_ = fmlnx.fds[0];
        fmlnx.fds[0] = inotify_.read_fd();
        fanotify_fd_ = fmlnx.fds[1];
        fmlnx.fds[1] = second_.read_fd();
        seq_set(&fmlnx.seq, 9, reinterpret_cast<uintptr_t>(&dentry_));
        dentry_init(&dentry_);
        list_init_children();
        log_clear();
    }
    ~Pass() override
    {
        fmlnx.fds[0] = saved_;
        fmlnx.fds[1] = fanotify_fd_;
    }
    void list_init_children() { dentry_.children.next = dentry_.children.prev = &dentry_.children; }
    static int count(struct fmon *, struct dentry *, const char *, uint32_t, uint32_t, int, const char *)
    {
        seen++;
        return 0;
    }
    void pass(int records)
    {
        std::string bytes;
        for (int i = 0; i < records; i++)
            bytes += inotify_record(9, IN_ATTRIB);
        inotify_.put(bytes);
        second_.put(fanotify_record(FMON_MODIFY, -1, 1));
        fmlnx.selectable[0] = fmlnx.selectable[1] = -1;
        seen = 0;
        fmon_linux_read_event(&fmon, 0, count);
    }
    static int seen;
    Pipe inotify_, second_;
    struct dentry dentry_ = {};
    int32_t saved_, fanotify_fd_;
};
int Pass::seen;

TEST_F(Pass, HundredEventsLetTheOthersBeRead)
{
    pass(100);
    EXPECT_EQ(100, seen);
    EXPECT_TRUE(logged(4, "read a fanotify event"));
    EXPECT_EQ(1, log_count_containing("events is too much ,we clean the global event"))
        << "the fanotify record is the 101st";
    EXPECT_EQ(1U, fmlnx.io_count[0]);
    EXPECT_EQ(1U, fmlnx.io_count[1]);
}

TEST_F(Pass, HundredAndFirstEventStopsThePass)
{
    pass(101);
    EXPECT_EQ(101, seen);
    EXPECT_FALSE(logged(4, "read a fanotify event"));
    EXPECT_EQ(1, log_count_containing("events is too much ,we clean the global event"));
    EXPECT_EQ(0U, fmlnx.io_count[1]);
    EXPECT_EQ(-2, fmlnx.selectable[1]) << "a mark left over would make a later pass wait in read";
    EXPECT_EQ(0, fmlnx.events_this_pass);
}

TEST_F(Pass, FewEventsCleanNothing)
{
    pass(99);
    EXPECT_EQ(0, log_count_containing("clean the global event"));
}

TEST_F(Pass, PositionsThatAreNotReadyAreLeftAlone)
{
    fmlnx.selectable[0] = fmlnx.fds[0];
    fmlnx.selectable[1] = -2;
    fmon_linux_read_event(&fmon, 0, count);
    EXPECT_EQ(0U, fmlnx.io_count[0]);
    EXPECT_EQ(fmlnx.fds[0], fmlnx.selectable[0]);
}

TEST_F(Pass, GlobalPositionWithoutAnInstanceReadsNothing)
{
    fmlnx.selectable[0] = fmlnx.selectable[1] = -2;
    fmlnx.selectable[3] = -1;
    fmon_linux_read_event(&fmon, 0, count);
    EXPECT_EQ(1U, fmlnx.io_count[3]);
}

/* Hardened, nothing is given up for a pass that was too full, and nobody is left out for good. */
class HardenedPass : public Pass
{
protected:
    HardenedPass() { fmon.hardened = 1; }
    ~HardenedPass() override { fmon.hardened = 0; }
};

TEST_F(HardenedPass, WhatWaitsInTheLibraryIsKept)
{
    pass(101);
    EXPECT_EQ(101, seen);
    EXPECT_EQ(0, log_count_containing("clean the global event"));
    EXPECT_FALSE(logged(4, "read a fanotify event"));
}

TEST_F(HardenedPass, NextPassBeginsWithWhoWasNotReached)
{
    pass(101);
    EXPECT_EQ(0U, fmlnx.io_count[1]);
    log_clear();
    pass(101);
    EXPECT_EQ(1U, fmlnx.io_count[1]);
    const std::string log = log_text();
    EXPECT_LT(log.find("read a fanotify event"), log.find("inotify read an event"));
}

TEST_F(HardenedPass, OtherwiseEveryPassBeginsWithTheFirst)
{
    pass(1);
    EXPECT_EQ(1U, fmlnx.io_count[0]);
    pass(101);
    EXPECT_EQ(1U, fmlnx.io_count[1]) << "not reached";
    EXPECT_EQ(101, seen);
}

}  // namespace
