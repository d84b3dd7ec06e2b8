/*
 * The engine of file-system-wide events on this machine's kernel: short scripts with exactly the events promised.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>

#include "fs_group.h"
#include "fs_model.h"
#include "orx_fmon.h"

using namespace systest;

namespace
{

constexpr uint64_t kEntries = FMON_CREATE | FMON_DELETE | kRename | kOnDir;

class FsEngine : public testing::TestWithParam<const char *>
{
protected:
    FsEngine() : fs_(GetParam()) {}

    void SetUp() override
    {
        NEED(can_hear_file_systems(), "whole file systems cannot be heard");
        NEED(fs_.mounted(), std::string("cannot mount ") + GetParam());
        mkdir(at("w").c_str(), 0755);
        mkdir(at("o").c_str(), 0755);
    }

    std::string at(const std::string &below) const { return fs_.path(below); }

    static pid_t run(const std::string &script)
    {
        const pid_t pid = fork();
        if (pid == 0)
            execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
        int status;
        EXPECT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_EQ(0, status) << script;
        return pid;
    }

    /* "create w/a" for each event, in order. */
    std::vector<std::string> lines(const FsGroup &group) const
    {
        std::vector<std::string> out;
        for (const Told &event : group.told) {
            const struct fs_event raw = {"", 0, 0, 0, false, event.delete_first, 0};
            uint32_t left = event.kinds;
            while (const uint32_t kind = fs_event_next(&raw, &left))
                out.push_back(event_word(kind) + " " + event.path.substr(at("").size() + 1));
        }
        return out;
    }

    static std::string event_word(uint32_t kind)
    {
        const char *words[] = {"access", "modify", "attrib", "close_write", "close_nowrite", "open",
                               "from",   "to",     "create", "delete",      "delete_self",   "move_self"};
        return words[__builtin_ctz(kind)];
    }

    OwnFileSystem fs_;
};

using Lines = std::vector<std::string>;

TEST_P(FsEngine, NewDirectoriesAreKnownFromTheirFirstMoment)
{
    FsGroup group(at(""), kEntries | FMON_CLOSE_WRITE);
    ASSERT_EQ(0, group.anchor(at("w")));
    run("cd " + at("w") + " && mkdir -p a/b && echo > a/b/f && mv a z && rm -r z");
    group.take();
    EXPECT_EQ((Lines{"create w/a", "create w/a/b", "create w/a/b/f", "close_write w/a/b/f", "from w/a", "to w/z",
                     "delete w/z/b/f", "delete w/z/b", "delete w/z"}),
              lines(group));
    EXPECT_EQ(0u, group.counts().asked_files);
}

/* A rename of e to c that cannot be seen may have come before the file and another one after. */
TEST_P(FsEngine, WhatCameAndWentWhileADirectoryMayHaveBeenElsewhereIsCounted)
{
    run("mkdir " + at("w/e"));
    FsGroup group(at(""), kEntries);
    ASSERT_EQ(0, group.anchor(at("w")));
    Worker one;
    EXPECT_TRUE(one.run('m', at("w/e"), at("w/c")));
    EXPECT_TRUE(one.run('m', at("w/c"), at("w/e")));
    EXPECT_TRUE(one.run('f', at("w/e/n")));
    EXPECT_TRUE(one.run('m', at("w/e/n"), at("w/e/m")));
    EXPECT_TRUE(one.run('m', at("w/e"), at("w/x")));
    EXPECT_TRUE(one.run('m', at("w/x"), at("w/e")));
    group.take();
    EXPECT_EQ(
        (Lines{"from w/e", "to w/c", "from w/c", "to w/e", "to w/e/m", "from w/e", "to w/x", "from w/x", "to w/e"}),
        lines(group));
    EXPECT_EQ(2u, group.counts().lost[FS_LOST_UNRESOLVED]);
}

INSTANTIATE_TEST_SUITE_P(On, FsEngine, testing::Values("tmpfs", "ext4"), [](const auto &param) { return param.param; });

}  // namespace
