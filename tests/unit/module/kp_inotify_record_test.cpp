/* Records of the inotify probe: which directory they are about, what is reported, what the tree makes of them. */
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <random>

#include "event.h"
#include "linux/fmon_linux.h"
#include "linux/probe/clt_inotify.h"
#include "paper_probes.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

using Strings = std::vector<std::string>;

class KpInotifyRecord : public ::testing::Test
{
protected:
    KpInotifyRecord()
    {
        EXPECT_EQ(0, monitor_.add(tree_.root(), FMON_ALL_EVENTS, FMON_DIR | FMON_RECURSIVE, 10, 100));
        wd_ = wd_of(tree_.root());
        EXPECT_GT(wd_, 0);
        /* Any kernel takes a plain name of 128 bytes; older ones 16. */
        set_mode(3);
        log_clear();
    }
    ~KpInotifyRecord() override { kp_inotify_destroy(); }

    void set_mode(int mode)
    {
        paper::Installed installed; /* for this call only: the monitor itself does without */
        paper::library.os.major = mode < 2 ? 2 : 6;
        paper::library.os.minor = 6;
        paper::library.os.patch = mode == 0 ? 1 : 40;
        get_inotify_event();
        EXPECT_EQ(mode, clt_inotify_mode());
    }
    static uint64_t inode(const std::string &path)
    {
        struct stat st = {};
        EXPECT_EQ(0, stat(path.c_str(), &st));
        return st.st_ino;
    }
    static std::string record(uint64_t ino, int32_t wd, uint32_t mask, const std::string &name, size_t room = 128)
    {
        std::string out(16 + room, '\0');
        memcpy(&out[0], &ino, 8);
        memcpy(&out[8], &wd, 4);
        memcpy(&out[12], &mask, 4);
        out.replace(16, std::min(name.size(), room), name, 0, room);
        return out;
    }
    /* Hands on a block of exactly that size, at an address that fits nothing. */
    static void take(const std::string &bytes, uint32_t pid = 77)
    {
        std::unique_ptr<char[]> block(new char[bytes.size() + 1]);
        memcpy(block.get() + 1, bytes.data(), bytes.size());
        read_kp_inotify_event(pid, block.get() + 1, static_cast<uint32_t>(bytes.size()));
    }
    /* A directory that was made, and is told of. */
    void make_and_add(const std::string &name)
    {
        tree_.dir(name);
        take(IN_CREATE | IN_ISDIR, name);
    }
    void take(uint32_t mask, const std::string &name) { take(record(inode(tree_.root()), wd_, mask, name)); }

    TempTree tree_;
    LinuxMonitor monitor_;
    int wd_;
};

TEST_F(KpInotifyRecord, NamesTheChildAndTheProcess)
{
    take(IN_CREATE, "f");
    struct event *ev = fmon_read_event(monitor_.id);
    ASSERT_NE(nullptr, ev);
    EXPECT_EQ(tree_.path("f"), ev->path);
    EXPECT_EQ(FMON_CREATE, ev->mask);
    EXPECT_EQ(77u, ev->pid);
    fmon_free_event(ev);
    EXPECT_TRUE(
        logged(4, "pid:77,inode:" + std::to_string(inode(tree_.root())) + ",wd:" + std::to_string(wd_) + ",mask:100"));
    EXPECT_TRUE(logged(4, "inotify event: " + tree_.root() + " [f] (create)\n"));
}

TEST_F(KpInotifyRecord, WithoutANameItIsTheDirectory)
{
    take(IN_ATTRIB | IN_ISDIR, "");
    EXPECT_EQ((Strings{tree_.root() + ":attrib"}), monitor_.events());
    EXPECT_TRUE(logged(4, "inotify event: " + tree_.root() + " [] (attrib)\n"));
}

TEST_F(KpInotifyRecord, OnlyEventKindsAreReported)
{
    take(IN_UNMOUNT, "f");
    take(IN_ISDIR, "f");
    EXPECT_EQ(Strings{}, monitor_.events());
    take(IN_MODIFY | IN_UNMOUNT, "f");
    EXPECT_EQ((Strings{tree_.path("f") + ":modify"}), monitor_.events());
}

/* ---- names ---- */

