/*
 * What the code takes for granted about the kernel, asked of the kernel itself. When one of these fails on a new
 * kernel, the code that relies on it is next.
 */
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>

#include "harness.h"

using namespace systest;
using testlib::can_fanotify;
using testlib::TempTree;

namespace
{

bool readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) > 0;
}

/* ---- inotify ---- */

struct Record {
    int wd;
    uint32_t mask;
    std::string name;
    uint32_t len;
};

bool operator==(const Record &a, const Record &b) { return a.wd == b.wd && a.mask == b.mask && a.name == b.name; }
std::ostream &operator<<(std::ostream &out, const Record &r)
{
    return out << "{wd " << r.wd << ", mask 0x" << std::hex << r.mask << std::dec << ", '" << r.name << "'}";
}

class Inotify : public testing::Test
{
protected:
    Inotify() : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
    ~Inotify() override { close(fd_); }

    int watch(const std::string &path, uint32_t mask)
    {
        int wd = inotify_add_watch(fd_, path.c_str(), mask | IN_DONT_FOLLOW);
        EXPECT_GT(wd, 0) << path << ": " << strerror(errno);
        return wd;
    }

    std::vector<Record> records()
    {
        std::vector<Record> out;
        char buffer[65536];
        ssize_t n = read(fd_, buffer, sizeof buffer);
        for (ssize_t at = 0; at < n;) {
            struct inotify_event event;
            memcpy(&event, buffer + at, sizeof event);
            const char *name = buffer + at + sizeof event;
            out.push_back({event.wd, event.mask, event.len ? name : "", event.len});
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
        return out;
    }

    using Records = std::vector<Record>;
    TempTree tree_;
    int fd_;
};

constexpr uint32_t kStructure = IN_CREATE | IN_DELETE | IN_MOVE | IN_DELETE_SELF | IN_MOVE_SELF;

/* A directory's own move is reported as if it were a file's. */
TEST_F(Inotify, MoveSelfOfADirectoryCarriesNoDirectoryBit)
{
    int wd = watch(tree_.dir("d"), IN_MOVE_SELF);
    move(tree_.path("d"), tree_.path("e"));
    EXPECT_EQ((Records{{wd, IN_MOVE_SELF, "", 0}}), records());
}

TEST_F(Inotify, RenameComesAsFromToAndSelf)
{
    int root = watch(tree_.root(), kStructure);
    int wd = watch(tree_.dir("d"), kStructure);
    records();
    move(tree_.path("d"), tree_.path("e"));
    EXPECT_EQ((Records{{root, IN_MOVED_FROM | IN_ISDIR, "d", 0},
                       {root, IN_MOVED_TO | IN_ISDIR, "e", 0},
                       {wd, IN_MOVE_SELF, "", 0}}),
              records());
}

TEST_F(Inotify, HardLinksShareAWatchDescriptor)
{
    int wd = watch(tree_.file("a"), IN_ATTRIB);
    hard_link(tree_.path("a"), tree_.path("b"));
    EXPECT_EQ(watch(tree_.path("b"), IN_ATTRIB), wd);
}

/* A link is a creation in the directory and touches the watched file's attributes only. */
TEST_F(Inotify, HardLinkIsACreation)
{
    int root = watch(tree_.root(), IN_ALL_EVENTS);
    tree_.file("a");
    records();
    hard_link(tree_.path("a"), tree_.path("b"));
    EXPECT_EQ((Records{{root, IN_CREATE, "b", 0}}), records());
}

TEST_F(Inotify, AddingAgainReplacesTheMask)
{
    int wd = watch(tree_.root(), IN_CREATE);
    EXPECT_EQ(watch(tree_.root(), IN_DELETE), wd);
    tree_.file("a");
    remove_file(tree_.path("a"));
    EXPECT_EQ((Records{{wd, IN_DELETE, "a", 0}}), records());
}

TEST_F(Inotify, RemovingQueuesIgnored)
{
    int wd = watch(tree_.root(), IN_CREATE);
    EXPECT_EQ(0, inotify_rm_watch(fd_, wd));
    EXPECT_EQ((Records{{wd, IN_IGNORED, "", 0}}), records());
}

/* A number comes back only after the counter has gone round, so a record under way is never taken for a new watch's. */
TEST_F(Inotify, WatchDescriptorsAreNotReusedAtOnce)
{
    int first = watch(tree_.root(), IN_CREATE);
    EXPECT_EQ(0, inotify_rm_watch(fd_, first));
    EXPECT_GT(watch(tree_.root(), IN_CREATE), first);
}

TEST_F(Inotify, RecordsOfARemovedWatchStayQueued)
{
    int wd = watch(tree_.root(), IN_CREATE);
    tree_.file("a");
    EXPECT_EQ(0, inotify_rm_watch(fd_, wd));
    EXPECT_EQ((Records{{wd, IN_CREATE, "a", 0}, {wd, IN_IGNORED, "", 0}}), records());
}

TEST_F(Inotify, RemovedDirectoryIsDeletedThenIgnored)
{
    int root = watch(tree_.root(), kStructure);
    int wd = watch(tree_.dir("d"), kStructure);
    records();
    remove_dir(tree_.path("d"));
    Records got = records();
    EXPECT_EQ(3U, got.size());
    EXPECT_EQ(1, std::count(got.begin(), got.end(), Record{root, IN_DELETE | IN_ISDIR, "d", 0}));
    std::erase_if(got, [&](const Record &record) { return record.wd == root; }); /* before or after, by version */
    EXPECT_EQ((Records{{wd, IN_DELETE_SELF, "", 0}, {wd, IN_IGNORED, "", 0}}), got);
}

TEST_F(Inotify, RecordsAboutTheWatchedOneHaveNoName)
{
    watch(tree_.root(), IN_ATTRIB);
    change_mode(tree_.root(), 0711);
    Records got = records();
    ASSERT_EQ(1U, got.size());
    EXPECT_EQ(0U, got[0].len);
}

TEST_F(Inotify, NamesArePaddedToSixteen)
{
    watch(tree_.root(), IN_CREATE);
    for (int len : {1, 15, 16, 255})
        tree_.file(std::string(static_cast<size_t>(len), 'n'));
    for (const Record &record : records()) {
        EXPECT_EQ(0U, record.len % 16);
        EXPECT_GT(record.len, record.name.size());
    }
}

/* A buffer that the next record does not fit into gets what fits; one too small for the first is refused. */
TEST_F(Inotify, ReadsWholeRecordsOnly)
{
    watch(tree_.root(), IN_CREATE);
    tree_.file("a"), tree_.file("b");
    char buffer[64];
    EXPECT_EQ(-1, read(fd_, buffer, 31));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(32, read(fd_, buffer, 63));
    EXPECT_EQ(32, read(fd_, buffer, 63));
}

TEST_F(Inotify, LinksAreNotFollowed)
{
    tree_.dir("d");
    tree_.link("l", "d");
    int target = watch(tree_.path("d"), IN_ATTRIB);
    EXPECT_NE(watch(tree_.path("l"), IN_ATTRIB), target);
}

TEST_F(Inotify, OverflowIsOneRecordWithoutAWatch)
{
    std::ifstream in("/proc/sys/fs/inotify/max_queued_events");
    int limit = 0;
    in >> limit;
    NEED(limit > 0 && limit <= 200000, "the queue is too long to be filled here");
    watch(tree_.root(), IN_OPEN | IN_CLOSE);
    std::string a = tree_.file("a"), b = tree_.file("b");
    for (int i = 0; i < limit / 4 + 10; i++) /* equal neighbours merge, so two files in turn */
        close(open(a.c_str(), O_RDONLY)), close(open(b.c_str(), O_RDONLY));
    bool overflow = false;
    for (Records got = records(); !got.empty(); got = records())
        for (const Record &record : got)
            if (record.mask & IN_Q_OVERFLOW) {
                EXPECT_EQ(-1, record.wd);
                EXPECT_FALSE(overflow);
                overflow = true;
            }
    EXPECT_TRUE(overflow);
}

TEST(Descriptors, TheLowestFreeNumberIsTakenEvenZero)
{
    int saved = dup(0);
    close(0);
    int fd = inotify_init();
    EXPECT_EQ(0, fd);
    dup2(saved, 0);
    close(saved);
}

/* ---- fanotify ---- */

class Fanotify : public testing::Test
{
protected:
    void SetUp() override
    {
        NEED(can_fanotify(), "fanotify needs root");
        fd_ = fanotify_init(FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_CLOEXEC | O_LARGEFILE);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override
    {
        if (fd_ >= 0)
            close(fd_);
    }

    int mark(unsigned flags, uint64_t mask, const std::string &path)
    {
        return fanotify_mark(fd_, flags | FAN_MARK_DONT_FOLLOW, mask, AT_FDCWD, path.c_str());
    }
    void mark_dir(const std::string &path, uint64_t mask)
    {
        EXPECT_EQ(0, mark(FAN_MARK_ADD | FAN_MARK_ONLYDIR, mask | FAN_ONDIR | FAN_EVENT_ON_CHILD, path));
    }

    /* path -> kinds, closing the descriptors */
    std::map<std::string, uint64_t> events()
    {
        std::map<std::string, uint64_t> out;
        char buffer[65536];
        ssize_t n = read(fd_, buffer, sizeof buffer);
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(struct fanotify_event_metadata)) <= n;) {
            struct fanotify_event_metadata event;
            memcpy(&event, buffer + at, sizeof event);
            at += event.event_len;
            last_ = event;
            char path[4096] = "";
            std::string link = "/proc/self/fd/" + std::to_string(event.fd);
            if (readlink(link.c_str(), path, sizeof path - 1) > 0)
                out[path] |= event.mask;
            close(event.fd);
        }
        return out;
    }

