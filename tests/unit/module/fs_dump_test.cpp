/* What a dump says of the source of whole file systems: of each watch, of marked file systems, of what waits. */
#include <gtest/gtest.h>

#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_served.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/tree.h"

namespace
{

/* The keys, while it lives. */
struct Keys {
    explicit Keys(uint32_t events) { fmon.fs_keys = {events, 1000, 65536, 0, 2, 0}; }
    ~Keys() { fmon.fs_keys = {}; }
};

/* Whether the lines of a dump of the backend hold all of it. */
bool says(const std::string &part)
{
    testlib::log_clear();
    EXPECT_EQ(0, fmon_dump(5, nullptr));
    return testlib::log_text().find(part) != std::string::npos;
}

}  // namespace

TEST(FsDump, NothingWhereTheSourceIsNotAskedFor)
{
    const Keys keys(0);
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
    m.add(tree.root(), FMON_CREATE, FMON_DIR);
    EXPECT_FALSE(says("[W]"));
    EXPECT_EQ("", testlib::log_text());
}

TEST(FsDump, EachWatchWithItsSource)
{
    const Keys keys(1);
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
    const std::string directory = tree.dir("d"), file = tree.file("f");
    m.add(directory, FMON_CREATE | FMON_DELETE, FMON_DIR);
    m.add(file, FMON_MODIFY, FMON_FILE);
    m.add(tree.path("later"), FMON_MODIFY, FMON_DIR | FMON_DELETED);
    EXPECT_TRUE(says("\nFile systems:\n"));
    EXPECT_TRUE(says(" of 1000 directories, "));
    EXPECT_TRUE(says("of 67108864 bytes"));
    EXPECT_TRUE(says("lost: overflows 0, thrown away 0, unresolved 0\n"));
    EXPECT_TRUE(says("  [W] " + directory + " (filesystem), event create,delete\n"));
    EXPECT_TRUE(says("  [W] " + file + " (marks)\n"));
    EXPECT_TRUE(says("  [W] " + tree.path("later") + " (not placed)\n"));
}

TEST(FsDump, AMarkedFileSystem)
{
    const Keys keys(1);
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
    if (m.add(tree.root(), FMON_CREATE, FMON_DIR | FMON_RECURSIVE) != 0 || fmon_account.fs.watches == 0)
        GTEST_SKIP() << "opening handles needs CAP_DAC_READ_SEARCH";
    EXPECT_TRUE(says("  [S] "));
    EXPECT_TRUE(says(", users 1\n"));
    EXPECT_TRUE(says("  [W] " + tree.root() + " (filesystem), event create, with all below\n"));
}

TEST(FsDump, ASourceThatHasEnded)
{
    const Keys keys(1);
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
    m.add(tree.file("f"), FMON_MODIFY, FMON_FILE);
    fs_source_stop();
    EXPECT_TRUE(says("File systems:"));
    EXPECT_FALSE(says("table:"));
    EXPECT_TRUE(says("(marks)\n"));
}
