/* Where watches listen for those who ask for a dump: sockets in a private directory, and who may make and use it. */
#include "agent/dump_place.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "unit/agent/agent_testing.h"

using namespace agent;

namespace
{

/* A watch that was killed leaves its name. */
TEST(CliDumpPlace, WhatIsLeftBehindIsRemoved)
{
    const agent_testing::Directory directory;
    listen_in(directory.root(), 1); /* and closed without a word */
    rename(directory.path(socket_name(getpid())).c_str(), directory.path("fmon-2147483646.socket").c_str());
    common::Fd socket;
    EXPECT_EQ(ECONNREFUSED, connect_in(directory.root(), 2147483646, socket));
    listen_in(directory.root(), 1);
    EXPECT_EQ(pids_in_directory(directory.root()), std::vector<pid_t>{getpid()});
    const common::Fd again = listen_in(directory.root(), 1);
    EXPECT_TRUE(again) << "of the same number";
    EXPECT_EQ(0, connect_in(directory.root(), getpid(), socket));
    EXPECT_FALSE(listen_in(directory.root(), 1)) << "one that listens is not replaced";
}

TEST(CliDumpPlace, OnlyAPrivateDirectoryIsUsed)
{
    const agent_testing::Directory directory;
    uid_t owner = 0;
    for (const mode_t mode : {0701, 0710, 0704, 0777}) {
        ASSERT_EQ(0, chmod(directory.root().c_str(), mode));
        EXPECT_FALSE(listen_in(directory.root(), 1)) << std::oct << mode;
        EXPECT_FALSE(open_private_directory(directory.root(), owner));
        EXPECT_EQ(EPERM, errno);
    }
    ASSERT_EQ(0, chmod(directory.root().c_str(), 0700));
    EXPECT_TRUE(open_private_directory(directory.root(), owner));
    EXPECT_EQ(owner, geteuid());
    const std::string made = directory.path("made"), link = directory.path("link");
    EXPECT_TRUE(make_private_directory(made));
    EXPECT_EQ(std::filesystem::status(made).permissions(), std::filesystem::perms::owner_all);
    ASSERT_EQ(0, symlink("made", link.c_str()));
    EXPECT_FALSE(make_private_directory(link));
    EXPECT_FALSE(make_private_directory(directory.file("file")));
    EXPECT_FALSE(make_private_directory(directory.path("no/such")));
}

/* What is no socket of the directory's own is not connected to. */
TEST(CliDumpPlace, LinksAreNotFollowed)
{
    const agent_testing::Directory directory, elsewhere;
    const std::string name = socket_name(getpid());
    const common::Fd listener = listen_in(elsewhere.root(), 1);
    common::Fd socket;
    ASSERT_EQ(0, connect_in(elsewhere.root(), getpid(), socket));
    ASSERT_EQ(0, symlink(elsewhere.path(name).c_str(), directory.path(name).c_str()));
    EXPECT_NE(0, connect_in(directory.root(), getpid(), socket));
    ASSERT_EQ(0, symlink(elsewhere.root().c_str(), directory.path("way").c_str()));
    EXPECT_NE(0, connect_in(directory.path("way"), getpid(), socket));
    directory.file(name.substr(0, 5) + "1.socket");
    EXPECT_NE(0, connect_in(directory.root(), 1, socket));
}

/* Longer than an address may be. */
TEST(CliDumpPlace, ALongPath)
{
    const agent_testing::Directory directory;
    const std::string path = directory.dir(std::string(120, 'x'));
    ASSERT_EQ(0, chmod(path.c_str(), 0700));
    const common::Fd listener = listen_in(path, 1);
    ASSERT_TRUE(listener);
    common::Fd socket;
    EXPECT_EQ(0, connect_in(path, getpid(), socket));
}

TEST(CliDumpPlace, WithoutADescriptorThereIsNone)
{
    const agent_testing::Directory directory;
    const common::Fd listener = listen_in(directory.root(), 16);
    struct rlimit before, few;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    few = {64, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    std::vector<common::Fd> rest;
    while (common::Fd fd{open("/dev/null", O_RDONLY | O_CLOEXEC)})
        rest.push_back(std::move(fd));
    common::Fd socket;
    for (int left = 0; left < 4; left++) {
        EXPECT_EQ(connect_in(directory.root(), getpid(), socket), left < 3 ? EMFILE : 0) << left;
        socket.reset();
        EXPECT_EQ(bool(listen_in(directory.path(std::to_string(left)), 1)), left >= 2) << left;
        rest.pop_back();
    }
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
}

}  // namespace
