/* Watches that the source of whole file systems serves: placing, falling back, deleting, and the events' way. */
#include "linux/fs/fs_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "event.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_served.h"
#include "linux/inotify.h"
#include "list.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

namespace
{

using Events = std::vector<std::string>;

constexpr uint64_t kRename = 0x10000000;
constexpr uint64_t kBase = FAN_CREATE | FAN_DELETE | FAN_ONDIR | kRename;
constexpr uint32_t kTree = FMON_DIR | FMON_RECURSIVE;

/* The keys, while it lives. */
struct Keys {
    explicit Keys(uint32_t events = 1, uint32_t memory_kib = 65536) { fmon.fs_keys = {events, 1000, memory_kib, 0}; }
    ~Keys() { fmon.fs_keys = {}; }
};

/* Whether this process may open handles. */
bool can_open_handles()
{
    struct fs_look look;
    int error;
    if (fs_look_at("/", false, &look, &error))
        return false;
    const bool can = fs_look_opens(&look) == 0;
    close(look.fd);
    return can;
}

class FsSource : public ::testing::Test
{
protected:
    FsSource() { EXPECT_EQ(0, m.result); }
    ~FsSource() override { g_container_flag = 0; }

    uint64_t system(const std::string &path) { return m.fanotify.fs_mask_of(path, true); }
    uint64_t own(const std::string &path) { return m.fanotify.fs_mask_of(path, false); }
    static struct watch *watch_of(const std::string &path)
    {
        struct dentry *d = dcache_find(&fmon.dcache, path.c_str());
        return d && !list_empty_of(d) ? FMON_RECORD(owner_of(d)->watches.next, struct watch, link) : nullptr;
    }
    static bool list_empty_of(struct dentry *d) { return owner_of(d)->watches.next == &owner_of(d)->watches; }
    static bool served(const std::string &path)
    {
        const struct watch *w = watch_of(path);
        return w && (w->flags & FMON_LINUX_FS);
    }
    static struct fmon_fs_status status()
    {
        struct fmon_status now = {};
        fs_source_status(&now);
        return now.fs;
    }

    /* A record of the kernel's: what happened to `name` in a directory. */
    static std::string record(uint64_t mask, const std::string &directory, const std::string &name, int pid = 77)
    {
        struct fs_look look;
        int error;
        EXPECT_EQ(0u, fs_look_at(directory.c_str(), false, &look, &error));
        close(look.fd);
        std::string info(4, '\0');
        info.append(reinterpret_cast<const char *>(look.key.key.fsid), 8);
        const uint32_t handle[2] = {look.key.key.len, static_cast<uint32_t>(look.key.key.type)};
        info.append(reinterpret_cast<const char *>(handle), 8);
        info.append(look.key.bytes, look.key.key.len);
        info += name;
        info.append(4 - info.size() % 4, '\0');
        info[0] = 2; /* FAN_EVENT_INFO_TYPE_DFID_NAME */
        const auto length = static_cast<uint16_t>(info.size());
        memcpy(&info[2], &length, sizeof length);
        struct fanotify_event_metadata head = {};
        head.event_len = static_cast<uint32_t>(sizeof head + info.size());
        head.vers = FANOTIFY_METADATA_VERSION;
        head.metadata_len = sizeof head;
        head.mask = mask;
        head.fd = FAN_NOFD;
        head.pid = pid;
        return std::string(reinterpret_cast<const char *>(&head), sizeof head) + info;
    }
    void feed(const std::string &bytes)
    {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(m.fanotify.fs_feed, bytes.data(), bytes.size()));
    }
    /* One turn of the monitor thread, when events are there. */
    bool turn()
    {
        struct pollfd wait = {fmon.fs_fd, POLLIN, 0};
        if (poll(&wait, 1, 10000) != 1)
            return false;
        fmlnx.selectable[fmlnx.fs_position] = -1;
        fmon_linux_read_event2(&fmon, 0, event_process);
        return true;
    }

    Keys keys_;
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
};

#define NEED_HANDLES() NEED(can_open_handles(), "opening handles needs CAP_DAC_READ_SEARCH")

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

/* ---- events ---- */

