/* What ends a session's waits. Everything waited for is there already, so nothing here takes its time. */
#include "agent/waiter.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace agent;
using common::Fd;

namespace
{

constexpr uint64_t kLong = 3'600'000;

bool is_readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

}  // namespace

TEST(Waiter, AnEventEndsASleep)
{
    EventQueue queue(10, 1000);
    Waiter waiter(queue);
    ASSERT_TRUE(queue.prepare_to_sleep());
    queue.push({0, 1, 0, 0, "/a", "", nullptr}, nullptr);
    const Inputs inputs = waiter.wait({kLong, Pause::For::kEverything});
    EXPECT_FALSE(is_readable(queue.wake_fd()));
    EXPECT_EQ(-1, inputs.patience_ms);
    EXPECT_FALSE(inputs.mounts_changed || inputs.new_directories || inputs.reader_gone);
}

TEST(Waiter, AReaderThatGoesEndsASleep)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const Fd output(ends[1]);
    close(ends[0]);
    EventQueue queue(10, 1000);
    Waiter waiter(queue);
    waiter.listen(-1, output.get());
    EXPECT_TRUE(waiter.wait({kLong, Pause::For::kEverything}).reader_gone);
}

TEST(Waiter, ANewDirectoryEndsAGatheringOnly)
{
    const Fd made(eventfd(1, 0));
    EventQueue queue(10, 1000);
    Waiter waiter(queue);
    waiter.listen(made.get(), -1);
    EXPECT_TRUE(waiter.wait({kLong, Pause::For::kNewDirectories}).new_directories);
    queue.wake();
    EXPECT_FALSE(waiter.wait({kLong, Pause::For::kEverything}).new_directories);
}

TEST(Waiter, APauseOfNoLengthAsksForNothing)
{
    const Fd made(eventfd(1, 0));
    EventQueue queue(10, 1000);
    Waiter waiter(queue);
    waiter.listen(made.get(), -1);
    queue.wake();
    EXPECT_FALSE(waiter.wait({}).new_directories);
    EXPECT_FALSE(waiter.wait({0, Pause::For::kNewDirectories}).new_directories);
    EXPECT_TRUE(is_readable(queue.wake_fd()));
}

TEST(Waiter, DoesWithoutTheMountTable)
{
    EventQueue queue(10, 1000);
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const struct rlimit none = {0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const Waiter waiter(queue);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    queue.wake();
    EXPECT_FALSE(waiter.wait({kLong, Pause::For::kEverything}).mounts_changed);
    EXPECT_FALSE(is_readable(queue.wake_fd()));
}
