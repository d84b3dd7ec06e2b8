#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "linux/record.h"
#include "list.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

using namespace testlib;
using Strings = std::vector<std::string>;

namespace
{

/* ---- cutting records out of a buffer ---- */

TEST(InotifyRecord, WellFormed)
{
    std::string bytes = inotify_record(3, IN_CREATE, "name") + inotify_record(4, IN_DELETE);
    struct raw_inotify record;
    ASSERT_TRUE(inotify_record_at(bytes.data(), bytes.size(), 0, &record));
    EXPECT_EQ(3, record.wd);
    EXPECT_EQ(uint32_t{IN_CREATE}, record.mask);
    EXPECT_STREQ("name", record.name);
    size_t second = record.size;
    ASSERT_TRUE(inotify_record_at(bytes.data(), bytes.size(), second, &record));
    EXPECT_EQ(4, record.wd);
    EXPECT_FALSE(inotify_record_at(bytes.data(), bytes.size(), second + record.size, &record));
}

TEST(InotifyRecord, CutAnywhereIsRefused)
{
    std::string bytes = inotify_record(3, IN_CREATE, "name");
    struct raw_inotify record;
    for (size_t size = 0; size < bytes.size(); size++) {
        std::string exact(bytes.data(), size); /* a heap block of just that size, for the sanitizer */
        EXPECT_FALSE(inotify_record_at(exact.data(), size, 0, &record)) << size;
    }
    EXPECT_FALSE(inotify_record_at(bytes.data(), bytes.size(), bytes.size() + 1, &record));
}

TEST(InotifyRecord, LengthPastTheEndIsRefused)
{
    struct raw_inotify record;
    for (uint32_t len : {1U, 16U, 0x7fffffffU, 0xfffffff0U, 0xffffffffU}) {
        std::string bytes = inotify_record_raw(3, IN_CREATE, len, "");
        EXPECT_FALSE(inotify_record_at(bytes.data(), bytes.size(), 0, &record)) << len;
    }
}

TEST(FanotifyRecord, LengthLimits)
{
    struct raw_fanotify record;
    for (uint32_t len : {0U, 1U, 23U, 25U, 0xffffffffU}) {
        std::string bytes = fanotify_record_raw(len, 3, 24, 2, -1, 1);
        EXPECT_FALSE(fanotify_record_at(bytes.data(), bytes.size(), 0, &record)) << len;
    }
    std::string longer = fanotify_record_raw(30, 3, 24, 2, -1, 1, "extra!");
    EXPECT_TRUE(fanotify_record_at(longer.data(), longer.size(), 0, &record));
    EXPECT_EQ(30U, record.event_len);
    for (size_t size = 0; size < 24; size++) {
        std::string cut = longer.substr(0, size);
        EXPECT_FALSE(fanotify_record_at(cut.data(), size, 0, &record)) << size;
    }
}

/* ---- the readers ---- */

class Reading : public ::testing::Test
{
protected:
    Reading()
    {
        a = tree.dir("a");
        EXPECT_EQ(0, m.result);
        EXPECT_EQ(0, m.add(a, FMON_ALL_EVENTS, FMON_DIR));
        wd = wd_of(a);
        log_clear();
    }
    TempTree tree;
    LinuxMonitor m;
    std::string a;
    int wd;
};

TEST_F(Reading, NameIsPassedOn)
{
    m.feed(0, inotify_record(wd, IN_CREATE, "x"));
    EXPECT_EQ(Strings{a + "/x:create"}, m.events());
    EXPECT_TRUE(logged(4, "inotify read an event: wd " + std::to_string(wd) + ", event 0x100, name x\n"));
    EXPECT_TRUE(logged(4, "inotify event: " + a + " [x] (create)\n"));
}

TEST_F(Reading, WithoutANameTheDirectoryIsMeant)
{
    m.feed(0, inotify_record(wd, IN_ATTRIB));
    EXPECT_EQ(Strings{a + ":attrib"}, m.events());
    EXPECT_TRUE(logged(4, "inotify event: " + a + " [] (attrib)\n"));
}

TEST_F(Reading, NameThatBeginsWithNulIsNone)
{
    m.feed(0, inotify_record_raw(wd, IN_ATTRIB, 16, std::string(16, '\0')));
    EXPECT_EQ(Strings{a + ":attrib"}, m.events());
}

TEST_F(Reading, NameWithoutNulEndsWithItsField)
{
    m.feed(0, inotify_record_raw(wd, IN_CREATE, 16, std::string(16, 'n')) + inotify_record(wd, IN_DELETE, "y"));
    EXPECT_EQ((Strings{a + "/" + std::string(16, 'n') + ":create", a + "/y:delete"}), m.events());
}

TEST_F(Reading, NameThatFillsTheWholeBuffer)
{
    m.feed(0, inotify_record_raw(wd, IN_CREATE, 4080, std::string(4080, 'n')));
    EXPECT_TRUE(m.events().empty()) << "such a path cannot be built";
    m.feed(0, inotify_record(wd, IN_CREATE, "still works"));
    EXPECT_EQ(Strings{a + "/still works:create"}, m.events());
}

TEST_F(Reading, CraftedLengthEndsTheBuffer)
{
    m.feed(0, inotify_record(wd, IN_CREATE, "x") + inotify_record_raw(wd, IN_CREATE, 0xffffffff, "y") +
                  inotify_record(wd, IN_CREATE, "z"));
    EXPECT_EQ(Strings{a + "/x:create"}, m.events());
}

TEST_F(Reading, UnknownDescriptorIsCounted)
{
    m.feed(0, inotify_record(12345, IN_CREATE, "x"));
    EXPECT_TRUE(logged(1, "can't find dentry\n"));
    EXPECT_EQ(1U, fmlnx.unknown_wd_count);
    EXPECT_EQ(1U, fmlnx.read_status);
    m.feed(0, inotify_record(wd, IN_CREATE, "x"));
    EXPECT_EQ(0U, fmlnx.read_status) << "cleared at the start of each pass";
}

TEST_F(Reading, OverflowIsCounted)
{
    m.feed(0, inotify_record(-1, IN_Q_OVERFLOW));
    EXPECT_TRUE(logged(3, "inotify event overflow\n"));
    EXPECT_EQ(1U, fmlnx.ino_overflow);
    EXPECT_EQ(2U, fmlnx.read_status);
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

TEST_F(Reading, PoisonedDescriptorIsDroppedUntilItsIgnoredCame)
{
    ASSERT_EQ(0, m.del(a));
    ASSERT_EQ(uint64_t{SEQ_POISON}, seq_get(&fmlnx.seq, wd));
    m.feed(0, inotify_record(wd, IN_CREATE, "x"));
    EXPECT_TRUE(logged(2, "this dentry is put in poison\n"));
    m.feed(0, inotify_record(wd, IN_IGNORED));
    EXPECT_TRUE(logged(4, "inotify ignore del poison wd " + std::to_string(wd) + "\n"));
    EXPECT_EQ(0U, seq_get(&fmlnx.seq, wd));
    m.feed(0, inotify_record(wd, IN_IGNORED));
    EXPECT_TRUE(logged(1, "ignore: can't find seq of wd: " + std::to_string(wd) + "\n"));
    EXPECT_EQ(1U, fmlnx.unknown_wd_count);
}

TEST_F(Reading, IgnoredLiveDescriptorPunishesTheDentry)
{
    m.feed(0, inotify_record(wd, IN_IGNORED));
    EXPECT_TRUE(logged(4, "ignore dentry " + a + "\n"));
    EXPECT_TRUE(logged(4, "dentry " + a + " punished\n"));
    EXPECT_FALSE(cached(a));
    EXPECT_EQ(0U, fmon.dcache.count);
    struct watch *w = FMON_RECORD(fmon.instances[m.id].watches.next, struct watch, inst_link);
    EXPECT_EQ(nullptr, w->dentry);
}

TEST_F(Reading, ReadFailureIsLogged)
{
    Fault fault("read", 1, EIO);
    m.feed(0, inotify_record(wd, IN_CREATE, "x"));
    EXPECT_TRUE(logged(1, "read inotify failed: Input/output error\n"));
    EXPECT_EQ(0U, fmlnx.io_count[0]) << "only a successful read counts";
}

TEST_F(Reading, KernelBitsAreStripped)
{
    m.feed(0, inotify_record(wd, IN_CREATE | IN_UNMOUNT | 0x1000, "x"));
    EXPECT_EQ(Strings{a + "/x:create"}, m.events());
}

TEST_F(Reading, NothingStaysMarkedReady)
{
    for (int i = 0; i < 3; i++)
        fmlnx.selectable[i] = -2;
    Pipe pipe;
    pipe.put(inotify_record(wd, IN_CREATE, "x"));
    int32_t saved = fmlnx.fds[0];
    fmlnx.fds[0] = pipe.read_fd();
    fmlnx.selectable[0] = -1;
    fmon_linux_read_event2(&fmon, 0, event_process);
    EXPECT_EQ(-2, fmlnx.selectable[0]);
    fmon_linux_read_event2(&fmon, 0, event_process); /* would wait for ever on the empty pipe */
    fmlnx.fds[0] = saved;
}

TEST_F(Reading, OnlyInotifyReadsAreCounted)
{
    m.feed(0, inotify_record(wd, IN_CREATE, "x"));
    m.feed(1, fanotify_record(FMON_MODIFY, -1, 7));
    EXPECT_EQ(1U, fmlnx.io_count[0]);
    EXPECT_EQ(0U, fmlnx.io_count[1]) << "a fanotify flood is never throttled in this mode";
}

TEST_F(Reading, FanotifyFileGivesPathAndProcess)
{
    std::string f = tree.file("a/f", "text");
    int fd = open(f.c_str(), O_RDONLY);
    m.feed(1, fanotify_record(FMON_MODIFY, fd, 4711));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the record's descriptor is closed";
    struct event *ev = fmon_peek_event(m.id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(f, ev->path);
    EXPECT_EQ(4711U, ev->pid);
    EXPECT_TRUE(logged(4, "fanotify event: " + f + " (modify) pid 4711\n"));
    EXPECT_TRUE(logged(4, "read a fanotify event"));
}

TEST_F(Reading, FileWithoutALinkGivesNoEvent)
{
    std::string f = tree.file("a/f");
    int fd = open(f.c_str(), O_RDONLY);
    unlink(f.c_str());
    m.feed(1, fanotify_record(FMON_MODIFY, fd, 1));
    EXPECT_TRUE(m.events().empty());
    EXPECT_TRUE(logged(4, "read link failed, fd " + std::to_string(fd) + "\n"));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(Reading, FanotifyOverflowIsCountedAndGivesNoEvent)
{
    m.feed(1, fanotify_record(0x4000, -1, 0));
    EXPECT_EQ(1U, fmlnx.fan_overflow);
    EXPECT_EQ(4U, fmlnx.read_status);
    EXPECT_TRUE(logged(2, "fanotify overflow detected\n"));
    EXPECT_TRUE(logged(4, "read link failed, fd -1\n"));
    EXPECT_TRUE(m.events().empty());
}

TEST_F(Reading, OtherFanotifyVersionEndsTheBuffer)
{
    std::string f = tree.file("a/f");
    int first = open(f.c_str(), O_RDONLY), second = open(f.c_str(), O_RDONLY);
    m.feed(1, fanotify_record_raw(24, 2, 24, FMON_MODIFY, first, 1) + fanotify_record(FMON_MODIFY, second, 1));
    EXPECT_TRUE(logged(1, "metadata ver mismatach\n"));
    EXPECT_TRUE(m.events().empty());
    EXPECT_EQ(0, close(first)) << "left open on purpose: another layout has no descriptor there";
    EXPECT_EQ(0, close(second));
}

TEST_F(Reading, FailedCallsOfAFanotifyRecordDropItAndCloseTheDescriptor)
{
    std::string f = tree.file("a/f");
    for (const char *call : {"fstat", "readlink"}) {
        int fd = open(f.c_str(), O_RDONLY);
        int before = open_fds();
        Fault fault(call, 1, EACCES);
        m.feed(1, fanotify_record(FMON_MODIFY, fd, 1));
        EXPECT_TRUE(fault.hit()) << call;
        EXPECT_TRUE(m.events().empty());
        EXPECT_EQ(before - 1, open_fds());
    }
    Fault fault("read", 1, EIO);
    m.feed(1, fanotify_record(FMON_MODIFY, -1, 1));
    EXPECT_TRUE(logged(1, "read fanotify failed: Input/output error\n"));
}

TEST_F(Reading, MissingMountIdStillGivesTheEvent)
{
    std::string f = tree.file("a/f");
    int fd = open(f.c_str(), O_RDONLY);
    Fault fault("open", 1, EMFILE);
    m.feed(1, fanotify_record(FMON_MODIFY, fd, 1));
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(Strings{f + ":modify"}, m.events());
}

TEST_F(Reading, LongestPathOfAnEventFile)
{
    /* A chain of directories whose full path has 1023 and 1024 bytes. */
    std::string path = tree.root();
    while (path.size() + 202 < 1023)
        path += "/" + std::string(200, 'd');
    path += "/" + std::string(1023 - path.size() - 1, 'e');
    ASSERT_EQ(1023U, path.size());
    std::string below = path.substr(tree.root().size() + 1);
    int fd = open(tree.file(below).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    m.feed(1, fanotify_record(FMON_MODIFY, fd, 1));
    EXPECT_EQ(1, log_count_containing("fanotify event: " + path + " (modify)"));
    m.events();

    int longer = open(tree.file(below + "f").c_str(), O_RDONLY);
    ASSERT_GE(longer, 0);
    m.feed(1, fanotify_record(FMON_MODIFY, longer, 1));
    EXPECT_EQ(2, log_count_containing("fanotify event: " + path + " (modify)")) << "cut at 1023 bytes";
}

/* ---- the tree follows the kernel ---- */

class Tree : public ::testing::Test
{
protected:
    Tree()
    {
        t = tree.dir("t");
        EXPECT_EQ(0, m.result);
    }
    void watch() { EXPECT_EQ(0, m.add(t, FMON_CREATE | FMON_MOVED_FROM | FMON_MOVED_TO | FMON_MOVE_SELF, kFlags)); }
    void pump_all()
    {
        usleep(1000);
        while (has_input())
            m.pump();
    }
    static bool has_input()
    {
        int bytes = 0;
        return ioctl(inotify_descriptor(), FIONREAD, &bytes) == 0 && bytes > 0;
    }
    static constexpr uint32_t kFlags = FMON_DIR | FMON_RECURSIVE | FMON_SYNC;
    TempTree tree;
    LinuxMonitor m;
    std::string t;
};

TEST_F(Tree, CreatedDirectoryIsWatched)
{
    watch();
    tree.dir("t/new");
    pump_all();
    EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/new"));
    EXPECT_NE(0U, kernel_mask(t + "/new"));
    EXPECT_EQ(1, log_count_containing("monitor new dir: " + t + "/new fanotify , inotify create"));
}

TEST_F(Tree, ContentsOfACreatedDirectoryAreNotWalked)
{
    watch();
    tree.dir("t/new/inside");
    pump_all();
    EXPECT_TRUE(cached(t + "/new"));
    EXPECT_FALSE(cached(t + "/new/inside")) << "it was there before its parent was watched";
}

TEST_F(Tree, CreatedFileIsNotADirectory)
{
    watch();
    tree.file("t/f");
    pump_all();
    EXPECT_FALSE(cached(t + "/f"));
}

TEST_F(Tree, WithoutARecursiveWatchNothingIsAdded)
{
    EXPECT_EQ(0, m.add(t, FMON_CREATE, FMON_DIR));
    tree.dir("t/new");
    pump_all();
    EXPECT_FALSE(cached(t + "/new"));
}

TEST_F(Tree, DirectoryGoneBeforeItCouldBeWatchedIsNotKept)
{
    watch();
    uint32_t count = fmon.dcache.count;
    for (int i = 0; i < 50; i++) {
        std::string name = "t/short" + std::to_string(i);
        tree.dir(name);
        tree.remove(name);
    }
    pump_all();
    EXPECT_EQ(count, fmon.dcache.count);
}

TEST_F(Tree, FullCacheIsLoggedForACreatedDirectory)
{
    watch();
    fmon.dcache.max_entries = static_cast<int32_t>(fmon.dcache.count);
    tree.dir("t/new");
    pump_all();
    EXPECT_TRUE(logged(2, "add sub dentry failed: " + t + " sub new\n"));
}

TEST_F(Tree, ArrivedTreeIsWalked)
{
    watch();
    tree.dir("outside/a/b");
    rename(tree.path("outside").c_str(), (t + "/in").c_str());
    pump_all();
    for (const char *path : {"/in", "/in/a", "/in/a/b"})
        EXPECT_EQ(kernel_mask(t), kernel_mask(t + path)) << path;
    EXPECT_TRUE(logged(4, "inotify moved to: " + t + " (in) dir\n"));
}

TEST_F(Tree, FullCacheIsLoggedForAnArrivedDirectory)
{
    watch();
    tree.dir("outside");
    fmon.dcache.max_entries = static_cast<int32_t>(fmon.dcache.count);
    rename(tree.path("outside").c_str(), (t + "/in").c_str());
    pump_all();
    EXPECT_TRUE(logged(2, "add sub failed\n"));
}

TEST_F(Tree, DepartedTreeIsLetGo)
{
    tree.dir("t/a/b/c");
    watch();
    uint32_t count = fmon.dcache.count;
    rename((t + "/a").c_str(), tree.path("gone").c_str());
    pump_all();
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(count - 3, fmon.dcache.count);
    EXPECT_EQ(1U, kernel_watches().size());
    EXPECT_TRUE(logged(4, "inotify moved from: " + t + " (a) dir\n"));
    EXPECT_TRUE(logged(4, "collect moved dentry " + t + "/a\n"));
    EXPECT_TRUE(logged(4, "dentry " + t + "/a/b watches 1 subdirs 1 fe 0 ie fc0\n")) << "1: none";
}

TEST_F(Tree, MoveInsideTheTreeDoesBoth)
{
    tree.dir("t/a/b");
    watch();
    rename((t + "/a").c_str(), (t + "/z").c_str());
    pump_all();
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(kernel_mask(t), kernel_mask(t + "/z/b"));
    EXPECT_EQ(3U, kernel_watches().size());
}

TEST_F(Tree, DepartureOfSomethingNotCached)
{
    EXPECT_EQ(0, m.add(t, FMON_MOVED_FROM, FMON_DIR));
    tree.dir("t/a");
    rename((t + "/a").c_str(), tree.path("gone").c_str());
    pump_all();
    EXPECT_TRUE(logged(4, "No sub dentry\n"));
}

TEST_F(Tree, MovedWatchedDirectoryLosesItsWatch)
{
    watch();
    rename(t.c_str(), tree.path("elsewhere").c_str());
    pump_all();
    EXPECT_TRUE(logged(4, "inotify moved to: " + t + " () file\n")) << "the kernel does not say that it is a directory";
    EXPECT_TRUE(kernel_watches().empty());
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Tree, PunishedFanotifyMarkCannotBeRemoved)
{
    EXPECT_EQ(0, m.add(t, FMON_MODIFY, kFlags));
    rename(t.c_str(), tree.path("elsewhere").c_str());
    pump_all();
    EXPECT_TRUE(logged(2, "fanotify file path lost, can't remove\n"));
}

TEST_F(Tree, DeletedDirectoryLeavesThroughItsIgnored)
{
    tree.dir("t/a/b");
    watch();
    tree.remove("t/a");
    pump_all();
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_EQ(1U, kernel_watches().size());
    EXPECT_EQ(0U, fmlnx.unknown_wd_count);
}

/* The watch of a deleted directory leaves while its children are still watched for it; nobody's mask accounts for
 * them then. Moved away later, they must not be freed with their watch descriptor in the table. */
TEST_F(Tree, NoDentryIsFreedWithALiveWatchDescriptor)
{
    tree.dir("t/a/b");
    EXPECT_EQ(0, m.add(t + "/a", FMON_CREATE, FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_MOVED_FROM, FMON_DIR, 0, 0));
    int inner = wd_of(t + "/a/b");
    ASSERT_GE(inner, 0);
    m.feed(0, inotify_record(wd_of(t + "/a"), IN_IGNORED));
    EXPECT_EQ(inner, wd_of(t + "/a/b"));
    m.feed(0, inotify_record(wd_of(t), IN_MOVED_FROM | IN_ISDIR, "a"));
    EXPECT_FALSE(cached(t + "/a"));
    uint64_t value = seq_get(&fmlnx.seq, inner);
    EXPECT_TRUE(value == 0 || value == SEQ_POISON) << value;
    m.feed(0, inotify_record(inner, IN_CREATE, "x"));
    EXPECT_TRUE(logged(2, "this dentry is put in poison\n"));
}

TEST_F(Tree, SeveralTreeBitsInOneRecord)
{
    tree.dir("t/a/b");
    watch();
    m.feed(0, inotify_record(wd_of(t + "/a"), IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF | IN_ISDIR, "b"));
    EXPECT_FALSE(cached(t + "/a"));
    EXPECT_TRUE(cached(t));
}

TEST_F(Tree, DeletedWatchWaitsForItsPathAgain)
{
    EXPECT_EQ(0, m.add(t, FMON_CREATE, FMON_DIR | FMON_DELETED));
    tree.remove("t");
    pump_all();
    EXPECT_FALSE(list_empty(&fmon.tbd));
    tree.dir("t");
    fmon_tbd_pass();
    EXPECT_TRUE(list_empty(&fmon.tbd));
    EXPECT_EQ(uint32_t{FMON_CREATE}, kernel_mask(t));
}

/* Two names of one file share the kernel's watch: the later path takes the descriptor. */
TEST_F(Tree, HardLinksShareAWatchDescriptor)
{
    std::string f = tree.file("f");
    ASSERT_EQ(0, link(f.c_str(), tree.path("g").c_str()));
    EXPECT_EQ(0, m.add(f, FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(0, m.add(tree.path("g"), FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(wd_of(f), wd_of(tree.path("g")));
    EXPECT_EQ(0, m.del(f));
    EXPECT_EQ(0, m.del(tree.path("g")));
    EXPECT_EQ(0U, fmon.dcache.count);
}

TEST_F(Tree, EveryFailedCallOfANewDirectoryKeepsTheTreeSound)
{
    watch();
    for (const char *call : {"malloc", "calloc", "realloc", "inotify_add_watch", "stat"}) {
        int run = 0;
        fail_each(call, ENOSPC, [&](Fault &) {
            std::string name = std::string("t/") + call + std::to_string(run++);
            uint32_t before = fmon.dcache.count;
            m.feed(0, inotify_record(wd_of(t), IN_CREATE | IN_ISDIR, tree.dir(name).substr(t.size() + 1)));
            bool kept = cached(tree.path(name));
            EXPECT_EQ(before + (kept ? 1 : 0), fmon.dcache.count) << call;
            EXPECT_TRUE(!kept || wd_of(tree.path(name)) >= 0) << call;
        });
    }
}

}  // namespace
