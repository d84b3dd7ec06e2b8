/*
 * What the engine of file-system-wide events takes for granted about the kernel. When one of these fails on a new
 * kernel, the code that relies on it is next.
 */
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fs_group.h"
#include "fs_model.h"
#include "linux/fs/fs_record.h"
#include "orx_fmon.h"

using namespace systest;

namespace
{

constexpr uint64_t kEntries = FMON_CREATE | FMON_DELETE | kRename | kOnDir;

struct Line {
    uint64_t mask;
    std::string entry, to;
    bool has_object;
};

bool operator==(const Line &a, const Line &b)
{
    return a.mask == b.mask && a.entry == b.entry && a.to == b.to && a.has_object == b.has_object;
}

std::ostream &operator<<(std::ostream &out, const Line &line)
{
    return out << "{0x" << std::hex << line.mask << std::dec << " '" << line.entry << "' '" << line.to << "' "
               << line.has_object << "}";
}

class FsFacts : public testing::TestWithParam<const char *>
{
protected:
    FsFacts() : fs_(GetParam()) {}

    void SetUp() override
    {
        NEED(can_hear_file_systems(), "whole file systems cannot be heard");
        NEED(fs_.mounted(), std::string("cannot mount ") + GetParam());
    }

    std::string at(const std::string &below) const { return fs_.path(below); }

    static std::string name_of(const struct fs_entry &entry)
    {
        if (!entry.dir.len)
            return "";
        return entry.name_len ? std::string(entry.name, entry.name_len) : ".";
    }

    /* All records that wait; an entry without a name is ".". */
    static std::vector<Line> read_all(int fd)
    {
        std::vector<Line> out;
        std::vector<char> buffer(1 << 20);
        ssize_t got;
        while ((got = read(fd, buffer.data(), buffer.size())) > 0) {
            struct fs_record record;
            const auto size = static_cast<size_t>(got);
            for (size_t pos = 0; fs_record_at(buffer.data(), size, pos, &record) == FS_CUT_RECORD; pos += record.size)
                out.push_back({record.mask, name_of(record.entry), name_of(record.to), record.object.len != 0});
        }
        EXPECT_EQ(EAGAIN, errno);
        return out;
    }

    OwnFileSystem fs_;
};

using Lines = std::vector<Line>;

/* The reason for doubts: the reader ends at x, and the directory is at y. */
TEST_P(FsFacts, ARenameIsJoinedToAnEqualOneThatWaits)
{
    mkdir(at("x").c_str(), 0755);
    FsGroup group(at(""), kEntries);
    Worker one;
    for (int i = 0; i < 3; i++)
        one.run('m', at(i % 2 ? "y" : "x"), at(i % 2 ? "x" : "y"));
    EXPECT_EQ((Lines{{kRename | kOnDir, "x", "y", true}, {kRename | kOnDir, "y", "x", true}}), read_all(group.fd));
    one.run('m', at("y"), at("x"));
    one.run('m', at("x"), at("y"));
    EXPECT_EQ(2u, read_all(group.fd).size()) << "nothing is joined to what was read";
}

/* So that a group for mounts would say nothing of the order that the polled table does not. */
TEST(FsFactsOfMounts, AreNotReportedByTheGroupThatReportsNames)
{
    NEED(can_hear_file_systems(), "whole file systems cannot be heard");
    constexpr unsigned kReportMounts = 0x4000, kNames = FAN_REPORT_DFID_NAME;
    const int mounts = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | kReportMounts, O_RDONLY);
    if (mounts < 0)
        GTEST_SKIP() << "before Linux 6.14 mounts are not reported at all";
    close(mounts);
    EXPECT_EQ(-1, fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | kReportMounts | kNames, O_RDONLY));
    EXPECT_EQ(EINVAL, errno);
}

/* Without that, only a further read would say that nothing waits. */
TEST_P(FsFacts, AReadThatLeavesRoomHasEmptiedTheQueue)
{
    FsGroup group(at(""), kEntries);
    Worker one;
    for (int i = 0; i < 2000; i++)
        one.run('f', at("f" + std::to_string(i)));
    std::vector<char> buffer(1 << 20);
    size_t records = 0;
    struct fs_record record;
    const ssize_t got = read(group.fd, buffer.data(), buffer.size());
    ASSERT_GT(got, 0);
    for (size_t pos = 0; fs_record_at(buffer.data(), static_cast<size_t>(got), pos, &record) == FS_CUT_RECORD;
         pos += record.size)
        records++;
    EXPECT_EQ(2000u, records);
    EXPECT_EQ(-1, read(group.fd, buffer.data(), buffer.size()));
    EXPECT_EQ(EAGAIN, errno);
}

TEST_P(FsFacts, OtherProcessesAreNotJoined)
{
    FsGroup group(at(""), kEntries);
    Worker one, two;
    one.run('f', at("f"));
    two.run('u', at("f"));
    EXPECT_EQ((Lines{{FMON_CREATE, "f", "", true}, {FMON_DELETE, "f", "", true}}), read_all(group.fd));
    one.run('f', at("f"));
    one.run('u', at("f"));
    EXPECT_EQ((Lines{{FMON_CREATE | FMON_DELETE, "f", "", true}}), read_all(group.fd));
}

