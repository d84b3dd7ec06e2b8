/* Tests of linux/fmon_linux.h: start and stop of the backend: descriptors, positions, what fails. */

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "linux/rate_ctrl.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

class Init : public ::testing::Test
{
protected:
    ~Init() override
    {
        fmon_linux_deinit();
        reset_host();
        g_container_flag = 0;
    }
    PaperFanotify fanotify;
};

TEST_F(Init, WithoutProbesThereAreThreePositions)
{
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(3, fmlnx.fd_num);
    EXPECT_EQ(1, fmlnx.inotify_num);
    EXPECT_EQ(inotify_descriptor(), fmlnx.fds[0]);
    EXPECT_EQ(fmlnx.fan_fd[0], fmlnx.fds[1]);
    EXPECT_EQ(fmlnx.fan_fd[1], fmlnx.fds[2]);
    EXPECT_EQ(0U, fmlnx.kp_global);
    EXPECT_EQ(100, fmlnx.max_events_per_pass);
    EXPECT_EQ(1U, fmlnx.initialised);
    EXPECT_TRUE(fmon_method.read_event == fmon_linux_read_event2);
}

TEST_F(Init, LogsWhatItFinds)
{
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_TRUE(logged(2, "maybe not support kprobe!"));
    EXPECT_TRUE(logged(3, "total 3 fd to select"));
    EXPECT_TRUE(logged(2, "now we don't use kprobe!"));
    EXPECT_TRUE(logged(3, "fanotify fd:" + std::to_string(fmlnx.fds[1])));
    EXPECT_TRUE(logged(1, "init kpnotify failed"));
    EXPECT_TRUE(logged(4, "kp_fd_num:1, fd_num:3, cur_fd_num:3"));
    EXPECT_TRUE(logged(3, "fmon watct these fds"));
    EXPECT_TRUE(logged(3, "fd[0] = " + std::to_string(fmlnx.fds[0])));
    EXPECT_TRUE(logged(3, "fd[2] = " + std::to_string(fmlnx.fds[2])));
}

TEST_F(Init, SecondStartIsRefused)
{
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(-102, fmon_linux_init(&fmon));
}

