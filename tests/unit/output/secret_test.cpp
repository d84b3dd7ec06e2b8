/* Tests of secret.h: which files are taken for secrets, and that no message holds what is in them. */

#include "output/secret.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "testlib/tree.h"
#include "unit/agent/agent_testing.h"

using agent_testing::Directory;

namespace
{

class OutputSecret : public testing::Test
{
protected:
    ~OutputSecret() override { unsetenv("CREDENTIALS_DIRECTORY"); }

    std::string file(const std::string &name, const std::string &content, mode_t mode = 0600)
    {
        directory.file(name, content);
        chmod(directory.path(name).c_str(), mode);
        return directory.path(name);
    }
    void refused(const std::string &name, const std::string &why)
    {
        std::string secret, error;
        EXPECT_FALSE(output::read_secret(name, secret, error));
        EXPECT_NE(error.find(why), std::string::npos) << error;
        EXPECT_EQ(error.find("hush"), std::string::npos) << error;
    }
    void read(const std::string &name, const std::string &expected)
    {
        std::string secret, error;
        EXPECT_TRUE(output::read_secret(name, secret, error)) << error;
        EXPECT_EQ(expected, secret);
    }

    const Directory directory;
};

}  // namespace

TEST_F(OutputSecret, IsReadWithoutItsLineEnd)
{
    read(file("a", "hush\n"), "hush");
    read(file("b", "hush"), "hush");
    read(file("c", "two\nlines\n", 0400), "two\nlines");
    read(file("d", std::string(64 << 10, 'x')), std::string(64 << 10, 'x'));
}

TEST_F(OutputSecret, IsRefusedWhereOthersMayReadIt)
{
    refused(file("a", "hush", 0640), "others may read it: chmod 600");
    refused(file("b", "hush", 0604), "others may read it");
    std::string path, error;
    EXPECT_FALSE(output::secret_path(directory.path("a"), path, error));
}

TEST_F(OutputSecret, OrWhereItIsNone)
{
    refused(file("a", ""), "empty");
    refused(file("b", "\n"), "empty");
    refused(file("c", std::string((64 << 10) + 1, 'x')), "more than 64 KiB");
    refused(directory.dir("d"), "no regular file");
    refused(directory.path("missing"), "No such file");
}

TEST_F(OutputSecret, OfAnotherUserIsRefused)
{
    NEED(geteuid() == 0, "chown needs root");
    const std::string path = file("a", "hush");
    ASSERT_EQ(0, chown(path.c_str(), 4711, 0));
    refused(path, "belongs to another user");
}

TEST_F(OutputSecret, RelativeNamesAreCredentials)
{
    file("token", "hush\n", 0440);
    refused("token", "neither an absolute path nor one of the service's credentials");
    setenv("CREDENTIALS_DIRECTORY", directory.root().c_str(), 1);
    read("token", "hush");
    std::string path, error;
    EXPECT_TRUE(output::secret_path("token", path, error)) << error;
    EXPECT_EQ(directory.path("token"), path);
    refused("../token", "neither");
    refused("", "neither");
    chmod(directory.path("token").c_str(), 0444);
    refused("token", "others may read it");
}