TEST_F(KpInotifyRecord, LongNamesEndWithTheirRoom)
{
    take(IN_CREATE, std::string(127, 'n'));
    EXPECT_EQ((Strings{tree_.path(std::string(127, 'n')) + ":create"}), monitor_.events());
    take(IN_CREATE, std::string(200, 'n'));
    EXPECT_EQ((Strings{tree_.path(std::string(127, 'n')) + ":create"}), monitor_.events()) << "127 of 128 bytes";
}

TEST_F(KpInotifyRecord, OldKernelsHaveShortNames)
{
    for (int mode : {0, 1}) {
        set_mode(mode);
        take(record(inode(tree_.root()), wd_, IN_CREATE, std::string(20, 'n'), 16));
        EXPECT_EQ((Strings{tree_.path(std::string(15, 'n')) + ":create"}), monitor_.events()) << mode;
    }
}

/* ---- which directory ---- */

TEST_F(KpInotifyRecord, UnknownDescriptorIsCounted)
{
    const uint64_t before = fmlnx.unknown_wd_count;
    fmlnx.read_status = 0;
    take(record(1, wd_ + 1000, IN_CREATE, "a-name-of-some-length"));
    EXPECT_EQ(before + 1, fmlnx.unknown_wd_count);
    EXPECT_EQ(uint32_t{READ_UNKNOWN_WD}, fmlnx.read_status);
    EXPECT_TRUE(logged(4, "can't find dentry, filename:a-name-of-some-\n")) << log_text();
    EXPECT_EQ(Strings{}, monitor_.events());
}

TEST_F(KpInotifyRecord, OnlyAnEntryOfAnUnknownDirectoryIsALoss)
{
    const uint64_t before = fmon.lost.unknown_wd;
    for (uint32_t mask : {uint32_t{IN_IGNORED}, uint32_t{IN_DELETE_SELF}, uint32_t{IN_ATTRIB | IN_ISDIR}})
        take(record(1, wd_ + 1000, mask, ""));
    EXPECT_EQ(before, fmon.lost.unknown_wd);
    take(record(1, wd_ + 1000, IN_CREATE, "f"));
    EXPECT_EQ(before + 1, fmon.lost.unknown_wd);
}

TEST_F(KpInotifyRecord, PoisonedDescriptorIsDropped)
{
    const uint64_t before = fmlnx.unknown_wd_count;
    ASSERT_EQ(0, seq_set(&fmlnx.seq, 9000, SEQ_POISON));
    take(record(1, 9000, IN_CREATE, "f"));
    EXPECT_TRUE(logged(2, "this dentry is put in poison\n"));
    EXPECT_EQ(before, fmlnx.unknown_wd_count);
    /* Kept, unlike for the inotify descriptor: also the record that says the watch is gone leaves the entry. */
    take(record(1, 9000, IN_IGNORED, ""));
    EXPECT_EQ(uint64_t{SEQ_POISON}, seq_get(&fmlnx.seq, 9000));
    seq_del(&fmlnx.seq, 9000);
}

/* Another process's descriptor of that number, or another directory that got it. */
TEST_F(KpInotifyRecord, InodeMustBeTheDirectorys)
{
    const uint64_t own = inode(tree_.root());
    for (uint64_t ino : {own + 1, own ^ (uint64_t{1} << 63), uint64_t{0}}) {
        log_clear();
        take(record(ino, wd_, IN_CREATE, "f"));
        EXPECT_EQ(Strings{}, monitor_.events());
        EXPECT_TRUE(
            logged(4, "wd:" + std::to_string(wd_) + ",i_ino:" + std::to_string(static_cast<unsigned long>(own))));
        take(record(ino, wd_, IN_IGNORED, ""));
        EXPECT_EQ(wd_, wd_of(tree_.root())) << "and takes nothing away";
    }
}

TEST_F(KpInotifyRecord, WatchThatTheKernelDroppedIsForgotten)
{
    make_and_add("d");
    const std::string d = tree_.path("d");
    const int wd = wd_of(d);
    ASSERT_GT(wd, 0);
    take(record(inode(d), wd, IN_IGNORED, ""));
    EXPECT_EQ(0u, seq_get(&fmlnx.seq, wd));
    EXPECT_FALSE(cached(d));
}