TEST_F(Init, RefusedFanotifyLeavesMinusOne)
{
    fanotify.init_errors[1] = EPERM;
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_GT(fmlnx.fds[1], 0);
    EXPECT_EQ(-1, fmlnx.fds[2]);
    EXPECT_EQ(-1, fmlnx.fan_fd[1]);
    EXPECT_TRUE(logged(3, "fanotify fd:-104"));
    /* The number shown is slot 1's, not the failed one's. */
    EXPECT_TRUE(logged(3, "init fanotify failed: " + std::to_string(fmlnx.fds[1]) + " Operation not permitted\n"));

    int32_t *fds;
    uint32_t timeout = 1000;
    EXPECT_EQ(2, fmon_linux_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(-2, fds[2]);
}

TEST_F(Init, BothFanotifyRefusedStillStarts)
{
    fanotify.init_errors[0] = fanotify.init_errors[1] = EPERM;
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(-1, fmlnx.fan_fd[0]);
    EXPECT_EQ(-1, fmlnx.fan_fd[1]);
    EXPECT_TRUE(logged(3, "init fanotify failed: " + std::to_string(fmlnx.fds[0]) + " Operation not permitted\n"));
}

TEST_F(Init, MissingFanotifySymbolsAreNotFatal)
{
    fanotify.has_mark = false;
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(-1, fmlnx.fds[1]);
    EXPECT_TRUE(logged(3, "fanotify fd:-103"));
    EXPECT_EQ(-1, fanotify_add(3, "/", 2, FMON_DIR));
}

TEST_F(Init, RefusedInotifyFailsTheStart)
{
    int before = open_fds();
    {
        Fault fault("inotify_init", 1, EMFILE);
        EXPECT_EQ(-105, fmon_linux_init(&fmon));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(logged(1, "init inotify failed: Too many open files\n"));
    EXPECT_EQ(0U, fmlnx.initialised);
    EXPECT_EQ(nullptr, fmlnx.fds);
    EXPECT_EQ(nullptr, fmlnx.selectable);
    EXPECT_EQ(before, open_fds());
    EXPECT_EQ(0, fmon_linux_init(&fmon));
}

TEST_F(Init, EveryFailedAllocationLeavesNothing)
{
    int before = open_fds();
    int refused = 0;
    fail_each("calloc", ENOMEM, [&](Fault &) {
        log_clear();
        int result = fmon_linux_init(&fmon);
        if (result == 0) {
            fmon_linux_deinit(); /* the mount table only */
        } else {
            EXPECT_EQ(-101, result);
            EXPECT_TRUE(logged(1, "fmon_linux_init malloc failed "));
            EXPECT_EQ(nullptr, fmlnx.fds);
            EXPECT_EQ(nullptr, fmlnx.period_start);
            EXPECT_EQ(0U, fmlnx.initialised);
            refused++;
        }
        EXPECT_EQ(before, open_fds());
    });
    EXPECT_EQ(5, refused);
}

TEST_F(Init, DescriptorZeroIsNeverOurs)
{
    int saved = dup(0);
    close(0);
    fanotify.has_init = true;
    int result = fmon_linux_init(&fmon);
    int first = fmlnx.fds[0], second = fmlnx.fds[1];
    fmon_linux_deinit();
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
    EXPECT_EQ(0, result);
    EXPECT_GE(first, 3);
    EXPECT_GE(second, 3);
}

TEST_F(Init, DescriptorThatCannotBeMovedIsGivenUp)
{
    int saved = dup(0);
    close(0);
    int result;
    {
        Fault fault("fcntl", 1, EMFILE);
        result = fmon_linux_init(&fmon);
    }
    int reopened = open("/dev/null", O_RDONLY);
    if (reopened != 0 && saved >= 0)
        dup2(saved, 0);
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
    EXPECT_EQ(-105, result);
    EXPECT_EQ(0, reopened) << "descriptor 0 was left open";
}

TEST_F(Init, DescriptorsAreClosedOnExec)
{
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(FD_CLOEXEC, fcntl(fmlnx.fds[i], F_GETFD)) << i;
}

TEST_F(Init, StopClosesEachDescriptorOnce)
{
    int before = open_fds();
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(before + 3, open_fds());
    CallCount closes("close");
    fmon_linux_deinit();
    EXPECT_EQ(3, closes.calls());
    EXPECT_EQ(before, open_fds());
    EXPECT_EQ(-1, inotify_descriptor());
    fmon_linux_deinit();
    EXPECT_EQ(3, closes.calls());
}

TEST_F(Init, TwentyRestartsLeakNothing)
{
    int before = open_fds();
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(0, fmon_linux_init(&fmon));
        seq_set(&fmlnx.seq, 7, 4096);
        fmon_linux_deinit();
    }
    EXPECT_EQ(before, open_fds());
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(0, fmlnx.seq.count);
}

TEST_F(Init, InAContainerNoGlobalSourcesAreTried)
{
    g_container_flag = 1;
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    EXPECT_EQ(0, log_count_containing("kpnotify"));
    EXPECT_EQ(0U, fmlnx.kp_global);
}

TEST_F(Init, SelectionOffersUnthrottledDescriptors)
{
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    int32_t *fds;
    uint32_t timeout = 1000;
    EXPECT_EQ(3, fmon_linux_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(1000U, timeout);
    EXPECT_EQ(fmlnx.fds[0], fds[0]);

    fmlnx.delay[0] = 150;
    EXPECT_EQ(3, fmon_linux_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(-2, fds[0]);
    EXPECT_EQ(150U, timeout);
}

TEST_F(Init, SmallestDelayBecomesTheTimeout)
{
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    int32_t *fds;
    uint32_t timeout = 1000;
    fmlnx.delay[0] = 150;
    fmlnx.delay[1] = 40;
    fmlnx.delay[2] = 60;
    EXPECT_EQ(0, fmon_linux_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(40U, timeout);
}

/* A position without a descriptor takes back the delay found before it: the wait is then the caller's. */
TEST_F(Init, UnusablePositionResetsTheDelay)
{
    fanotify.init_errors[0] = EPERM;
    ASSERT_EQ(0, fmon_linux_init(&fmon));
    int32_t *fds;
    uint32_t timeout = 1000;
    fmlnx.delay[0] = 150;
    fmon_linux_get_selectable_fds(&fds, &timeout);
    EXPECT_EQ(1000U, timeout);
    fmlnx.delay[2] = 70;
    fmon_linux_get_selectable_fds(&fds, &timeout);
    EXPECT_EQ(70U, timeout);
}

TEST(Fanotify, MarkCallsCarryTheRightFlags)
{
    PaperFanotify fanotify;
    int fd = init_fanotify();
    ASSERT_GT(fd, 0);
    fanotify_add(fd, "/d", 0x3b, FMON_DIR);
    fanotify_add(fd, "/f", 0x2, FMON_FILE);
    fanotify_add(fd, "/m", 0x8, FMON_MOUNT);
    fanotify_del(fd, "/d", 0x3b, FMON_DIR);
    fanotify_del(fd, "/d", 0x3b, FMON_DIR | FMON_LINUX_LAST_MARK);
    fanotify_del(fd, "/f", 0x2, FMON_FILE | FMON_LINUX_LAST_MARK);
    fanotify_ignore(fd, 9, 0x2, 1);
    fanotify_ignore(fd, 9, 0x2, 0);
    std::vector<MarkCall> expected = {
        {fd, 0x1 | 0x4 | 0x8, 0x4800003b, AT_FDCWD, "/d"},
        {fd, 0x1 | 0x4, 0x2, AT_FDCWD, "/f"},
        {fd, 0x1 | 0x4 | 0x10, 0x8, AT_FDCWD, "/m"},
        {fd, 0x2 | 0x4 | 0x8, 0x3b, AT_FDCWD, "/d"},
        {fd, 0x2 | 0x4 | 0x8, 0x4800003b, AT_FDCWD, "/d"},
        {fd, 0x2 | 0x4, 0x2, AT_FDCWD, "/f"},
        {fd, 0x65, 0x2, 9, ""},
        {fd, 0x2, 0x2, 9, ""},
    };
    EXPECT_EQ(expected, fanotify.marks);
    fanotify.mark_error = EINVAL;
    EXPECT_EQ(-1, fanotify_ignore(fd, 9, 0x2, 1));
    close(fd);
}

TEST(InotifyModule, FreeIsHarmlessWithoutADescriptor)
{
    ASSERT_EQ(-1, inotify_descriptor());
    CallCount closes("close");
    inotify_free();
    EXPECT_EQ(0, closes.calls());
}

}  // namespace
