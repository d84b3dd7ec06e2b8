/*
 * `fmon watch --source`: which source serves a watch, what is said where it is another than the one that was wanted,
 * and what marks of whole file systems add. Mounts are in a namespace of the test's own.
 */
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "harness.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

using Words = std::vector<std::string>;

const std::string kFmon = std::string(FMON_TEST_BIN) + "/fmon";

/* What a command prints until it ends. */
struct Answer {
    int status;
    Words lines;
    std::string errors;
};

Answer run_fmon(Words words)
{
    words.insert(words.begin(), kFmon);
    Process process({words});
    Answer answer;
    while (auto line = process.line())
        answer.lines.push_back(*line);
    answer.status = process.wait();
    answer.errors = process.errors();
    return answer;
}

std::string joined(const Words &lines)
{
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

/* One line on stderr, nothing watched. */
void expect_refused(const Answer &answer, std::initializer_list<const char *> parts)
{
    EXPECT_EQ(2, answer.status);
    EXPECT_TRUE(answer.lines.empty()) << joined(answer.lines);
    for (const char *part : parts)
        EXPECT_NE(std::string::npos, answer.errors.find(part)) << part << " in: " << answer.errors;
    EXPECT_EQ(1, std::count(answer.errors.begin(), answer.errors.end(), '\n')) << answer.errors;
}

class Sources : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    void SetUp() override
    {
        if (!own_mounts)
            GTEST_SKIP() << "needs root, for a mount namespace and for marks of file systems";
        mount_tmpfs(base);
        make_dir(base + "/dir");
        make_dir(base + "/dir/sub");
        Watch probe(dir, {"--source", "auto"});
        if (probe.established()["source"] != "filesystem")
            GTEST_SKIP() << "tmpfs takes no mark here";
    }
    void TearDown() override
    {
        for (const char *point : {"base/overlay", "base"})
            while (umount2(tree.path(point).c_str(), MNT_DETACH) == 0) {
            }
    }
    /* An overlay, which takes no mark, or nothing. */
    std::string overlay() const
    {
        for (const char *layer : {"lower", "upper", "work", "overlay"})
            make_dir(base + "/" + layer);
        const std::string point = base + "/overlay", layers = "lowerdir=" + base + "/lower,upperdir=" + base +
                                                              "/upper,workdir=" + base + "/work,nfs_export=off";
        return ::mount("overlay", point.c_str(), "overlay", 0, layers.c_str()) == 0 ? point : "";
    }
    /* The next event on that path. */
    static Json event_of(Watch &watch, const std::string &path)
    {
        for (int64_t end = now_ms() + kPatienceMs; now_ms() < end;)
            if (auto object = watch.next(); object && object->value("path", "") == path)
                return *object;
        ADD_FAILURE() << "no event of " << path;
        return {};
    }

    static inline bool own_mounts = false;
    TempTree tree;
    const std::string base = tree.dir("base"), dir = base + "/dir";
};

TEST_F(Sources, TheOneThatServesIsNamed)
{
    const std::pair<Words, const char *> cases[] = {{{"-r", "--source", "auto"}, "filesystem 0"},
                                                    {{"-r", "--source", "filesystem"}, "filesystem 0"},
                                                    {{"-r", "--source", "marks"}, "marks 2"},
                                                    {{"--source", "filesystem"}, "filesystem 0"},
                                                    {{"-r", "--max-depth", "1", "--source", "auto"}, "marks 2"}};
    for (const auto &[words, want] : cases) {
        Watch watch(dir, words);
        const Json start = watch.established();
        EXPECT_EQ(want, start["source"].text() + " " + start["directories"].dump());
        EXPECT_EQ("", watch.process().errors());
        EXPECT_EQ(0, watch.stop());
    }
}

TEST_F(Sources, ADirectoryAndAFileAreServedByBoth)
{
    make_file(base + "/file");
    Watch watch(dir, {"-r", "--source", "auto", base + "/file"});
    const Json start = watch.established();
    EXPECT_EQ("both", start["source"]);
    EXPECT_EQ(0, start["directories"]);
    append_file(base + "/file");
    EXPECT_EQ(event_of(watch, base + "/file")["pid"], getpid());
    make_file(dir + "/sub/made");
    EXPECT_EQ(event_of(watch, dir + "/sub/made")["pid"], getpid());
    EXPECT_EQ(0, watch.stop());
}

TEST_F(Sources, WhatNoMarkServesHasMarksAndSaysWhy)
{
    const std::string point = overlay();
    if (point.empty())
        GTEST_SKIP() << "no overlay: " << strerror(errno);
    make_dir(point + "/sub");
    expect_refused(run_fmon({"watch", "-r", "--source", "filesystem", point}),
                   {"cannot be watched with --source filesystem: overlay has no file handles", "--source auto"});
    expect_refused(run_fmon({"watch", "-r", "--pid", "-e", "create", "--source", "auto", point}),
                   {"cannot be watched with --pid", "no mark of its file system serves: overlay"});
    Watch watch(point, {"-r", "--source", "auto", "-e", "create"});
    const Json start = watch.established();
    EXPECT_EQ("marks 2", start["source"].text() + " " + start["directories"].dump());
    make_file(point + "/sub/made");
    event_of(watch, point + "/sub/made");
    EXPECT_EQ(0, watch.stop());
    EXPECT_NE(std::string::npos, watch.process().errors().find(" has marks on each directory: overlay"));
}

TEST_F(Sources, AFileIsRefusedWhereOnlyAMarkOfAFileSystemWillDo)
{
    make_file(base + "/file");
    expect_refused(run_fmon({"watch", "--source", "filesystem", base + "/file"}), {"only directories are"});
}