/* The joined record keeps the place of the earlier one. */
TEST_P(FsFacts, MadeAndRemovedComesBeforeWhatHappenedInside)
{
    FsGroup group(at(""), kEntries);
    Worker one;
    one.run('d', at("x"));
    one.run('f', at("x/f"));
    one.run('m', at("x"), at("y"));
    one.run('u', at("y/f"));
    one.run('m', at("y"), at("x"));
    one.run('r', at("x"));
    EXPECT_EQ((Lines{{FMON_CREATE | FMON_DELETE | kOnDir, "x", "", true},
                     {FMON_CREATE | FMON_DELETE, "f", "", true},
                     {kRename | kOnDir, "x", "y", true},
                     {kRename | kOnDir, "y", "x", true}}),
              read_all(group.fd));
}

TEST_P(FsFacts, AnExchangeIsTwoRenames)
{
    mkdir(at("x").c_str(), 0755);
    mkdir(at("y").c_str(), 0755);
    FsGroup group(at(""), kEntries);
    Worker one;
    one.run('x', at("x"), at("y"));
    EXPECT_EQ((Lines{{kRename | kOnDir, "x", "y", true}, {kRename | kOnDir, "y", "x", true}}), read_all(group.fd));
}

TEST_P(FsFacts, AnOverwrittenDirectoryHasNoRecordOfItsOwn)
{
    mkdir(at("x").c_str(), 0755);
    mkdir(at("y").c_str(), 0755);
    FsGroup group(at(""), kEntries);
    Worker one;
    one.run('m', at("x"), at("y"));
    EXPECT_EQ((Lines{{kRename | kOnDir, "x", "y", true}}), read_all(group.fd));
}

TEST_P(FsFacts, ADirectorysOwnEventsNameItAsDot)
{
    mkdir(at("x").c_str(), 0755);
    FsGroup group(at(""), FMON_ATTRIB | FMON_DELETE_SELF | FMON_MOVE_SELF | kOnDir);
    chmod(at("x").c_str(), 0700);
    EXPECT_EQ((Lines{{FMON_ATTRIB | kOnDir, ".", "", false}}), read_all(group.fd));
    rename(at("x").c_str(), at("y").c_str());
    EXPECT_EQ((Lines{{FMON_MOVE_SELF | kOnDir, ".", "", false}}), read_all(group.fd));
    rmdir(at("y").c_str());
    EXPECT_EQ((Lines{{FMON_DELETE_SELF | kOnDir, ".", "", false}}), read_all(group.fd));
}

TEST_P(FsFacts, HandlesOfRecordsAreThoseOfPaths)
{
    mkdir(at("x").c_str(), 0755);
    FsGroup group(at(""), kEntries);
    const int fd = open(at("x").c_str(), O_PATH | O_CLOEXEC);
    struct fs_stored_key key;
    ASSERT_EQ(0, fs_ask_key(fd, &key, nullptr, nullptr));
    close(fd);
    Worker one;
    one.run('f', at("x/f"));
    char buffer[4096];
    const ssize_t got = read(group.fd, buffer, sizeof(buffer));
    struct fs_record record;
    ASSERT_EQ(FS_CUT_RECORD, fs_record_at(buffer, static_cast<size_t>(got), 0, &record));
    EXPECT_TRUE(fs_key_equal(&key.key, &record.entry.dir));
}

/* Reading a directory takes its lock also where nothing fits: what fs_kernel.place() waits by. And open_by_handle_at()
 * takes no O_PATH descriptor for the mount. */
TEST_P(FsFacts, APathDescriptorIsNoMount)
{
    mkdir(at("x").c_str(), 0755);
    const int path = open(at("").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int real = open(at("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int fd = open(at("x").c_str(), O_PATH | O_CLOEXEC);
    struct fs_stored_key key;
    struct fs_place place;
    ASSERT_EQ(0, fs_ask_key(fd, &key, nullptr, nullptr));
    EXPECT_EQ(FS_ASKED_ERROR, fs_kernel.place(nullptr, path, &key.key, &place));
    EXPECT_EQ(FS_ASKED_PLACE, fs_kernel.place(nullptr, real, &key.key, &place));
    for (const int one : {path, real, fd})
        close(one);
}

/* Why loud directories outside of all trees have no ignore marks: one that was moved into a tree is silent until its
 * mark is gone, and what names nothing but the object does not pass by the mark. */
TEST_P(FsFacts, AnIgnoredDirectoryStaysSilentWhereverItIsMoved)
{
    constexpr unsigned kIgnore = 0x400, kEvictable = 0x200;
    constexpr uint64_t kIgnored = FMON_CREATE | FMON_DELETE | FMON_ATTRIB | FAN_EVENT_ON_CHILD;
    mkdir(at("x").c_str(), 0755);
    mkdir(at("y").c_str(), 0755);
    FsGroup group(at(""), kEntries | FMON_ATTRIB);
    if (fanotify_mark(group.fd, FAN_MARK_ADD | FAN_MARK_IGNORED_SURV_MODIFY | kIgnore | kEvictable, kIgnored, AT_FDCWD,
                      at("x").c_str()) != 0)
        GTEST_SKIP() << "before Linux 6.0 there are no such marks";
    Worker one;
    one.run('m', at("x"), at("y/x"));
    one.run('f', at("y/x/f"));
    EXPECT_EQ((Lines{{kRename | kOnDir, "x", "x", true}}), read_all(group.fd));
    one.run('u', at("y/x/f"));
    EXPECT_EQ((Lines{{FMON_ATTRIB, "", "", true}}), read_all(group.fd));
}

INSTANTIATE_TEST_SUITE_P(On, FsFacts, testing::Values("tmpfs", "ext4"), [](const auto &param) { return param.param; });

}  // namespace
