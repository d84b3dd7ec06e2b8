/* What of watches the source of whole file systems serves: placing, falling back, deleting. */
#include "fs_source_fixture.h"

namespace
{

/* ---- placing ---- */

TEST_F(FsSource, OneMarkServesATree)
{
    NEED_HANDLES();
    tree.dir("a/b/c");
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE | FMON_MODIFY, kTree));
    EXPECT_TRUE(served(tree.root()));
    EXPECT_EQ(kBase | FAN_MODIFY, system(tree.root()));
    EXPECT_EQ(0u, own(tree.root()));
    EXPECT_FALSE(testlib::cached(tree.path("a")));
    EXPECT_EQ(uint32_t{FMON_DELETE_SELF | FMON_MOVE_SELF}, testlib::kernel_mask(tree.root()));
    EXPECT_EQ(1u, status().watches);
    EXPECT_EQ(1u, status().file_systems);
    EXPECT_EQ(0u, status().fallbacks);
}

TEST_F(FsSource, TheRootsOwnEndIsAskedForOnItself)
{
    NEED_HANDLES();
    EXPECT_EQ(0, m.add(tree.root(), FMON_ALL_EVENTS, kTree));
    EXPECT_EQ(uint64_t{FAN_DELETE_SELF | FAN_MOVE_SELF | FAN_ONDIR}, own(tree.root()));
}

TEST_F(FsSource, ADirectoryAloneHasAMarkOfItsOwn)
{
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE | FMON_OPEN, FMON_DIR));
    EXPECT_TRUE(served(tree.root()));
    EXPECT_EQ(uint64_t{FAN_CREATE | FAN_OPEN | FAN_ONDIR | FAN_EVENT_ON_CHILD}, own(tree.root()));
    EXPECT_EQ(0u, system(tree.root()));
    EXPECT_EQ(0u, status().file_systems);
}

TEST_F(FsSource, MasksGrowAndShrinkWithTheWatches)
{
    NEED_HANDLES();
    tree.dir("a");
    tree.dir("b");
    m.add(tree.path("a"), FMON_CREATE, kTree);
    m.add(tree.path("b"), FMON_CLOSE_WRITE | FMON_ATTRIB, kTree);
    EXPECT_EQ(2u, status().watches);
    uint64_t placed = 0;
    for (const auto &call : m.fanotify.marks)
        placed |= call.fd == m.fanotify.fs_group ? call.mask : 0;
    EXPECT_EQ(kBase | FAN_CLOSE_WRITE | FAN_ATTRIB, placed);
    m.fanotify.marks.clear();
    EXPECT_EQ(0, m.del(tree.path("b")));
    ASSERT_FALSE(m.fanotify.marks.empty());
    EXPECT_EQ(uint64_t{FAN_CLOSE_WRITE | FAN_ATTRIB}, m.fanotify.marks.back().mask);
    EXPECT_EQ(unsigned{FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM}, m.fanotify.marks.back().flags);
    EXPECT_EQ(0, m.del(tree.path("a")));
    EXPECT_EQ(kBase, m.fanotify.marks.back().mask);
    EXPECT_EQ(0u, status().watches);
    EXPECT_EQ(0u, status().file_systems);
    EXPECT_EQ(0u, testlib::kernel_watches().size());
}

TEST_F(FsSource, TwoWatchesOfOneDirectoryShareItsMark)
{
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    EXPECT_EQ(0, fmon_add_watch(m.id2, tree.root().c_str(), FMON_CREATE | FMON_DELETE, FMON_DIR, 0, 0));
    EXPECT_EQ(0, m.del(tree.root()));
    EXPECT_EQ(uint64_t{FAN_CREATE | FAN_DELETE | FAN_ONDIR | FAN_EVENT_ON_CHILD}, own(tree.root()));
    EXPECT_EQ(0, fmon_del_watch(m.id2, tree.root().c_str()));
    EXPECT_EQ(0u, own(tree.root()));
}

TEST_F(FsSource, RenamesByHalvesWhereTheKernelKnowsNoWhole)
{
    NEED_HANDLES();
    m.fanotify.fs_refused_bits = kRename;
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    EXPECT_EQ(uint64_t{FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO | FAN_ONDIR}, system(tree.root()));
}

TEST_F(FsSource, EveryKindMayBeAskedForWithItsProcess)
{
    EXPECT_EQ(0, m.add(tree.root(), FMON_ALL_EVENTS, FMON_DIR | FMON_PID));
    EXPECT_TRUE(served(tree.root()));
}

/* ---- falling back ---- */

void expect_marks(const std::string &path, const struct fmon_fs_status &status, uint32_t reason, int error)
{
    EXPECT_NE(0u, testlib::kernel_mask(path) & FMON_CREATE);
    EXPECT_EQ(0u, status.watches);
    EXPECT_EQ(1u, status.fallbacks);
    EXPECT_EQ(reason, status.last_fallback.reason);
    EXPECT_EQ(error, status.last_fallback.error);
    EXPECT_EQ(path, status.last_fallback.path);
}