TEST_F(Sources, WithoutTheRightTheRemedyIsNamed)
{
    NEED(access("/usr/bin/setpriv", X_OK) == 0, "no setpriv");
    Words words = {"/usr/bin/setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-sys_admin", kFmon, "watch",
                   "--source",         "filesystem",     dir};
    Process process({words});
    EXPECT_EQ(std::nullopt, process.line());
    EXPECT_EQ(2, process.wait());
    EXPECT_NE(std::string::npos, process.errors().find("CAP_SYS_ADMIN")) << process.errors();
}

TEST_F(Sources, EveryKindNamesItsProcess)
{
    Watch watch(dir, {"-r", "--pid", "--source", "auto", "-e", "create,delete,moved_from,moved_to,modify,attrib"});
    watch.established();
    make_file(dir + "/sub/a");
    change_mode(dir + "/sub/a", 0600);
    move(dir + "/sub/a", dir + "/b");
    remove_file(dir + "/b");
    Names seen;
    while (!seen.count("delete")) {
        const Json event = watch.next_of("event");
        ASSERT_TRUE(event.is_object());
        EXPECT_EQ(event["pid"], getpid()) << event;
        EXPECT_EQ("watch-all", event["instance"]);
        for (const std::string kind : event["events"])
            seen.insert(kind);
    }
    EXPECT_EQ(names("create,modify,attrib,moved_from,moved_to,delete"), seen);
    EXPECT_EQ(0, watch.stop());
}

// From the first moment on: no directory is marked, and none can be too late.
TEST_F(Sources, ADeepDirectoryIsSeenAtOnce)
{
    Watch watch(dir, {"-r", "--source", "filesystem", "-e", "create"});
    watch.established();
    for (int i = 0; i < 50; i++) {
        const std::string deep = dir + "/" + std::to_string(i) + "/a/b/c/d";
        std::filesystem::create_directories(deep);
        make_file(deep + "/file");
    }
    Names created;
    while (created.size() < 300) {
        const auto event = watch.next();
        ASSERT_TRUE(event) << created.size();
        EXPECT_TRUE(created.insert((*event)["path"].text()).second) << *event;
    }
    EXPECT_EQ(1u, created.count(dir + "/49/a/b/c/d/file"));
    EXPECT_EQ(0, watch.stop());
}

TEST_F(Sources, WhatIsWaitedForIsServedWhenItComes)
{
    Watch watch(base + "/later", {"-r", "--wait", "--source", "filesystem", "-e", "create"});
    EXPECT_EQ("marks", watch.established()["source"]);
    make_dir(base + "/later");
    EXPECT_EQ(watch.next_of("appeared")["path"], base + "/later");
    std::filesystem::create_directories(base + "/later/a/b");
    EXPECT_EQ(event_of(watch, base + "/later/a/b")["pid"], getpid());
    EXPECT_EQ(0, watch.stop());
}

// While a dump holds events back, no more of them wait than the limit allows; what is thrown away is counted.
TEST_F(Sources, WhatFindsNoRoomIsALoss)
{
    Watch watch(
        dir, {"-r", "--source", "filesystem", "-e", "create", "--set", "fs_memory_kib=64", "--set", "max_events=100"});
    watch.losses_are_due();
    watch.established();
    Process dump({{kFmon, "dump", "-t", "events", "--hold", "1", std::to_string(watch.process().pid())}});
    for (int i = 0; i < 15'000 && !dump.line(0); i++)
        make_dir(dir + "/" + std::to_string(i));
    const Json loss = watch.next_of("loss");
    EXPECT_EQ("filesystem", loss["source"]);
    EXPECT_GT(loss["count"].number(), 0);
    while (watch.next(500)) {
    }
    make_file(dir + "/sub/after");
    event_of(watch, dir + "/sub/after");
    EXPECT_EQ(0, watch.stop());
    EXPECT_NE(std::string::npos, watch.process().errors().find("--set fs_memory="));
}

TEST_F(Sources, ADumpNamesTheSourceOfEachWatch)
{
    make_file(base + "/file");
    Watch watch(dir, {"-r", "--source", "auto", base + "/file"});
    watch.established();
    const std::string pid = std::to_string(watch.process().pid());
    const std::string text = joined(run_fmon({"dump", "-t", "backend", pid}).lines);
    const Words parts = {"File systems:\n", " of 65536 directories", "[S] " + base + " (",
                         "[W] " + dir + " (filesystem), event ", "[W] " + base + "/file (marks)\n"};
    for (const std::string &part : parts)
        EXPECT_NE(std::string::npos, text.find(part)) << part << " in: " << text;
    EXPECT_EQ(0, watch.stop());
}

// Any depth, names of any length, and directories too, which kernel probes do not report.
TEST_F(Sources, TheWholeSystem)
{
    Process watch({{kFmon, "watch", "--system", "--source", "filesystem", "-e", "create,delete", "--format", "json"}});
    const auto first = watch.line();
    ASSERT_TRUE(first) << watch.errors();
    EXPECT_EQ("filesystem", Json::parse(*first)["source"]);
    std::string deep = dir;
    for (int i = 0; i < 15; i++)
        make_dir(deep += "/" + std::string(40, static_cast<char>('a' + i)));
    const std::string file = deep + "/" + std::string(200, 'x');
    make_file(file);
    Names seen;
    while (!seen.count(file)) {
        const auto line = watch.line();
        ASSERT_TRUE(line) << seen.size();
        const Json event = Json::parse(*line);
        if (event["type"] == "event" && event["path"].text().starts_with(dir)) {
            EXPECT_EQ(event["pid"], getpid()) << event;
            seen.insert(event["path"].text());
        }
    }
    EXPECT_EQ(16u, seen.size());
    EXPECT_EQ(0, watch.interrupt());
}

}  // namespace
