/* Until when a service watched: what a run leaves, and what the next one makes of that. */
#include "cli/run/last_watch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "testlib/fault.h"
#include "unit/agent/agent_testing.h"

using namespace cli;

namespace
{

class LastWatchTest : public testing::Test
{
protected:
    LastWatch opened(const std::string &boot = "boot-1", const std::string &config = "/etc/fmon/fmon.toml") const
    {
        LastWatch last;
        last.open(tree.root(), config, boot);
        return last;
    }
    std::string reason(const LastWatch &last, uint64_t now = 200) const
    {
        const auto gap = last.gap("web", now);
        return gap ? gap->reason + " " + std::to_string(gap->from_ns) + " " + std::to_string(gap->until_ns) : "";
    }
    void keep(bool ended, const std::string &config = "/etc/fmon/fmon.toml") const
    {
        std::string error;
        EXPECT_TRUE(opened("boot-1", config).keep(100, {"etc", "web"}, ended, error)) << error;
    }

    agent_testing::Directory tree;
};

TEST_F(LastWatchTest, SaysHowTheRunBeforeEnded)
{
    EXPECT_EQ("", reason(opened()));
    keep(true);
    EXPECT_EQ("stopped 100 200", reason(opened()));
    EXPECT_EQ("stopped 100 200", reason(opened("boot-2")));
    keep(false);
    EXPECT_EQ("killed 100 200", reason(opened()));
    EXPECT_EQ("booted 100 200", reason(opened("boot-2")));
}

TEST_F(LastWatchTest, SaysNothingOfWhatWasNotWatchedOrIsNotOverYet)
{
    keep(true);
    EXPECT_FALSE(opened().gap("new", 200));
    EXPECT_EQ("", reason(opened(), 99));
    EXPECT_EQ("stopped 100 100", reason(opened(), 100));
}

TEST_F(LastWatchTest, EachConfigurationHasItsOwn)
{
    keep(true);
    EXPECT_EQ("", reason(opened("boot-1", "/etc/other.toml")));
    const std::string deep = "/" + std::string(300, 'x') + "/my.toml";
    keep(false, deep);
    EXPECT_EQ("killed 100 200", reason(opened("boot-1", deep)));
}

TEST_F(LastWatchTest, WithoutADirectoryNothingIsKept)
{
    LastWatch last;
    last.open(tree.path("missing"), "/etc/fmon/fmon.toml", "boot-1");
    std::string error;
    EXPECT_TRUE(last.keep(100, {"web"}, true, error));
    EXPECT_EQ("", last.path());
}

TEST_F(LastWatchTest, TakesNothingThatIsDamagedOrThatOthersMayHaveWritten)
{
    keep(true);
    const std::string path = opened().path();
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    EXPECT_EQ("", reason(opened()));
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    EXPECT_EQ("stopped 100 200", reason(opened()));
    for (const char *text :
         {"", "1e", "-5", "100", "100 boot-1", "100 boot-1 x\nweb", "99999999999999999999999 b 1\nweb"}) {
        std::ofstream(path) << text;
        EXPECT_EQ("", reason(opened())) << text;
    }
}

TEST_F(LastWatchTest, WhatCannotBeWrittenIsSaidAndLeavesWhatWas)
{
    keep(true);
    const LastWatch last = opened();
    std::string error;
    for (const char *name : {"open", "write", "rename"}) {
        const testlib::Fault fault(name, 1, ENOSPC);
        EXPECT_FALSE(last.keep(150, {"web"}, false, error)) << name;
        EXPECT_NE(error.find(last.path() + ": No space left"), std::string::npos) << error;
    }
    EXPECT_EQ("stopped 100 200", reason(opened()));
}

}  // namespace