TEST_F(FsSource, AnEventWithItsProcess)
{
    NEED_HANDLES();
    tree.dir("a/b");
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, kTree));
    feed(record(FAN_CREATE, tree.path("a/b"), "f"));
    ASSERT_TRUE(turn());
    struct event *ev = fmon_peek_event(m.id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(77u, ev->pid);
    EXPECT_EQ(Events{tree.path("a/b/f") + ":create"}, m.events());
}

TEST_F(FsSource, WhatNobodyAskedForIsNotHandedOn)
{
    NEED_HANDLES();
    ASSERT_EQ(0, m.add(tree.root(), FMON_DELETE, kTree));
    feed(record(FAN_CREATE, tree.root(), "f") + record(FAN_DELETE, tree.root(), "g"));
    ASSERT_TRUE(turn());
    EXPECT_EQ(Events{tree.path("g") + ":delete"}, m.events());
}

TEST_F(FsSource, OwnDoingsAreNoEvents)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    feed(record(FAN_CREATE, tree.root(), "own", getpid()) + record(FAN_CREATE, tree.root(), "other"));
    ASSERT_TRUE(turn());
    EXPECT_EQ(Events{tree.path("other") + ":create"}, m.events());
}

/* Each source has its watches: of the same path and process two records stand side by side. */
TEST_F(FsSource, EventsOfTheSourcesDoNotMix)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    ASSERT_EQ(0, fmon_add_watch(m.id2, tree.root().c_str(), FMON_CREATE | FMON_DELETE, kTree, 5, 0)); /* marks */
    tree.file("f");
    m.pump_all();
    EXPECT_EQ(Events{}, m.events());
    EXPECT_EQ(1, fmon_has_event(m.id2));
    feed(record(FAN_CREATE, tree.root(), "f", 0));
    ASSERT_TRUE(turn());
    EXPECT_EQ(2, fmon.event_count);
    EXPECT_EQ(Events{tree.path("f") + ":create"}, m.events());
    EXPECT_EQ(Events{tree.path("f") + ":create"}, m.events(m.id2));
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(FsSource, WhileTheTableIsFullTheRestWaits)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    fmon.max_events = 3;
    for (const char *name : {"1", "2", "3", "4", "5"})
        feed(record(FAN_CREATE, tree.root(), name));
    while (fmon.event_count < 3)
        ASSERT_TRUE(turn());
    EXPECT_EQ(3u, m.events().size());
    while (fmon.event_count < 2)
        ASSERT_TRUE(turn());
    EXPECT_EQ((Events{tree.path("4") + ":create", tree.path("5") + ":create"}), m.events());
    fmon.max_events = 1000;
}

/* The end of the root is read from inotify; what happened in it before stands in the group. */
TEST_F(FsSource, WhatHappenedBeforeTheRootsEndIsReportedFirst)
{
    const std::string root = tree.dir("r");
    ASSERT_EQ(0, m.add(root, FMON_CREATE | FMON_DELETE, FMON_DIR | FMON_DELETED));
    const std::string last = record(FAN_DELETE, root, "f");
    tree.remove("r");
    feed(last);
    m.pump_all();
    EXPECT_EQ(Events{root + "/f:delete"}, m.events());
    EXPECT_EQ(0u, status().watches);
    EXPECT_FALSE(testlib::cached(root));
    tree.dir("r"); /* it waits, and is served again */
    fmon_tbd_pass();
    EXPECT_TRUE(served(root));
    EXPECT_EQ(1u, status().watches);
}

TEST_F(FsSource, ARootThatIsMovedAwayWaitsForItsPath)
{
    const std::string root = tree.dir("r");
    ASSERT_EQ(0, m.add(root, FMON_CREATE, FMON_DIR | FMON_DELETED));
    ASSERT_EQ(0, rename(root.c_str(), tree.path("s").c_str()));
    m.pump_all();
    EXPECT_EQ(0u, status().watches);
    EXPECT_FALSE(testlib::cached(root));
}

TEST_F(FsSource, AtTheLimitOfMemoryEventsAreLostAndCounted)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    const std::string name(200, 'n');
    for (int i = 0; i < 200000 && status().lost.dropped == 0; i++) {
        const std::string bytes = record(FAN_CREATE, tree.root(), name + std::to_string(i));
        while (write(m.fanotify.fs_feed, bytes.data(), bytes.size()) < 0 && errno == EAGAIN)
            sched_yield();
        if (i == 0)
            fs_source.queue.limit = 65536;
    }
    EXPECT_GT(status().lost.dropped, 0u);
    EXPECT_LE(status().memory, size_t{65536} + 65536); /* what was read before the limit was lowered */
}

