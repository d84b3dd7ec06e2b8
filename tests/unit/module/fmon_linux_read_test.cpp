/* Tests of linux/fmon_linux_read.cpp: records, well-formed and crafted, and what becomes of them. */

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "event.h"
#include "linux/inotify.h"
#include "linux/record.h"
#include "list.h"
#include "reading_fixture.h"
#include "testlib/fault.h"

using namespace testlib;

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
    EXPECT_EQ(1U, fmon.lost.unknown_wd);
    EXPECT_EQ(1U, fmlnx.read_status);
    m.feed(0, inotify_record(wd, IN_CREATE, "x"));
    EXPECT_EQ(0U, fmlnx.read_status) << "cleared at the start of each pass";
}

/* That a directory which is not known was removed, or that its watch ended, means nothing to anybody. */
TEST_F(Reading, WhatAnUnknownDirectorySaysOfItselfIsNoLoss)
{
    m.feed(0, inotify_record(12345, IN_ATTRIB | IN_ISDIR) + inotify_record(12345, IN_DELETE_SELF) +
                  inotify_record(12345, IN_IGNORED));
    EXPECT_EQ(3U, fmlnx.unknown_wd_count);
    EXPECT_EQ(0U, fmon.lost.unknown_wd);
}

/* The kernel reports what happens to an entry while the watch is taken away behind the IN_IGNORED of it. */
TEST_F(Reading, WhatComesBehindTheEndOfAWatchIsNoLoss)
{
    ASSERT_EQ(0, m.del(a));
    m.feed(0, inotify_record(wd, IN_IGNORED) + inotify_record(wd, IN_CREATE, "x"));
    EXPECT_TRUE(logged(1, "can't find dentry\n"));
    EXPECT_EQ(1U, fmlnx.unknown_wd_count);
    EXPECT_EQ(0U, fmon.lost.unknown_wd);
    EXPECT_EQ(Strings{}, m.events());
}