    using Events = std::map<std::string, uint64_t>;
    TempTree tree_;
    int fd_ = -1;
    struct fanotify_event_metadata last_ = {};
};

TEST_F(Fanotify, RecordsAreVersionThreeAndTwentyFourBytes)
{
    mark_dir(tree_.root(), FAN_OPEN);
    make_file(tree_.path("a"));
    EXPECT_EQ((Events{{tree_.path("a"), FAN_OPEN}}), events());
    EXPECT_EQ(sizeof last_, 24U);
    EXPECT_EQ(3, last_.vers);
    EXPECT_EQ(24U, last_.event_len);
    EXPECT_EQ(24U, last_.metadata_len);
    EXPECT_EQ(last_.pid, getpid());
}

/* The kinds have inotify's values, so masks go through unchanged. */
TEST_F(Fanotify, KindsHaveInotifysValues)
{
    EXPECT_EQ(FAN_ACCESS, IN_ACCESS);
    EXPECT_EQ(FAN_MODIFY, IN_MODIFY);
    EXPECT_EQ(FAN_CLOSE_WRITE, IN_CLOSE_WRITE);
    EXPECT_EQ(FAN_CLOSE_NOWRITE, IN_CLOSE_NOWRITE);
    EXPECT_EQ(FAN_OPEN, IN_OPEN);
    EXPECT_EQ(FAN_Q_OVERFLOW, IN_Q_OVERFLOW);
    EXPECT_EQ(static_cast<uint64_t>(FAN_ONDIR), static_cast<uint64_t>(IN_ISDIR));
}

