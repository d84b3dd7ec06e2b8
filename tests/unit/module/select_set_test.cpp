/* Tests of select_set.h: sets of descriptors of any size. */

#include "select_set.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "testlib/fault.h"
#include "testlib/records.h"
#include "testlib/tree.h"

namespace
{

using testlib::Fault;
using testlib::Pipe;

TEST(SelectSet, StartsEmpty)
{
    SelectSet set;
    for (int fd : {0, 1, 63, 1023, 1024, 100000})
        EXPECT_FALSE(set.has(fd)) << fd;
}

TEST(SelectSet, HoldsExactlyWhatWasAdded)
{
    const std::vector<int> members = {0, 1, 31, 32, 63, 64, 1022, 1023, 1024, 1025, 2047, 2048, 65535};
    SelectSet set;
    for (int fd : members)
        EXPECT_TRUE(set.add(fd));
    for (int fd = 0; fd < 66000; fd++)
        ASSERT_EQ(std::find(members.begin(), members.end(), fd) != members.end(), set.has(fd)) << fd;
    set.clear();
    for (int fd : members)
        EXPECT_FALSE(set.has(fd)) << fd;
}

TEST(SelectSet, OldMembersDoNotComeBackWithAHigherOne)
{
    SelectSet set;
    set.add(3000);
    set.add(5);
    set.clear();
    set.add(3001);
    EXPECT_FALSE(set.has(3000));
    EXPECT_FALSE(set.has(5));
}

TEST(SelectSet, NeedsMemoryFromTheFirstBeyondTheFixedSize)
{
    SelectSet set;
    testlib::CallCount calls("calloc");
    set.add(1023);
    EXPECT_EQ(0, calls.calls());
    set.add(1024);
    EXPECT_EQ(1, calls.calls());
    set.add(1025); /* in the same word */
    EXPECT_EQ(1, calls.calls());
}

TEST(SelectSet, WithoutMemoryStaysAsItWas)
{
    SelectSet set;
    set.add(7);
    {
        Fault full("calloc", 1, ENOMEM, 2);
        EXPECT_FALSE(set.add(1024));
        EXPECT_FALSE(set.add(70000));
    }
    EXPECT_TRUE(set.has(7));
    EXPECT_FALSE(set.has(1024));
    EXPECT_TRUE(set.add(1024));
    {
        Fault full("calloc");
        EXPECT_FALSE(set.add(70000));
    }
    EXPECT_TRUE(set.has(1024));
    EXPECT_TRUE(set.has(7));
}

TEST(SelectSet, WaitLeavesWhatIsReady)
{
    Pipe full, empty;
    full.put("x");
    SelectSet set;
    set.add(full.read_fd());
    set.add(empty.read_fd());
    EXPECT_EQ(1, set.wait(1000));
    EXPECT_TRUE(set.has(full.read_fd()));
    EXPECT_FALSE(set.has(empty.read_fd()));
}

TEST(SelectSet, AnEmptySetWaitsAndFindsNothing)
{
    SelectSet set;
    EXPECT_EQ(0, set.wait(0));
    EXPECT_EQ(0, set.wait(1));
}

TEST(SelectSet, AClosedMemberIsAnError)
{
    Pipe pipe;
    const int fd = pipe.take_read();
    close(fd);
    SelectSet set;
    set.add(fd);
    EXPECT_EQ(-1, set.wait(0));
    EXPECT_EQ(EBADF, errno);
}

TEST(SelectSet, WaitsForDescriptorsOfAnySize)
{
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const struct rlimit old = limit;
    limit.rlim_cur = limit.rlim_max < 5000 ? limit.rlim_max : 5000;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    NEED(limit.rlim_cur > 4200, "needs a hard limit of more than 4200 descriptors");

    Pipe full, empty;
    full.put("x");
    for (int lowest : {1024, 1025, 4100}) {
        const int ready = fcntl(full.read_fd(), F_DUPFD, lowest);
        const int quiet = fcntl(empty.read_fd(), F_DUPFD, lowest);
        SelectSet set;
        set.add(empty.read_fd());
        set.add(ready);
        set.add(quiet);
        EXPECT_EQ(1, set.wait(1000));
        EXPECT_TRUE(set.has(ready)) << lowest;
        EXPECT_FALSE(set.has(quiet));
        EXPECT_FALSE(set.has(empty.read_fd()));
        close(ready);
        close(quiet);
    }
    setrlimit(RLIMIT_NOFILE, &old);
}

}  // namespace
