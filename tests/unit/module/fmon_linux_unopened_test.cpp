/* Readers of fanotify: events whose file could not be opened, and mounts of containers. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "event.h"
#include "orx_sensitivedir.h"
#include "reading_fixture.h"
#include "testlib/fault.h"

using namespace testlib;

namespace
{

/* ---- events whose file could not be opened ---- */

TEST_F(Reading, DescriptorsOfEventsAreOpenedSoThatNobodyIsWaitedFor)
{
    const unsigned patient = O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_LARGEFILE;
    EXPECT_EQ(hardened() ? patient : 0, m.fanotify.event_flags);
    for (int fd : fmlnx.fan_fd)
        EXPECT_EQ(hardened(), (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0);
    Fault fault("fcntl", 2, EPERM); /* the first is FD_CLOEXEC */
    const int fd = init_fanotify();
    EXPECT_GT(fd, 0) << "it is of use all the same";
    EXPECT_EQ(hardened(), fault.hit());
    close(fd);
}

TEST_F(Reading, RecordWithoutADescriptorIsALossUnlessOfAnOverflow)
{
    m.feed(1, fanotify_record(FMON_MODIFY, -1, 1));
    EXPECT_EQ(1U, fmon.lost.unopened);
    m.feed(1, fanotify_record(0x4000, -1, 0));
    EXPECT_EQ(1U, fmon.lost.unopened);
    EXPECT_EQ(1U, fmlnx.fan_overflow);
}

/* A record that is no loss by itself. */
std::string overflow() { return fanotify_record(0x4000, -1, 0); }

TEST_F(Reading, ReadThatFailsLostARecord)
{
    uint64_t lost = 0;
    for (int error : {EAGAIN, EMFILE, ENFILE, ETXTBSY, ENXIO}) {
        Fault fault("read", 1, error);
        m.feed(1, overflow());
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(++lost, fmon.lost.unopened);
    }
    Fault signal("read", 1, EINTR);
    m.feed(1, overflow());
    EXPECT_TRUE(signal.hit());
    EXPECT_EQ(lost, fmon.lost.unopened) << "a signal takes nothing off the queue";
}

/* Behind others the kernel says nothing of a file that it cannot open, and of one record a read it does. */
TEST_F(Reading, HardenedPassGoesOnBehindAFileThatCannotBeOpened)
{
    std::string f = tree.file("a/f");
    const auto event = [&](int pid) { return fanotify_record(FMON_MODIFY, open(f.c_str(), O_RDONLY), pid); };
    Fault fault("read", 2, ETXTBSY);
    m.feed(1, event(1) + event(2));
    EXPECT_EQ(hardened(), fault.hit());
    EXPECT_EQ(2U, m.events().size()) << "what the fault lost is still in the pipe";
    EXPECT_EQ(hardened() ? 1U : 0U, fmon.lost.unopened);
}

/* The next files could not be opened either; descriptors may come back. */
TEST_F(Reading, HardenedPassEndsWhereDescriptorsAreShort)
{
    for (int error : {EMFILE, ENFILE, ENOMEM, EINTR}) {
        Fault fault("read", 2, error);
        m.feed(1, overflow() + overflow() + overflow());
        EXPECT_EQ(hardened() ? 1 : 3, log_count_containing("fanotify overflow detected")) << error;
        log_clear();
    }
}

TEST_F(Reading, HardenedPassTakesNoMoreThanABufferful)
{
    const int whole = FMON_LINUX_READ_BUFFER / 24;
    std::string records;
    for (int i = 0; i < whole + 5; i++)
        records += overflow();
    m.feed(1, records);
    EXPECT_EQ(static_cast<uint64_t>(whole), fmlnx.fan_overflow);
}

TEST_F(Reading, HardenedPassEndsWhenItCannotTellWhetherMoreWaits)
{
    Fault fault("poll", 1, ENOMEM);
    m.feed(1, overflow() + overflow());
    EXPECT_EQ(hardened(), fault.hit());
    EXPECT_EQ(hardened() ? 1U : 2U, fmlnx.fan_overflow);
}

/* ---- in a container ---- */

int mounts_asked_for;

const struct orx_container_mount *no_container(const char *)
{
    mounts_asked_for++;
    return nullptr;
}

/* Each question may wait for news of the mount. */
TEST_F(Reading, AMountThatIsNoContainersIsAskedForOnceAPass)
{
    std::string f = tree.file("a/f");
    const auto event = [&] { return fanotify_record(FMON_MODIFY, open(f.c_str(), O_RDONLY), 1); };
    m.fanotify.probe_symbol = [](const char *symbol) {
        return strcmp(symbol, "_orx_get_container_mount") == 0 ? reinterpret_cast<void *>(no_container) : nullptr;
    };
    g_container_flag = 1;
    mounts_asked_for = 0;
    m.feed(1, event() + event() + event());
    EXPECT_EQ(1, mounts_asked_for);
    m.feed(1, event() + event());
    EXPECT_EQ(2, mounts_asked_for);
    g_container_flag = 0;
}

}  // namespace
