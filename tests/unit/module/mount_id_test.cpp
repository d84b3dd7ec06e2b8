/* The mount id of an open descriptor. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "linux/probe/clt_file.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

namespace
{

using testlib::Fault;

class MountId : public ::testing::Test
{
protected:
    MountId() { testlib::reset_host(); }
    ~MountId() override { testlib::clear_redirects(); }

    /* Result and id of descriptor 5, whose fdinfo file has that content. */
    std::string id_from(const std::string &content)
    {
        testlib::redirect_path("/proc/self/fdinfo/5", tree_.file("fdinfo", content));
        return id_of(5);
    }
    std::string id_of(int fd)
    {
        char out[16] = "";
        memset(out + 11, 'x', sizeof out - 11);
        const int before = testlib::open_fds();
        ret_ = read_mount_id(fd, out);
        EXPECT_EQ(before, testlib::open_fds());
        EXPECT_EQ(0, memcmp(out + 11, "xxxxx", 5)) << "beyond the eleven bytes";
        EXPECT_GE(10u, strlen(out));
        return out;
    }
    std::vector<std::pair<int, std::string>> lines()
    {
        std::vector<std::pair<int, std::string>> out;
        for (const testlib::LogLine &line : testlib::log_lines()) {
            EXPECT_EQ("linux/clt_file.c", line.file);
            out.emplace_back(line.level, line.text);
        }
        return out;
    }
    using Lines = std::vector<std::pair<int, std::string>>;

    testlib::TempTree tree_;
    int ret_ = 1;
};

