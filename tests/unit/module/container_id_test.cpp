/* Tests of container_id.cpp: the container that names of control groups report. */

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "container_tool_utils.h"
#include "shell_fixture.h"

namespace
{

constexpr char kGroups[] = "/proc/77/task/77/cgroup";
constexpr char kNone[] = "read_container_id  is null, set container_id is host"; /* two blanks, no newline */

const std::string kId = "0123456789abcdefABCDEF0123456789abcdefABCDEF0123456789abcdefABCD";
const std::string kOther(64, 'e');

class ContainerId : public ::testing::Test
{
protected:
    ContainerId() { testlib::reset_host(); }
    ~ContainerId() override { testlib::clear_redirects(); }

    /* The id read from a control-group file of that content. */
    std::string read_from(const std::string &content, int size = 128)
    {
        tree.file("cgroup", content);
        testlib::redirect_path(kGroups, tree.path("cgroup"));
        testlib::log_clear();
        char out[128];
        memset(out, '#', sizeof(out));
        EXPECT_EQ(0, read_container_id(77, out, size));
        return std::string(out, strnlen(out, sizeof(out)));
    }
    std::string read_group(const std::string &group) { return read_from("0::" + group + "\n"); }

    testlib::TempTree tree;
};

TEST_F(ContainerId, TestIdHasItsLength) { ASSERT_EQ(64u, kId.size()); }

/* ---- the patterns ---- */

TEST_F(ContainerId, EachPatternTellsIt)
{
    EXPECT_EQ(kId, read_group("/docker/" + kId));
    EXPECT_EQ(kId, read_group("/system.slice/docker-" + kId + ".scope"));
    EXPECT_EQ(kId, read_group("/kubepods.slice/pod1.slice/cri-containerd-" + kId + ".scope"));
    EXPECT_EQ(kId, read_group("/system.slice/containerd.service/kubepods-pod1.slice:cri-containerd:" + kId));
    EXPECT_EQ(kId, read_group("cri-containerd:" + kId));
    EXPECT_EQ(kId, read_group("/" + kId));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(ContainerId, OtherNamesAreTheHosts)
{
    for (const std::string &group : {
             std::string(), std::string("/"), std::string("/init.scope"), std::string("/user.slice/user-0.slice"),
             kId,                                /* no prefix */
             "/podman-" + kId + ".scope",        /* another engine's */
             "/docker-" + kId,                   /* no suffix */
             "/docker-" + kId + ".slice",        /* another suffix */
             "/docker-" + kId + ".scope/.scope", /* the suffix again */
             "/x/" + kId + "/inner",             /* not the last element */
             "cri-containerd:" + kId + ".scope", /* nothing may follow */
             "cri-containerd:" + kId + "/x",     /* nor here */
             "docker-" + kId + ".scope",         /* the prefix has a slash */
             ".scope/docker-" + kId,             /* suffix before the id */
         }) {
        EXPECT_EQ("host", read_group(group)) << group;
        EXPECT_EQ((LevelLines{{4, kNone}}), level_lines()) << group;
    }
    EXPECT_EQ("container_tool_utils", testlib::log_lines().at(0).file);
}

TEST_F(ContainerId, AnIdHasExactlySixtyFourHexDigits)
{
    const std::string shorter = kId.substr(1), longer = kId + "0";
    for (const std::string form : {"/x/#", "/docker-#.scope", "/cri-containerd-#.scope", "cri-containerd:#"}) {
        auto with = [&](const std::string &id) { return std::string(form).replace(form.find('#'), 1, id); };
        EXPECT_EQ(kId, read_group(with(kId)));
        EXPECT_EQ("host", read_group(with(shorter))) << form;
        EXPECT_EQ("host", read_group(with(longer))) << form;
        for (size_t at : {0U, 1U, 31U, 63U})
            for (char wrong : {'g', 'G', '-', ' ', ':', '@', '`'}) {
                std::string id = kId;
                id[at] = wrong;
                EXPECT_EQ("host", read_group(with(id))) << form << " " << at << " " << wrong;
            }
    }
}

TEST_F(ContainerId, TheLastPrefixAndTheLastSuffixCount)
{
    EXPECT_EQ(kId, read_group("/docker-" + kOther + ".scope/docker-" + kId + ".scope"));
    EXPECT_EQ(kId, read_group("/docker-/docker-" + kId + ".scope"));
    EXPECT_EQ(kId, read_group("cri-containerd:" + kOther + "cri-containerd:" + kId));
    EXPECT_EQ(kId, read_group("/" + kOther + "/" + kId));
    EXPECT_EQ("host", read_group("/docker-" + kId + ".scope.scope")) << "the id would end at the last one";
    EXPECT_EQ("host", read_group("/docker-" + kId + ".scope/docker-")) << "nothing behind the last prefix";
}

/* Behind a suffix anything may follow. Kept: a group below a container's is in the container. */
TEST_F(ContainerId, GroupsBelowAScopeBelongToIt)
{
    EXPECT_EQ(kId, read_group("/docker-" + kId + ".scope/inner"));
    EXPECT_EQ(kId, read_group("/cri-containerd-" + kId + ".scope/a/b"));
}

TEST_F(ContainerId, RowsAreTriedInOrder)
{
    EXPECT_EQ(kId, read_group("/docker-" + kOther + ".scope/" + kId));
    EXPECT_EQ(kId, read_group("cri-containerd:" + kOther + "/" + kId));
    EXPECT_EQ(kId, read_group("/docker-" + kId + ".scope:cri-containerd:" + kOther));
    EXPECT_EQ(kId, read_group("/cri-containerd-" + kId + ".scope:cri-containerd:" + kOther));
    EXPECT_EQ(kId, read_group("/docker-" + kOther + ".scope/cri-containerd-" + kId + ".scope")) << "the second fails";
}

/* ---- lines ---- */

TEST_F(ContainerId, TheGroupStandsBehindTheSecondColon)
{
    EXPECT_EQ(kId, read_from("12:cpu,cpuacct:/docker/" + kId + "\n"));
    EXPECT_EQ(kId, read_from("::/" + kId + "\n"));
    EXPECT_EQ(kId, read_from("1:name=systemd:a:b:cri-containerd:" + kId + "\n"));
    EXPECT_EQ("host", read_from("0:/" + kId + "\n"));
    EXPECT_EQ("host", read_from("/" + kId + "\n"));
    EXPECT_EQ("host", read_from("cri-containerd:" + kId + "\n")) << "its colon is the line's first";
}

TEST_F(ContainerId, TheFirstLineThatTellsItWins)
{
    EXPECT_EQ(kId, read_from("2::/\n1::/" + kId + "\n0::/" + kOther + "\n"));
    EXPECT_EQ(kOther, read_from("no colons\n\n:\n0::/" + kOther + "\n1::/" + kId + "\n"));
}

TEST_F(ContainerId, FiveLinesAreExamined)
{
    std::string before;
    for (int others = 0; others <= 6; others++) {
        EXPECT_EQ(others < 5 ? kId : "host", read_from(before + "0::/" + kId + "\n")) << others;
        before += std::to_string(others) + ":cpu:/\n";
    }
}

/* The byte in front of the end goes, whatever it is. */
TEST_F(ContainerId, AFileThatEndsWithoutANewlineLosesItsLastByte)
{
    EXPECT_EQ("host", read_from("0::/" + kId));
    EXPECT_EQ(kId, read_from("0::/" + kId + "?"));
    EXPECT_EQ("host", read_from("0::/docker-" + kId + ".scope"));
    EXPECT_EQ(kId, read_from("0::/docker-" + kId + ".scope\n"));
}

TEST_F(ContainerId, EmptyAndOddFilesAreTheHosts)
{
    EXPECT_EQ("host", read_from(""));
    EXPECT_EQ("host", read_from("\n"));
    EXPECT_EQ("host", read_from(std::string(3, '\0') + "0::/" + kId + "\n")) << "a line that begins with a NUL";
    EXPECT_EQ(kOther, read_from(std::string(1, '\0') + "\n0::/" + kOther + "\n"));
    EXPECT_EQ("host", read_from("::"));
    EXPECT_EQ("host", read_from(std::string(100000, ':')));
}

/* A piece has 255 bytes. One that the line's newline does not end loses its last byte, so a line of 255 bytes with an
 * id at its end (254 and the newline) is the longest that tells it. */
TEST_F(ContainerId, LongLinesAreReadInPieces)
{
    auto line = [](size_t length) { return "0::/" + std::string(length - 4 - 65, 'p') + "/" + kId; };
    for (size_t length : {70U, 200U, 253U, 254U})
        EXPECT_EQ(kId, read_from(line(length) + "\n")) << length;
    for (size_t length : {255U, 256U, 257U, 300U, 319U, 320U})
        EXPECT_EQ("host", read_from(line(length) + "\n")) << length;
    EXPECT_EQ(kId, read_from(line(254) + "?not the end of it")) << "cut right behind the id and one byte";
}

/* Each piece counts as a line and is looked at as one. */
TEST_F(ContainerId, PiecesCountAsLines)
{
    const std::string filler(255, 'x'), line = "0::/" + kId + "\n";
    EXPECT_EQ(kId, read_from(filler + line)) << "the second piece looks like a line";
    EXPECT_EQ(kId, read_from(filler + filler + filler + filler + line));
    EXPECT_EQ("host", read_from(filler + filler + filler + filler + filler + line));
    EXPECT_EQ(kId, read_from(std::string(254, 'x') + "\n" + line));
    EXPECT_EQ("host", read_from(std::string(256, 'x') + "\n" + "1::/\n2::/\n3::/\n" + line))
        << "its rest is a line, too";
}

/* ---- where it goes ---- */

TEST_F(ContainerId, AShortBufferGetsWhatFits)
{
    for (int size : {1, 2, 4, 5, 63, 64, 65, 66, 128}) {
        const size_t fits = std::min<size_t>(static_cast<size_t>(size) - 1, 64);
        EXPECT_EQ(kId.substr(0, fits), read_from("0::/" + kId + "\n", size)) << size;
        EXPECT_EQ("", testlib::log_text()) << size;
    }
}

TEST_F(ContainerId, HostIsWrittenWholeOrNotAtAll)
{
    for (int size : {1, 2, 3, 4}) {
        EXPECT_EQ("", read_from("0::/\n", size)) << size;
        EXPECT_EQ("", testlib::log_text()) << size;
    }
    EXPECT_EQ("host", read_from("0::/\n", 5));
    EXPECT_EQ((LevelLines{{4, kNone}}), level_lines());
}

TEST_F(ContainerId, WithoutABufferNothingIsWritten)
{
    tree.file("cgroup", "0::/" + kId + "\n");
    testlib::redirect_path(kGroups, tree.path("cgroup"));
    for (int size : {0, -1, -64, INT32_MIN}) {
        char out[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(0, read_container_id(77, out, size)) << size;
        EXPECT_EQ('x', out[0]) << size;
    }
    EXPECT_EQ(0, read_container_id(77, nullptr, 65));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(ContainerId, NothingBehindTheIdIsWritten)
{
    tree.file("cgroup", "0::/" + kId + "\n");
    testlib::redirect_path(kGroups, tree.path("cgroup"));
    std::string out(100, '#');
    EXPECT_EQ(0, read_container_id(77, out.data(), 100));
    EXPECT_EQ(kId + '\0' + std::string(35, '#'), out);
}

/* ---- failures ---- */

TEST_F(ContainerId, AMissingFileIsAFailure)
{
    testlib::redirect_path(kGroups, tree.path("none"));
    char out[8] = "before";
    EXPECT_EQ(-1, read_container_id(77, out, 8));
    EXPECT_STREQ("", out);
    EXPECT_EQ((LevelLines{{1, "open cgroup: 77 failed, path:/proc/77/task/77/cgroup\n"}}), level_lines());
    EXPECT_EQ("container_tool_utils", testlib::log_lines().at(0).file);
    EXPECT_EQ(-1, read_container_id(77, nullptr, 8));
}

TEST_F(ContainerId, EveryNumberIsAPath)
{
    for (int pid : {0, -1, INT32_MIN, INT32_MAX}) {
        const std::string number = std::to_string(pid);
        testlib::log_clear();
        char out[8];
        EXPECT_EQ(-1, read_container_id(pid, out, 8));
        EXPECT_EQ((LevelLines{{1, "open cgroup: " + number + " failed, path:/proc/" + number + "/task/" + number +
                                      "/cgroup\n"}}),
                  level_lines());
    }
}

/* A process that ends in between: the open file has no lines any more. */
TEST_F(ContainerId, AFailingReadIsTheHost)
{
    tree.file("cgroup", "1::/\n0::/" + kId + "\n");
    testlib::redirect_path(kGroups, tree.path("cgroup"));
    for (int nth : {1, 2}) {
        testlib::Fault fault("fgets", nth, ESRCH);
        char out[128];
        EXPECT_EQ(0, read_container_id(77, out, 128));
        EXPECT_TRUE(fault.hit());
        EXPECT_STREQ("host", out);
    }
}

TEST_F(ContainerId, NoDescriptorStaysOpen)
{
    const int before = testlib::open_fds();
    read_from("0::/" + kId + "\n");
    read_from("0::/\n");
    char out[8];
    read_container_id(INT32_MAX, out, 8);
    EXPECT_EQ(before, testlib::open_fds());
}

/* The machine's own file, whatever it says. */
TEST_F(ContainerId, ThisProcessHasOne)
{
    char out[65];
    EXPECT_EQ(0, read_container_id(getpid(), out, 65));
    EXPECT_TRUE(strcmp(out, "host") == 0 || strspn(out, "0123456789abcdefABCDEF") == 64) << out;
}

}  // namespace
