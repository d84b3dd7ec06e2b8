/* Ignore marks of the source of whole file systems: which directory gets one, and the way back, when calls fail, too.
 */
#include <filesystem>
#include <string>

#include "fs_source_fixture.h"

namespace
{

class FsIgnore : public FsSource
{
protected:
    FsIgnore() : FsSource(4) {}
    void SetUp() override
    {
        NEED_HANDLES();
        ASSERT_EQ(0, m.add(watched, FMON_CREATE, FMON_DIR | FMON_RECURSIVE | FMON_PID));
        ASSERT_TRUE(served(watched));
    }
    void churn()
    {
        for (int i = 0; i < 30; i++) {
            std::string records;
            for (int k = 0; k < 40; k++)
                records += record(FAN_CREATE, loud, "f");
            feed(records);
            fs_source_catch_up(&fmon);
        }
    }
    /* The reader's thread sets marks, too. */
    bool is_ignored() const
    {
        const FsLock lock;
        return m.fanotify.fs_ignored_of(loud) != 0;
    }
    void refuse(uint64_t bits, int error)
    {
        const FsLock lock;
        m.fanotify.fs_refused_bits = bits;
        m.fanotify.fs_mark_error = error;
    }
    void watch_above() { EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR | FMON_RECURSIVE | FMON_PID)); }

    const std::string watched = tree.dir("watched"), loud = tree.dir("loud");
};

TEST_F(FsIgnore, ALoudDirectoryUntilAWatchIsAbove)
{
    EXPECT_FALSE(is_ignored());
    churn();
    EXPECT_TRUE(is_ignored());
    watch_above();
    EXPECT_FALSE(is_ignored());
    EXPECT_EQ(0u, status().lost.unresolved);
}

TEST_F(FsIgnore, AKernelThatCannotIsAskedOnce)
{
    refuse(FAN_EVENT_ON_CHILD, 0);
    churn();
    EXPECT_TRUE(fs_source.cannot_ignore);
    refuse(0, 0);
    churn();
    EXPECT_FALSE(is_ignored());
}

/* The kernel may have no room for the moment. */
TEST_F(FsIgnore, AMarkThatIsRefusedIsTriedAgain)
{
    refuse(0, ENOSPC);
    churn();
    EXPECT_FALSE(is_ignored());
    refuse(0, 0);
    churn();
    EXPECT_TRUE(is_ignored());
}

TEST_F(FsIgnore, NothingIsOpenAfterwards)
{
    const int fds = testlib::open_fds();
    churn();
    EXPECT_EQ(fds, testlib::open_fds());
    ASSERT_TRUE(is_ignored());
    m.del(watched);
    EXPECT_FALSE(is_ignored());
    EXPECT_GE(fds, testlib::open_fds());
}

/* Until descriptors are free again the directory stays ignored, which is counted; then it is heard. */
TEST_F(FsIgnore, WhatCannotBeOpenedNowIsHeardLater)
{
    churn();
    ASSERT_TRUE(is_ignored());
    constexpr char kObject = 1, kOld = 10, kNew = 12;
    const std::string moved =
        whole(kRename | FAN_ONDIR, 77,
              part(kOld, tree.root(), "loud") + part(kNew, watched, "loud") + part(kObject, loud, ""));
    std::filesystem::rename(loud, watched + "/loud");
    {
        const testlib::Fault fault("open_by_handle_at", 1, EMFILE, 1000, testlib::ThreadScope::kAll);
        feed(moved);
        fs_source_catch_up(&fmon);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(1u, status().lost.unresolved);
    }
    feed(record(FAN_CREATE, watched, "g"));
    fs_source_catch_up(&fmon);
    EXPECT_EQ(2u, status().lost.unresolved);
    const FsLock lock;
    EXPECT_NE(0u, m.fanotify.marks.back().flags & FAN_MARK_REMOVE);
    EXPECT_EQ(watched + "/loud", m.fanotify.marks.back().path);
}

}  // namespace
