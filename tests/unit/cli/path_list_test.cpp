/* Paths that stand in a file. */
#include "cli/watch/path_list.h"

#include <unistd.h>

#include <climits>

#include "unit/agent/agent_testing.h"
#include "unit/cli/parse.h"

using agent_testing::Directory;
using cli::read_path_list;
using Paths = std::vector<std::string>;

namespace
{

Paths paths_of(const std::string &text)
{
    const Directory directory;
    Paths paths;
    std::string error;
    EXPECT_TRUE(read_path_list(directory.file("list", text), paths, error)) << error;
    return paths;
}

std::string refusal_of(const std::string &text)
{
    const Directory directory;
    Paths paths;
    std::string error;
    EXPECT_FALSE(read_path_list(directory.file("list", text), paths, error));
    return error;
}

/* The standard input, from a file, while it lives. */
class Input
{
public:
    explicit Input(const std::string &file) : old_(dup(STDIN_FILENO))
    {
        EXPECT_TRUE(freopen(file.c_str(), "r", stdin));
    }
    ~Input()
    {
        dup2(old_, STDIN_FILENO);
        close(old_);
    }
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

private:
    int old_;
};

}  // namespace

TEST(CliPathList, EachLineIsAPath)
{
    EXPECT_EQ((Paths{"/a", "b c", "\xff"}), paths_of("/a\nb c\n\xff\n"));
    EXPECT_EQ((Paths{"/a", "/b"}), paths_of("/a\n/b")) << "the last line need not end";
    EXPECT_EQ((Paths{"/a", " "}), paths_of("\n/a\n\n \n\n")) << "empty lines are none";
    EXPECT_EQ(Paths{}, paths_of(""));
    const std::string longest(PATH_MAX - 1, 'a');
    EXPECT_EQ((Paths{longest, longest, "b"}), paths_of(longest + "\n" + longest + "\nb\n"));
}

TEST(CliPathList, WhatCannotBeAPathIsNamedByItsLine)
{
    EXPECT_NE(refusal_of("/a\n\n" + std::string(PATH_MAX, 'a') + "\n").find("line 3 is too long"), std::string::npos);
    EXPECT_NE(refusal_of(std::string("/a\n/b\0c\n", 8)).find("line 2 holds a NUL"), std::string::npos);
}

TEST(CliPathList, ADashIsTheStandardInput)
{
    const Directory directory;
    const Input input(directory.file("in", "/x\n/y\n"));
    const auto parsed = cli_testing::parse({"--fromfile", "-", "/a"});
    EXPECT_TRUE(parsed.ok) << parsed.error;
    EXPECT_EQ((Paths{"/a", "/x", "/y"}), parsed.options.paths);
}