TEST_F(MountId, OfARealDescriptor)
{
    const int fd = open(tree_.root().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_LE(0, fd);
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
    std::string key, value, expected;
    while (info >> key >> value)
        if (key == "mnt_id:")
            expected = value;
    info.close();
    ASSERT_NE("", expected);
    EXPECT_EQ(expected, id_of(fd));
    EXPECT_EQ(0, ret_);
    close(fd);
}

TEST_F(MountId, IsTheTextBehindTheTab)
{
    EXPECT_EQ("23", id_from("pos:\t0\nflags:\t02\nmnt_id:\t23\nino:\t9\n"));
    EXPECT_EQ("23", id_from("mnt_id:\t23\n"));
    EXPECT_EQ("23", id_from("mnt_id:\t23"));       /* no newline */
    EXPECT_EQ("23", id_from("mnt_id: x\t23\n"));   /* the first tab, wherever it is */
    EXPECT_EQ("2\t3", id_from("mnt_id:\t2\t3\n")); /* and only the first */
    EXPECT_EQ("", id_from("mnt_id:\t\n"));
    EXPECT_EQ(0, ret_);
}

TEST_F(MountId, TheFirstLineThatBeginsWithTheKeyCounts)
{
    EXPECT_EQ("1", id_from("mnt_id:\t1\nmnt_id:\t2\n"));
    EXPECT_EQ("2", id_from("xmnt_id:\t1\nmnt_id:\t2\n"));
    EXPECT_EQ("2", id_from(" mnt_id:\t1\nmnt_id\t3\n\nmnt_id:\t2\n"));
}

TEST_F(MountId, OldKernelsDoNotTell)
{
    for (const char *content : {"", "\n", "pos:\t0\nflags:\t0100000\n", "mnt_i"}) {
        EXPECT_EQ("", id_from(content));
        EXPECT_EQ(0, ret_);
    }
    EXPECT_EQ(Lines{}, lines());
}

TEST_F(MountId, ALineWithoutATabDoesNotTakeTheNextOnes)
{
    EXPECT_EQ("", id_from("mnt_id: 23\nino:\t9\n"));
    EXPECT_EQ(0, ret_);
}

TEST_F(MountId, AtMostTenCharacters)
{
    EXPECT_EQ("123456789", id_from("mnt_id:\t123456789\n"));
    EXPECT_EQ("1234567890", id_from("mnt_id:\t1234567890\n"));
    EXPECT_EQ("1234567890", id_from("mnt_id:\t12345678901\n"));
    EXPECT_EQ(std::string(10, 'z'), id_from("mnt_id:\t" + std::string(9000, 'z')));
}

TEST_F(MountId, OnlyTheFirst4096Bytes)
{
    const std::string line = "mnt_id:\t77\n";
    auto at = [&](size_t offset) { return std::string(offset - 1, 'p') + "\n" + line; };
    EXPECT_EQ("77", id_from(at(4096 - line.size())));
    EXPECT_EQ("77", id_from(at(4096 - 10)));
    EXPECT_EQ("7", id_from(at(4096 - 9))); /* cut in the middle of the id */
    EXPECT_EQ("", id_from(at(4096 - 8)));
    EXPECT_EQ("", id_from(at(4096 - 6)));
    EXPECT_EQ("", id_from(at(5000)));
    EXPECT_EQ(0, ret_);
}

TEST_F(MountId, BytesBehindANulAreNotSeen) { EXPECT_EQ("", id_from(std::string("pos:") + '\0' + "\nmnt_id:\t5\n")); }

TEST_F(MountId, WhatIsNotOpen)
{
    EXPECT_EQ("", id_of(987654));
    EXPECT_EQ(-1, ret_);
    EXPECT_EQ((Lines{{1, "open filed!\n"}}), lines());
    testlib::log_clear();
    EXPECT_EQ("", id_of(-1));
    EXPECT_EQ(-1, ret_);
    EXPECT_EQ((Lines{{1, "open filed!\n"}}), lines());
}

TEST_F(MountId, AFailedRead)
{
    Fault fault("read", 1, EIO);
    EXPECT_EQ("", id_from("mnt_id:\t23\n"));
    EXPECT_EQ(-1, ret_);
    EXPECT_EQ((Lines{{1, "read fail!\n"}}), lines());
}

TEST_F(MountId, AFailedCloseChangesNothing)
{
    testlib::redirect_path("/proc/self/fdinfo/5", tree_.file("fdinfo", "mnt_id:\t23\n"));
    char out[11] = "";
    Fault fault("close", 1, EIO);
    EXPECT_EQ(0, read_mount_id(5, out));
    EXPECT_STREQ("23", out);
    EXPECT_EQ((Lines{{1, "close failed!\n"}}), lines());
}

TEST_F(MountId, AFailedReadAndClose)
{
    testlib::redirect_path("/proc/self/fdinfo/5", tree_.file("fdinfo", "mnt_id:\t23\n"));
    char out[11] = "";
    Fault read_fault("read", 1, EIO), close_fault("close", 1, EIO);
    EXPECT_EQ(-1, read_mount_id(5, out));
    EXPECT_EQ((Lines{{1, "read fail!\n"}, {1, "close failed!\n"}}), lines());
}

/* ---- of an event's descriptor ---- */

class EventMountId : public ::testing::Test
{
protected:
    EventMountId() { testlib::reset_host(); }
    ~EventMountId() override
    {
        testlib::clear_redirects();
        g_container_flag = 0;
    }
    /* What the kernel's listing says of the descriptor is replaced, so that it shows where the number came from. */
    void list_as(const std::string &id)
    {
        testlib::redirect_path("/proc/self/fdinfo/" + std::to_string(fd_),
                               tree_.file("fdinfo", "mnt_id:\t" + id + "\n"));
    }
    std::string id()
    {
        char out[16] = "";
        ret_ = event_mount_id(fd_, out);
        return out;
    }
    testlib::TempTree tree_;
    const int fd_ = open(tree_.root().c_str(), O_RDONLY | O_CLOEXEC);
    int ret_ = 1;
};

TEST_F(EventMountId, IsTheOneThatTheKernelLists)
{
    char listed[16] = "";
    ASSERT_EQ(0, read_mount_id(fd_, listed));
    ASSERT_STRNE("", listed);
    testlib::CallCount opens("open");
    EXPECT_EQ(listed, id());
    EXPECT_EQ(0, ret_);
    EXPECT_EQ(0, opens.calls());
}

TEST_F(EventMountId, OlderKernelsAreAskedForTheListing)
{
    list_as("4711");
    Fault fault("statx", 1, ENOSYS);
    EXPECT_EQ("4711", id());
    EXPECT_EQ(0, ret_);
}

TEST_F(EventMountId, InAContainerTheListingCounts)
{
    list_as("4711");
    g_container_flag = 1;
    EXPECT_EQ("4711", id());
}

}  // namespace
