/* The file of the service's configuration: which files are trusted, and how faults in them are told. */
#include "cli/run/config_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include "cli/run/config_read.h"
#include "unit/agent/agent_testing.h"

using namespace cli;
using Texts = std::vector<std::string>;

namespace
{

class ConfigFileTest : public testing::Test
{
protected:
    /* Why a file of that mode in a directory of that mode is refused; empty: it is not. */
    std::string refusal(mode_t file_mode, mode_t directory_mode)
    {
        const std::string inner = directory.dir("inner"), path = directory.file("inner/fmon.toml", "x = 1\n");
        chmod(path.c_str(), file_mode);
        chmod(inner.c_str(), directory_mode);
        std::string text, error;
        EXPECT_EQ(error.empty(), read_config_file(path, text, error) && text == "x = 1\n");
        return error;
    }

    agent_testing::Directory directory;
};

}  // namespace

TEST_F(ConfigFileTest, OnlyItsOwnerMayWriteToIt)
{
    EXPECT_EQ("", refusal(0644, 0755));
    EXPECT_EQ(directory.path("inner/fmon.toml") + ": others may write to it: chmod go-w", refusal(0664, 0755));
    EXPECT_EQ(directory.path("inner/fmon.toml") + ": others may write to it: chmod go-w", refusal(0646, 0755));
}

TEST_F(ConfigFileTest, NobodyMayPutAnotherInItsPlace)
{
    EXPECT_EQ(directory.path("inner") + ": others may write to it: chmod go-w", refusal(0644, 0777));
    EXPECT_EQ("", refusal(0644, 01777));
}

TEST_F(ConfigFileTest, ALinkIsHeldToWhatItLeadsTo)
{
    const std::string path = directory.file("fmon.toml", "");
    chmod(path.c_str(), 0666);
    const std::string link = directory.path("link");
    ASSERT_EQ(0, symlink(path.c_str(), link.c_str()));
    std::string text, error;
    EXPECT_FALSE(read_config_file(link, text, error));
    EXPECT_EQ(path + ": others may write to it: chmod go-w", error);
}

TEST_F(ConfigFileTest, WhatIsNoFileIsRefused)
{
    std::string text, error;
    EXPECT_FALSE(read_config_file(directory.path("none"), text, error));
    EXPECT_EQ(directory.path("none") + ": there is no such file: name one with --config FILE", error);
    EXPECT_FALSE(read_config_file(directory.root(), text, error));
    EXPECT_EQ(directory.root() + ": it is no file", error);
    EXPECT_FALSE(read_config_file(directory.file("long", std::string(5 << 20, '#')), text, error));
    EXPECT_EQ(directory.path("long") + ": it is longer than 4 MiB", error);
}

TEST_F(ConfigFileTest, FaultsBeginWithTheFile)
{
    Config config;
    const std::string path = directory.file("fmon.toml", "a = \n");
    const std::vector<std::string> lines = load_config(path, config);
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(lines[0].starts_with(path + ":1:")) << lines[0];
}