TEST_F(FsSource, AMarkThatIsRefused)
{
    NEED_HANDLES();
    for (int error : {ENODEV, EOPNOTSUPP, EXDEV, EPERM}) {
        fmon_account.fs.fallbacks = 0;
        m.fanotify.fs_mark_error = error;
        EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
        EXPECT_FALSE(served(tree.root()));
        expect_marks(tree.root(), status(), FMON_FALLBACK_MARK, error);
        EXPECT_EQ(0, m.del(tree.root()));
        EXPECT_EQ(0u, testlib::kernel_watches().size());
    }
}

TEST_F(FsSource, AFileSystemWithoutHandles)
{
    testlib::Fault fault("name_to_handle_at", 1, EOPNOTSUPP, 100);
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    expect_marks(tree.root(), status(), FMON_FALLBACK_HANDLE, EOPNOTSUPP);
}

TEST_F(FsSource, HandlesThatAreTooLong)
{
    testlib::Fault fault("name_to_handle_at", 1, EOVERFLOW, 100);
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    expect_marks(tree.root(), status(), FMON_FALLBACK_HANDLE, EOVERFLOW);
}

TEST_F(FsSource, HandlesThatMayNotBeOpened)
{
    testlib::Fault fault("open_by_handle_at", 1, EPERM, 100);
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    expect_marks(tree.root(), status(), FMON_FALLBACK_OPEN, EPERM);
}

TEST_F(FsSource, AnIdThatAnotherDeviceHas)
{
    NEED_HANDLES();
    tree.dir("a");
    ASSERT_EQ(0, m.add(tree.path("a"), FMON_CREATE, kTree));
    FMON_RECORD(fs_source.systems.next, struct fs_system, link)->dev++;
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.root().c_str(), FMON_CREATE, kTree, 0, 0));
    EXPECT_EQ(uint32_t{FMON_FALLBACK_FSID}, status().last_fallback.reason);
    EXPECT_EQ(1u, status().watches);
    FMON_RECORD(fs_source.systems.next, struct fs_system, link)->dev--;
}

TEST_F(FsSource, WatchesOfAnotherKind)
{
    const std::string file = tree.file("f");
    EXPECT_EQ(0, m.add(file, FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(uint32_t{FMON_FALLBACK_KIND}, status().last_fallback.reason);
    EXPECT_EQ(0, m.add(tree.dir("a"), FMON_CREATE, kTree, 3));
    EXPECT_EQ(0, m.add(tree.dir("b"), FMON_CREATE, kTree, 0, 0x80000003));
    EXPECT_EQ(3u, status().fallbacks);
    EXPECT_EQ(0u, status().watches);
}

TEST_F(FsSource, AProcessThatMarksCannotNameIsRefused)
{
    m.fanotify.fs_mark_error = ENODEV;
    EXPECT_EQ(FMON_ENOTSUP, m.add(tree.root(), FMON_CREATE, FMON_DIR | FMON_PID));
    EXPECT_EQ(uint32_t{FMON_FALLBACK_MARK}, status().last_fallback.reason);
    EXPECT_EQ(0u, testlib::kernel_watches().size());
    EXPECT_FALSE(testlib::cached(tree.root()));
    EXPECT_EQ(0, m.add(tree.root(), FMON_OPEN, FMON_DIR | FMON_PID));
}

/* Whatever fails: the watch is served, or marked, or refused with nothing left. */
TEST_F(FsSource, EveryCallOfPlacingMayFail)
{
    tree.dir("a/b");
    const int fds = testlib::open_fds();
    const struct {
        const char *name;
        int error;
    } calls[] = {{"open", EMFILE},
                 {"malloc", ENOMEM},
                 {"calloc", ENOMEM},
                 {"realloc", ENOMEM},
                 {"fstat", EIO},
                 {"name_to_handle_at", EIO},
                 {"open_by_handle_at", ESTALE},
                 {"inotify_add_watch", ENOSPC}};
    for (const auto &call : calls) {
        testlib::fail_each(call.name, call.error, [&](testlib::Fault &) {
            if (m.add(tree.root(), FMON_CREATE, kTree) == 0) {
                EXPECT_NE(0u, testlib::kernel_mask(tree.root())) << call.name;
                m.del(tree.root());
            }
        });
        EXPECT_EQ(fds, testlib::open_fds()) << call.name;
        EXPECT_EQ(0u, status().watches) << call.name;
        EXPECT_EQ(0u, testlib::kernel_watches().size()) << call.name;
        EXPECT_EQ(&fs_source.systems, fs_source.systems.next) << call.name;
    }
}

}  // namespace
