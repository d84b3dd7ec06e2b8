/* The walk over the disk while somebody puts something else in the place of what was read. */
#include <cstdio>

#include "dcache_iterate_fixture.h"

namespace
{

using testlib::CallCount;
using testlib::Fault;
using testlib::log_count;
using testlib::open_fds;

/* ---- what has the name is not what was read ---- */

class Swapped : public DcacheIterateTest
{
protected:
    Swapped()
    {
        make_dirs({"t/a/x", "outside/secret/deep"});
        top = disk.path("t");
    }
    ~Swapped() override { testlib::clear_redirects(); }
    int start() { return started = dcache_iterate_start(&cache, add(top), &it, 0, 0, kZeros) == 0; }
    bool saw_outside()
    {
        for (const std::string &path : take_all())
            if (path.find("secret") != std::string::npos || path.find("deep") != std::string::npos)
                return true;
        return false;
    }
    std::string top;
};

TEST_F(Swapped, AnEntryThatBecameALinkIsNotFollowed)
{
    ASSERT_TRUE(start());
    EXPECT_EQ("t/a", take_next());
    disk.remove("t/a");
    disk.link("t/a", disk.path("outside"));
    EXPECT_FALSE(saw_outside());
    EXPECT_TRUE(testlib::logged(2, top + "/a is another directory now, skipped\n"));
}

TEST_F(Swapped, AParentThatBecameALinkIsNotFollowed)
{
    make_dirs({"t/a/secret", "outside/x/deep"});
    disk.remove("t/a/secret");
    ASSERT_TRUE(start());
    EXPECT_EQ("t/a", take_next());
    EXPECT_EQ("t/a/x", take_next());
    ASSERT_EQ(0, rename((top + "/a").c_str(), (top + "/b").c_str()));
    disk.link("t/a", disk.path("outside"));
    EXPECT_FALSE(saw_outside());
}

/* The kernel resolves the path of an open once more than the check does. */
TEST_F(Swapped, AnOpenThatLedElsewhereIsClosed)
{
    testlib::redirect_path(top + "/a", disk.path("outside"));
    const int before = open_fds();
    ASSERT_TRUE(start());
    EXPECT_EQ("t/a", take_next());
    EXPECT_FALSE(saw_outside());
    EXPECT_EQ(before, open_fds());
}

TEST_F(Swapped, AStartThatIsALinkIsRefused)
{
    disk.link("link", disk.path("outside"));
    top = disk.path("link");
    EXPECT_FALSE(start());
    EXPECT_EQ(fds_before, open_fds());
}

TEST_F(Swapped, InAContainerTheStartMayBeALinkOfTheHost)
{
    disk.link("link", disk.path("outside"));
    top = disk.path("link");
    g_container_flag = 1;
    EXPECT_TRUE(start());
    g_container_flag = 0;
    EXPECT_TRUE(saw_outside());
}

TEST_F(Swapped, EveryLookThatFailsSkipsWhatItWasFor)
{
    for (const char *call : {"fstat", "fstatat"}) {
        const int runs = testlib::fail_each(call, EIO, [&](Fault &fault) {
            if (start())
                take_all();
            EXPECT_EQ(fault.hit() ? 1 : 0, testlib::log_count_containing(" is another directory now, skipped\n"));
            testlib::log_clear();
            stop_walk();
            EXPECT_EQ(fds_before, open_fds());
        });
        EXPECT_EQ(3, runs) << call;
    }
}

}  // namespace