/* ---- start and stop ---- */

TEST_F(FsSource, ThePositionIsTheLastOne)
{
    EXPECT_EQ(fmlnx.fd_num - 1, fmlnx.fs_position);
    EXPECT_EQ(fmon.fs_fd, fmlnx.fds[fmlnx.fs_position]);
    EXPECT_EQ(uint32_t{FMON_SOURCE_ON}, fmon_account.fs.source.state);
}

TEST_F(FsSource, ARestartServesAnew)
{
    ASSERT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    const int fds = testlib::open_fds();
    fmon_deinit();
    EXPECT_EQ(0, fmon.fs_fd);
    ASSERT_EQ(0, fmon_init(1000, 10000, 1000));
    EXPECT_EQ(fds, testlib::open_fds());
    EXPECT_EQ(0u, status().watches);
    EXPECT_EQ(0, m.del(tree.root()));
    EXPECT_EQ(0, m.add(tree.root(), FMON_CREATE, FMON_DIR));
    EXPECT_TRUE(served(tree.root()));
}

class FsSourceStart : public ::testing::Test
{
protected:
    ~FsSourceStart() override
    {
        fmon_deinit();
        g_container_flag = 0;
        testlib::reset_host();
    }
    static int start() { return fmon_init(100, 100, 1000); }
    testlib::PaperFanotify paper;
};

TEST_F(FsSourceStart, NothingOfItWithoutTheKey)
{
    ASSERT_EQ(0, start());
    EXPECT_EQ(0, fmlnx.fs_position);
    EXPECT_EQ(-1, paper.fs_group);
    EXPECT_EQ(uint32_t{FMON_SOURCE_OFF}, fmon_account.fs.source.state);
}

TEST_F(FsSourceStart, AKernelThatKnowsNoSuchGroup)
{
    const Keys keys;
    paper.fs_init_error = EINVAL;
    ASSERT_EQ(0, start());
    EXPECT_EQ(0, fmlnx.fs_position);
    EXPECT_EQ(uint32_t{FMON_SOURCE_REFUSED}, fmon_account.fs.source.state);
    EXPECT_EQ(EINVAL, fmon_account.fs.source.error);
    testlib::TempTree tree;
    const int id = fmon_create_instance("x");
    EXPECT_EQ(0, fmon_add_watch(id, tree.root().c_str(), FMON_CREATE, kTree, 0, 0));
    EXPECT_EQ(uint32_t{FMON_FALLBACK_INIT}, fmon_account.fs.last_fallback.reason);
    EXPECT_EQ(EINVAL, fmon_account.fs.last_fallback.error);
    EXPECT_NE(0u, testlib::kernel_mask(tree.root()) & FMON_CREATE);
    fmon_destroy_instance(id);
}

TEST_F(FsSourceStart, NotInsideAContainer)
{
    const Keys keys;
    g_container_flag = 1;
    ASSERT_EQ(0, start());
    EXPECT_EQ(uint32_t{FMON_WHY_CONTAINER}, fmon_account.fs.source.reason);
    EXPECT_EQ(0, fmlnx.fs_position);
}

/* Without any of its parts it is off, nothing of it is left, and the monitor runs. */
TEST_F(FsSourceStart, EveryPartMayFail)
{
    const Keys keys;
    const int fds = testlib::open_fds();
    const struct {
        const char *name;
        int nth, error;
    } parts[] = {{"eventfd", 1, EMFILE}, {"eventfd", 2, EMFILE}, {"pthread_create", 1, EAGAIN}};
    for (const auto &part : parts) {
        {
            testlib::Fault fault(part.name, part.nth, part.error);
            ASSERT_EQ(0, start());
            EXPECT_TRUE(fault.hit()) << part.name;
        }
        EXPECT_EQ(uint32_t{FMON_SOURCE_REFUSED}, fmon_account.fs.source.state) << part.name;
        EXPECT_EQ(part.error, fmon_account.fs.source.error) << part.name;
        EXPECT_EQ(0, fmlnx.fs_position) << part.name;
        fmon_deinit();
        EXPECT_EQ(fds + (paper.fs_feed >= 0 ? 1 : 0), testlib::open_fds()) << part.name;
    }
}

}  // namespace