TEST_F(Fanotify, ADirectorysMarkCoversItsChildrenAndNoMore)
{
    tree_.dir("d/e");
    mark_dir(tree_.path("d"), FAN_CLOSE_WRITE);
    make_file(tree_.path("d/a"));
    make_file(tree_.path("d/e/b"));
    EXPECT_EQ((Events{{tree_.path("d/a"), FAN_CLOSE_WRITE}}), events());
}

/* Unlike inotify's: marks of one object add up. */
TEST_F(Fanotify, MarkingAgainAddsToTheMask)
{
    mark_dir(tree_.root(), FAN_CLOSE_WRITE);
    mark_dir(tree_.root(), FAN_MODIFY);
    make_file(tree_.path("a"));
    EXPECT_EQ((Events{{tree_.path("a"), FAN_CLOSE_WRITE | FAN_MODIFY}}), events());
}

TEST_F(Fanotify, RemovingTakesTheseKindsOnly)
{
    mark_dir(tree_.root(), FAN_CLOSE_WRITE | FAN_MODIFY);
    EXPECT_EQ(0, mark(FAN_MARK_REMOVE | FAN_MARK_ONLYDIR, FAN_MODIFY, tree_.root()));
    make_file(tree_.path("a"));
    EXPECT_EQ((Events{{tree_.path("a"), FAN_CLOSE_WRITE}}), events());
}