TEST_F(KpInotifyRecord, NothingElseIsTakenFromSuchARecord)
{
    make_and_add("d");
    monitor_.events();
    take(record(inode(tree_.path("d")), wd_of(tree_.path("d")), IN_IGNORED | IN_CREATE | IN_ISDIR, "x"));
    EXPECT_EQ(Strings{}, monitor_.events());
}

/* ---- the tree ---- */

TEST_F(KpInotifyRecord, NewDirectoryIsReportedAndWatched)
{
    make_and_add("d");
    EXPECT_EQ((Strings{tree_.path("d") + ":create"}), monitor_.events());
    EXPECT_GT(wd_of(tree_.path("d")), 0);
}

TEST_F(KpInotifyRecord, NewFileIsNotWatched)
{
    tree_.file("f");
    take(IN_CREATE, "f");
    EXPECT_FALSE(cached(tree_.path("f")));
}

TEST_F(KpInotifyRecord, MovedDirectoriesLeaveAndEnter)
{
    make_and_add("d");
    monitor_.events();
    ASSERT_EQ(0, rename(tree_.path("d").c_str(), tree_.path("e").c_str()));
    take(IN_MOVED_FROM | IN_ISDIR, "d");
    EXPECT_FALSE(cached(tree_.path("d")));
    take(IN_MOVED_TO | IN_ISDIR, "e");
    EXPECT_GT(wd_of(tree_.path("e")), 0);
    EXPECT_EQ((Strings{tree_.path("d") + ":moved_from", tree_.path("e") + ":moved_to"}), monitor_.events());
}

TEST_F(KpInotifyRecord, WithoutANameNoChildMoves)
{
    take(IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_ISDIR, "");
    EXPECT_EQ(0, log_count_containing("inotify moved"));
    EXPECT_EQ(0, log_count_containing("No sub dentry"));
}

TEST_F(KpInotifyRecord, DirectoryThatMovedItselfLeaves)
{
    make_and_add("d");
    const std::string d = tree_.path("d");
    take(record(inode(d), wd_of(d), IN_MOVE_SELF, ""));
    EXPECT_EQ(testlib::hardened(), cached(d)) << "hardened, one that is in its place has not moved";
}

/* Several bits in one record: each handler in turn, none on a dentry that an earlier one freed. */
TEST_F(KpInotifyRecord, SeveralKindsInOneRecord)
{
    make_and_add("d");
    const std::string d = tree_.path("d");
    take(record(inode(d), wd_of(d), IN_MOVE_SELF | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_ISDIR, "x"));
    EXPECT_EQ(testlib::hardened(), cached(d)) << "hardened, one that is in its place has not moved";
}

/* ---- records that are none ---- */

TEST_F(KpInotifyRecord, ShortRecordsAreDroppedUntouched)
{
    const std::string whole = record(inode(tree_.root()), wd_, IN_CREATE, "f");
    for (size_t size : {0u, 8u, 16u, 31u, 32u, 143u}) {
        take(whole.substr(0, size));
        EXPECT_TRUE(log_lines().empty()) << size;
    }
    set_mode(0);
    log_clear();
    take(whole.substr(0, 31));
    EXPECT_TRUE(log_lines().empty());
    take(whole.substr(0, 32));
    EXPECT_EQ((Strings{tree_.path("f") + ":create"}), monitor_.events());
}

TEST_F(KpInotifyRecord, GarbageStaysInsideTheRecord)
{
    take(std::string(144, '\xff'));
    take(std::string(300, '\xff'));
    std::mt19937 random(11);
    for (int round = 0; round < 20000; round++) {
        std::string bytes = record(inode(tree_.root()), wd_, 0, "");
        for (size_t i = round % 3 ? 12 : 0; i < bytes.size(); i++)
            bytes[i] = random() % 8 == 0 ? '\0' : static_cast<char>(random());
        if (round % 3)
            bytes[13] &= 0x7f, bytes[13] &= ~0x08; /* not ignored, not moved itself: the directory stays */
        take(bytes);
        for (const std::string &event : monitor_.events())
            EXPECT_EQ(0u, event.find(tree_.root()));
    }
    EXPECT_EQ(wd_, wd_of(tree_.root()));
}

}  // namespace
