/* Tests of linux/mount.h: one line of the mount table, with every option and oddity. */

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "mount_fixture.h"

namespace
{

using testlib::Fault;

/* ---- one line ---- */

TEST_F(MountTest, ALineBecomesAnEntryAndALogLine)
{
    Line made = line("36", "/mnt/data");
    made.options = "rw,nosuid,relatime";
    read(made.text());
    ASSERT_EQ(1u, entries().size());
    const struct mount_entry *entry = entries()[0];
    EXPECT_STREQ("ext4", entry->fs);
    EXPECT_STREQ(dev.c_str(), entry->dev);
    EXPECT_STREQ("/mnt/data", entry->mount);
    EXPECT_EQ(0x200002u, entry->flags);
    EXPECT_EQ(1u, entry->block_dev);
    EXPECT_EQ(36, entry->mnt_id);
    EXPECT_EQ(0u, entry->stale);
    EXPECT_TRUE(list_empty(&entry->watches));
    EXPECT_TRUE(testlib::logged(
        3, "parse_mnt fs:ext4, dev:" + dev + ", mount:/mnt/data, flags:2097154, block_dev:1, mnt_id:36"));
    EXPECT_EQ("linux/mount.c", testlib::log_lines().at(0).file);
}

TEST_F(MountTest, EntriesKeepTheOrderOfTheFile)
{
    EXPECT_EQ("/c /a /b", listed(line("3", "/c").text() + line("1", "/a").text() + line("2", "/b").text()));
}

TEST_F(MountTest, EveryOptionOfTheTableHasItsBit)
{
    const struct {
        const char *options;
        uint32_t flags;
    } rows[] = {
        {"rw", 0},
        {"nosuid", 0x2},
        {"nodev", 0x4},
        {"noexec", 0x8},
        {"noatime", 0x400},
        {"nodiratime", 0x800},
        {"relatime", 0x200000},
        {"lazytime", 0x2000000},
        {"rw,nosuid,nodev,noexec,noatime,nodiratime,relatime,lazytime", 0x2200c0e},
        {"lazytime,,nosuid,", 0x2000002},
        {"nosuidx,xnodev,NOEXEC,no", 0},
        {"rows", 0},
    };
    for (const auto &row : rows) {
        mount_release(list);
        Line made = line("5", "/m");
        made.options = row.options;
        read(made.text());
        ASSERT_EQ(1u, entries().size()) << row.options;
        EXPECT_EQ(row.flags, entries()[0]->flags) << row.options;
    }
}

TEST_F(MountTest, AReadOnlyMountIsNotListed)
{
    Line first = line("1", "/a"), second = line("2", "/b"), third = line("3", "/c");
    first.options = "ro";
    second.options = "nosuid,ro,relatime";
    third.options = "rw,errors=remount-ro";
    EXPECT_EQ("/c", listed(first.text() + second.text() + third.text()));
}

TEST_F(MountTest, ReadOnlySuperOptionsDoNotCount)
{
    EXPECT_EQ("/a", listed("1 0 8:1 / /a rw - ext4 " + dev + " ro\n"));
}

TEST_F(MountTest, AMountOfASubdirectoryIsNotListed)
{
    for (const char *root : {"/sub", "//", "/.", "-", "x"}) {
        Line made = line("1", "/a");
        made.root = root;
        EXPECT_EQ("", listed(made.text())) << root;
    }
}

TEST_F(MountTest, PseudoFileSystemsAreNotListed)
{
    for (const char *source : {"proc", "tmpfs", "none", "dev", "-", "./", "server:/export"}) {
        Line made = line("1", "/a");
        made.dev = source;
        EXPECT_EQ("", listed(made.text())) << source;
    }
}

TEST_F(MountTest, OptionalFieldsMayBeAnyNumber)
{
    for (const char *optional : {"", "master:1 ", "shared:1 master:2 propagate_from:3 unbindable ", "--  -x x- "}) {
        mount_release(list);
        Line made = line("7", "/a");
        made.optional = optional;
        EXPECT_EQ("/a", listed(made.text())) << optional;
    }
}

TEST_F(MountTest, FieldsMayBeSeparatedByTabsAndSeveralBlanks)
{
    EXPECT_EQ("/a", listed(" \t12\t1  8:1 \t/\t/a\trw \t - \text4\t" + dev + "\trw\n"));
    EXPECT_EQ(12, entries()[0]->mnt_id);
}

TEST_F(MountTest, OctalEscapesAreKept)
{
    EXPECT_EQ("/mnt/a\\040b\\011\\134", listed(line("1", "/mnt/a\\040b\\011\\134").text()));
}

TEST_F(MountTest, LinesWithMissingFieldsAreSkippedInSilence)
{
    const std::string whole = "23 1 8:1 / /mnt rw shared:1 - ext4 " + dev;
    for (const char *part :
         {"", "23", "23 1", "23 1 8:1", "23 1 8:1 /", "23 1 8:1 / /mnt", "23 1 8:1 / /mnt rw",
          "23 1 8:1 / /mnt rw shared:1", "23 1 8:1 / /mnt rw shared:1 -", "23 1 8:1 / /mnt rw shared:1 - ext4",
          "23 1 8:1 / /mnt rw shared:1 - ext4 ", "-", "- - -", "   ", "\t"}) {
        EXPECT_EQ("", listed(part)) << part;
        EXPECT_EQ("", listed(std::string(part) + "\n")) << part;
    }
    EXPECT_EQ("", testlib::log_text());
    EXPECT_EQ("/mnt", listed(whole)) << "neither super options nor a newline are needed";
}

TEST_F(MountTest, ASourceAtTheEndOfALineKeepsItsNewlineAndIsNoDevice)
{
    EXPECT_EQ("", listed("23 1 8:1 / /mnt rw - ext4 " + dev + "\n"));
}

TEST_F(MountTest, TheLastLineNeedsNoNewline)
{
    std::string text = line("1", "/a").text() + line("2", "/b").text();
    text.pop_back();
    EXPECT_EQ("/a /b", listed(text));
}

TEST_F(MountTest, TheIdIsReadInTheBaseItsTextShows)
{
    const struct {
        const char *text;
        int32_t id;
    } rows[] = {{"23", 23}, {"0x1f", 31}, {"0X10", 16}, {"017", 15}, {"08", 0}, {"2147483647", INT32_MAX},
                {"-5", -5}, {"12x", 12},  {"x", 0}};
    for (const auto &row : rows) {
        mount_release(list);
        read(line(row.text, "/a").text());
        ASSERT_EQ(1u, entries().size()) << row.text;
        EXPECT_EQ(row.id, entries()[0]->mnt_id) << row.text;
    }
}

TEST_F(MountTest, HugeFieldsAndStrayBytesDoNoHarm)
{
    std::string noise(3000, '-');
    for (size_t i = 0; i < noise.size(); i += 7)
        noise[i] = " \t\n,/\\\xff\x01"[i % 8];
    noise[1000] = '\0';
    read(noise + "\n" + line("1", "/a").text());
    EXPECT_EQ("/a", listed());
}

/* ---- lines beyond the buffer ---- */

/* A line of `size` bytes before its newline, padded in its super options. */
std::string padded(std::string text, size_t size)
{
    text.pop_back();
    text.resize(size, 'x');
    return text + "\n";
}

TEST_F(MountTest, LongSuperOptionsDoNotMatter)
{
    for (const size_t size : {509u, 510u, 511u, 512u, 513u, 1021u, 1022u, 1023u, 1024u, 5000u}) {
        mount_release(list);
        EXPECT_EQ("/mnt /next", listed(padded(line("1", "/mnt").text(), size) + line("2", "/next").text())) << size;
    }
}

TEST_F(MountTest, ALineCutBeforeItsSourceIsNotListed)
{
    Line made = line("1", "/a");
    made.optional = std::string(500, 'x') + " ";
    EXPECT_EQ("/b", listed(made.text() + line("2", "/b").text()));
}

/* 511 bytes are read at a time: the source ends where the piece ends, and what is left of it may be a device too. */
TEST_F(MountTest, ASourceCutByTheBufferIsTakenAsItStands)
{
    const std::string sub = tree.dir("dev/sub");
    Line made = line("1", "/a");
    made.dev = sub;
    for (const size_t cut : {0u, 1u, 4u}) {
        mount_release(list);
        made.optional = "";
        const size_t end = made.text().find(" rw,errors");
        made.optional = std::string(511 + cut - end - 1, 'x') + " ";
        read(made.text());
        const std::string want = cut == 0 ? sub : cut == 4 ? dev : "";
        ASSERT_EQ(want.empty() ? 0u : 1u, entries().size()) << cut;
        for (const struct mount_entry *entry : entries())
            EXPECT_EQ(want, entry->dev) << cut;
    }
}

TEST_F(MountTest, APieceThatLooksLikeALineCountsAsOne)
{
    EXPECT_EQ("/hidden", listed(std::string(511, 'x') + line("9", "/hidden").text()));
    mount_release(list);
    EXPECT_EQ("", listed(std::string(510, 'x') + line("9", "/hidden").text()));
}

/* ---- device test ---- */

class DeviceTest : public MountTest
{
protected:
    std::string listed_with(const std::string &source)
    {
        mount_release(list);
        Line made = line("1", "/a");
        made.dev = source;
        return listed(made.text());
    }
};

TEST_F(DeviceTest, ACharacterDevicePasses) { EXPECT_EQ("/a", listed_with("/dev/null")); }

TEST_F(DeviceTest, ABlockDevicePasses)
{
    const std::string node = tree.path("block");
    NEED(mknod(node.c_str(), S_IFBLK | 0600, 0x700) == 0, "making a block device node needs root");
    EXPECT_EQ("/a", listed_with(node));
}

TEST_F(DeviceTest, ADirectoryPasses) { EXPECT_EQ("/a", listed_with(tree.dir("directory"))); }

TEST_F(DeviceTest, ALinkIsFollowed)
{
    EXPECT_EQ("/a", listed_with(tree.link("to_dir", tree.dir("directory"))));
    EXPECT_EQ("", listed_with(tree.link("to_file", tree.file("file"))));
    EXPECT_EQ("", listed_with(tree.link("to_nothing", tree.path("nothing"))));
}

TEST_F(DeviceTest, ASocketPasses)
{
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = tree.path("socket");
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, path.c_str(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)));
    EXPECT_EQ("/a", listed_with(path));
    close(fd);
}

TEST_F(DeviceTest, ARegularFileDoesNotPass) { EXPECT_EQ("", listed_with(tree.file("file"))); }

TEST_F(DeviceTest, APipeDoesNotPass)
{
    const std::string path = tree.path("pipe");
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    EXPECT_EQ("", listed_with(path));
}

TEST_F(DeviceTest, AMissingSourceDoesNotPass) { EXPECT_EQ("", listed_with(tree.path("missing"))); }

TEST_F(DeviceTest, ARelativeSourceDoesNotPassWhateverItNames) { EXPECT_EQ("", listed_with(".")); }

TEST_F(DeviceTest, AFailedStatDoesNotPass)
{
    const Fault fault("stat", 1, EIO);
    EXPECT_EQ("", listed_with(dev));
    EXPECT_TRUE(fault.hit());
}

TEST_F(DeviceTest, AnEntryWhoseSourceVanishedIsRemoved)
{
    const std::string source = tree.dir("stick");
    EXPECT_EQ("/a", listed_with(source));
    tree.remove("stick");
    ASSERT_EQ(0, get_mountinfo(list));
    EXPECT_EQ("", listed());
}

}  // namespace
