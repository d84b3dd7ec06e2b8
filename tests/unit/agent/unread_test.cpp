/* Tests of unread.h: records in the queues of this process, seen without reading them. */
#include "agent/unread.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/resource.h>

#include "common/fd.h"
#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

class Unread : public testing::Test
{
protected:
    void make_file(const std::string &name) const { const std::ofstream made(directory.path(name)); }

    agent_testing::Directory directory;
};

}  // namespace

TEST_F(Unread, InotifysRecordsAreSeenUntilTheyAreRead)
{
    const common::Fd group(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(group.get(), directory.root().c_str(), IN_CREATE), 0);
    EXPECT_FALSE(has_unread_records());
    make_file("a");
    EXPECT_TRUE(has_unread_records());
    char records[4096];
    EXPECT_GT(read(group.get(), records, sizeof records), 0);
    EXPECT_FALSE(has_unread_records());
}

TEST_F(Unread, FanotifysToo)
{
    const common::Fd group(fanotify_init(FAN_CLASS_NOTIF | FAN_NONBLOCK | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC));
    if (!group)
        GTEST_SKIP() << "fanotify needs rights";
    ASSERT_EQ(
        0, fanotify_mark(group.get(), FAN_MARK_ADD, FAN_OPEN | FAN_EVENT_ON_CHILD, AT_FDCWD, directory.root().c_str()));
    EXPECT_FALSE(has_unread_records());
    make_file("a");
    EXPECT_TRUE(has_unread_records());
}

TEST_F(Unread, WithoutADescriptorNothingIsKnown)
{
    const common::Fd group(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(group.get(), directory.root().c_str(), IN_CREATE), 0);
    make_file("a");
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const struct rlimit none = {0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    EXPECT_FALSE(has_unread_records());
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_TRUE(has_unread_records());
}