/* The empty directory's own watch ends with it, while its dentry has the arriving directory's already. */
TEST_F(Reading, RenamingOntoAnEmptyDirectoryLosesNothing)
{
    const std::string old_dir = tree.dir("r/old"), new_dir = tree.dir("r/new");
    ASSERT_EQ(0, m.add(tree.path("r"), FMON_ALL_EVENTS, FMON_DIR | FMON_RECURSIVE | FMON_SYNC));
    ASSERT_EQ(0, rename(new_dir.c_str(), old_dir.c_str()));
    while (m.has_input())
        m.pump();
    EXPECT_TRUE(cached(old_dir));
    EXPECT_EQ(0U, fmon.lost.unknown_wd) << log_text();
    m.events();
    tree.file("r/old/f");
    m.pump();
    EXPECT_FALSE(m.events().empty());
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

TEST_F(Reading, FileThatIsCalledDeletedIsNot)
{
    std::string f = tree.file("a/f (deleted)");
    m.feed(1, fanotify_record(FMON_MODIFY, open(f.c_str(), O_RDONLY), 1));
    EXPECT_EQ(Strings{f + ":modify"}, m.events());
}

/* The second look at the links decides, when the last one went between the first and the reading of the path. */
TEST_F(Reading, FileWhoseLastLinkGoesMeanwhileGivesNoEvent)
{
    std::string f = tree.file("a/f (deleted)");
    Fault fault("fstat", 2, EBADF);
    m.feed(1, fanotify_record(FMON_MODIFY, open(f.c_str(), O_RDONLY), 1));
    EXPECT_TRUE(fault.hit());
    EXPECT_TRUE(m.events().empty());
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
    Fault old_kernel("statx", 1, ENOSYS), fault("open", 1, EMFILE);
    m.feed(1, fanotify_record(FMON_MODIFY, fd, 1));
    EXPECT_TRUE(fault.hit());
    EXPECT_TRUE(logged(1, "open filed!\n"));
    EXPECT_EQ(Strings{f + ":modify"}, m.events());
}

/* A directory whose path has that many bytes. */
std::string long_dir(TempTree &tree, size_t length)
{
    std::string path = tree.root();
    while (path.size() + 202 < length)
        path += "/" + std::string(200, 'd');
    path += "/" + std::string(length - path.size() - 1, 'e');
    return tree.dir(path.substr(tree.root().size() + 1));
}

TEST_F(Reading, LongestPathOfAnEventFile)
{
    const std::string dir = long_dir(tree, 1000), fits = dir + "/" + std::string(21, 'f');
    ASSERT_EQ(1022U, fits.size());
    m.feed(1, fanotify_record(FMON_MODIFY, open(tree.file(fits.substr(tree.root().size() + 1)).c_str(), O_RDONLY), 1));
    EXPECT_EQ(1, log_count_containing("fanotify event: " + fits + " (modify)"));
    EXPECT_EQ(0U, fmon.lost.path);
}

/* Established: a path is told as far as 1023 bytes go. The beginning of a path is the path of something else. */
TEST_F(Reading, TooLongAPathIsCountedAndHardenedNotTold)
{
    const std::string dir = long_dir(tree, 1000);
    uint64_t lost = 0;
    for (size_t length : {22U, 23U, 200U}) {
        const std::string path = dir + "/" + std::string(length, 'f');
        m.feed(1,
               fanotify_record(FMON_MODIFY, open(tree.file(path.substr(tree.root().size() + 1)).c_str(), O_RDONLY), 1));
        const std::string cut = path.substr(0, 1023);
        EXPECT_EQ(hardened() ? 0 : 1, log_count_containing("fanotify event: " + cut + " (modify)")) << length;
        EXPECT_EQ(++lost, fmon.lost.path);
        EXPECT_EQ(cut, fmon.lost_path);
        log_clear();
    }
}

TEST_F(Reading, TooLongAPathOfAWatchedDirectoryIsCounted)
{
    const std::string dir = long_dir(tree, 1000), name(100, 'n');
    ASSERT_EQ(0, m.add(dir, FMON_CREATE, FMON_DIR));
    m.feed(0, inotify_record(wd_of(dir), IN_CREATE, name));
    EXPECT_TRUE(m.events().empty());
    EXPECT_EQ(1U, fmon.lost.path);
    EXPECT_EQ((dir + "/" + name).substr(0, 1023), fmon.lost_path);
    EXPECT_EQ(0U, fmon.lost.memory);
}

/* A directory that was moved there may itself be too deep: the nearest one above that has a path is told. */
TEST_F(Reading, PathOfADirectoryThatIsItselfTooDeep)
{
    const std::string dir = long_dir(tree, 1000);
    struct dentry *parent = dcache_add(&fmon.dcache, dir.c_str());
    struct dentry *deep = dcache_add_sub(&fmon.dcache, parent, std::string(100, 'd').c_str());
    ASSERT_NE(nullptr, deep);
    EXPECT_EQ(FMON_ENOMEM, event_process(&fmon, deep, "name", FMON_CREATE, 0, 5, nullptr));
    EXPECT_EQ(FMON_ENOMEM, event_process(&fmon, deep, nullptr, FMON_CREATE, 0, 5, nullptr));
    EXPECT_EQ(2U, fmon.lost.path);
    EXPECT_EQ(dir + "/", fmon.lost_path);
    dcache_del(&fmon.dcache, deep);
}

/* ---- whose path it is ---- */

constexpr int kNoProcess = 4194305; /* one that runs is asked for its namespace; no kernel gives a number so high */

/* What the kernel tells is the path in the namespace of whoever did it: another file may be there, or none. */
TEST_F(Reading, PathOfAnotherFileIsCountedAndHardenedNotTold)
{
    std::string f = tree.file("a/f");
    const size_t marks = m.fanotify.marks.size();
    Fault elsewhere("lstat", 1, ENOENT, 3);
    m.feed(1, fanotify_record(FMON_MODIFY, open(f.c_str(), O_RDONLY), kNoProcess));
    EXPECT_EQ(hardened(), elsewhere.hit());
    EXPECT_EQ(hardened() ? Strings{} : Strings{f + ":modify"}, m.events());
    EXPECT_EQ(hardened() ? 1U : 0U, fmon.lost.path);
    EXPECT_STREQ(hardened() ? f.c_str() : "", fmon.lost_path);
    EXPECT_EQ(marks, m.fanotify.marks.size()) << "nobody's mark goes for it";
}

TEST_F(Reading, FileThatIsRenamedWhileItIsLookedForIsFound)
{
    std::string f = tree.file("a/f");
    Fault meanwhile("lstat", 1, ENOENT, 2);
    m.feed(1, fanotify_record(FMON_MODIFY, open(f.c_str(), O_RDONLY), 1));
    EXPECT_EQ(Strings{f + ":modify"}, m.events());
    EXPECT_EQ(0U, fmon.lost.path);
}

/* A name that was removed while the file has others is told as the kernel does. */
TEST_F(Reading, RemovedNameOfALinkedFile)
{
    std::string f = tree.file("a/f"), other = tree.path("other");
    ASSERT_EQ(0, link(f.c_str(), other.c_str()));
    int fd = open(f.c_str(), O_RDONLY), again = dup(fd);
    ASSERT_EQ(0, unlink(f.c_str()));
    m.feed(1, fanotify_record(FMON_MODIFY, fd, 1));
    EXPECT_EQ(Strings{f + " (deleted):modify"}, m.events());
    EXPECT_EQ(0U, fmon.lost.path);
    Fault unknown("open", 1, EMFILE);
    m.feed(1, fanotify_record(FMON_MODIFY, again, 1));
    EXPECT_EQ(hardened(), unknown.hit()) << "whether it was in this namespace";
    EXPECT_EQ(hardened() ? 1U : 0U, fmon.lost.path);
}

TEST_F(Reading, WriteThroughAnotherNameOfAWatchedFile)
{
    std::string watched = tree.file("w/f"), other = tree.path("other");
    ASSERT_EQ(0, link(watched.c_str(), other.c_str()));
    ASSERT_EQ(0, m.add(watched, FMON_MODIFY, FMON_FILE));
    m.feed(1, fanotify_record(FMON_MODIFY, open(other.c_str(), O_RDONLY), 1));
    EXPECT_EQ(hardened() ? Strings{watched + ":modify"} : Strings{}, m.events());
    m.feed(2, fanotify_record(FMON_MODIFY, open(other.c_str(), O_RDONLY), 1));
    EXPECT_EQ(Strings{}, m.events()) << "marks on mounts are for names";
}

}  // namespace