TEST_F(Fanotify, RemovingFromTheUnmarkedFailsWithEnoent)
{
    EXPECT_EQ(-1, mark(FAN_MARK_REMOVE | FAN_MARK_MOUNT, FAN_CLOSE_WRITE, tree_.root()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, mark(FAN_MARK_REMOVE | FAN_MARK_ONLYDIR, FAN_CLOSE_WRITE, tree_.root()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Fanotify, MissingPathsFailWithEnoent)
{
    EXPECT_EQ(-1, mark(FAN_MARK_ADD, FAN_CLOSE_WRITE, tree_.path("missing")));
    EXPECT_EQ(ENOENT, errno);
}

/* A mark is on the directory, not on its name: it goes along when the directory moves away. */
TEST_F(Fanotify, MarksMoveWithTheirDirectory)
{
    mark_dir(tree_.dir("d"), FAN_CLOSE_WRITE);
    move(tree_.path("d"), tree_.path("e"));
    make_file(tree_.path("e/a"));
    EXPECT_EQ((Events{{tree_.path("e/a"), FAN_CLOSE_WRITE}}), events());
}

TEST_F(Fanotify, AnUnlinkedFilesRecordTellsByItsLinkCount)
{
    mark_dir(tree_.root(), FAN_CLOSE_WRITE);
    make_file(tree_.path("a"));
    remove_file(tree_.path("a"));
    struct fanotify_event_metadata event;
    ASSERT_EQ(24, read(fd_, &event, sizeof event));
    struct stat st;
    EXPECT_EQ(0, fstat(event.fd, &st));
    EXPECT_EQ(0U, st.st_nlink);
    close(event.fd);
}

/* A record is off the queue before its file is opened: one that cannot be opened ends the read, without a word where
 * others came before it. Read one by one, each tells. */
TEST_F(Fanotify, ReadsEndAtAFileThatCannotBeOpened)
{
    TearDown();
    fd_ = fanotify_init(FAN_CLOEXEC, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_LARGEFILE);
    for (const char *name : {"a", "b", "c"})
        make_file(tree_.path(name));
    mark_dir(tree_.root(), FAN_MODIFY);
    append_file(tree_.path("a"));
    const int leased = open(tree_.path("b").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, fcntl(leased, F_SETLEASE, F_WRLCK));
    signal(SIGIO, SIG_IGN);
    EXPECT_EQ(1, write(leased, "x", 1));
    append_file(tree_.path("c"));
    EXPECT_EQ((Events{{tree_.path("a"), FAN_MODIFY}}), events());
    EXPECT_EQ((Events{{tree_.path("c"), FAN_MODIFY}}), events());
    EXPECT_EQ(1, write(leased, "x", 1));
    char buffer[24];
    EXPECT_EQ(-1, read(fd_, buffer, sizeof buffer));
    EXPECT_EQ(EWOULDBLOCK, errno);
    EXPECT_FALSE(readable(fd_));
    close(leased);
}

/* Reading one's own records opens files without being reported: no loop. */
TEST_F(Fanotify, RecordDescriptorsRaiseNoRecords)
{
    mark_dir(tree_.root(), FAN_ALL_EVENTS & 0x3b);
    make_file(tree_.path("a"));
    struct fanotify_event_metadata event[16];
    ssize_t n = read(fd_, event, sizeof event);
    ASSERT_GE(n, 24);
    for (ssize_t i = 0; i < n / 24; i++) {
        char c;
        EXPECT_EQ(1, read(event[i].fd, &c, 1));
        close(event[i].fd);
    }
    EXPECT_FALSE(readable(fd_));
}

TEST_F(Fanotify, RecordDescriptorsTellTheirMount)
{
    mark_dir(tree_.root(), FAN_CLOSE_WRITE);
    make_file(tree_.path("a"));
    struct fanotify_event_metadata event;
    ASSERT_EQ(24, read(fd_, &event, sizeof event));
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(event.fd));
    std::string key, value;
    while (in >> key >> value && key != "mnt_id:") {
    }
    EXPECT_EQ("mnt_id:", key);
    EXPECT_LE(value.size(), 10U);
    close(event.fd);
}

TEST_F(Fanotify, ListingADirectoryIsOpenAccessClose)
{
    tree_.dir("d");
    mark_dir(tree_.root(), 0x3b);
    DIR *dir = opendir(tree_.path("d").c_str());
    EXPECT_NE(nullptr, readdir(dir));
    closedir(dir);
    EXPECT_EQ(uint64_t{FAN_OPEN | FAN_ACCESS | FAN_CLOSE_NOWRITE}, events()[tree_.path("d")] & 0xfff);
}

}  // namespace
