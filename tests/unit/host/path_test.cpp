/* Tests of "@" in paths, by program, environment and installation. */

#include <sys/wait.h>

#include <cstring>

#include "host_support.h"
#include "orx_base.h"
#include "orx_host.h"
#include "places.h"

namespace
{

using host_test::Environment;
using host_test::TempDir;

std::string transformed(const char *in)
{
    char out[4096] = "untouched";
    EXPECT_EQ(0, orx_dirutils_path_transform(in, out, sizeof out)) << in;
    return out;
}

std::string program_directory() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }

TEST(Path, PutsTheProgramsDirectoryForTheSign)
{
    Environment none("FMON_HOME", nullptr);
    EXPECT_EQ(transformed("@/../config/fmon.ini"), program_directory() + "/../config/fmon.ini");
    EXPECT_EQ(transformed("@"), program_directory());
    Environment empty("FMON_HOME", "");
    EXPECT_EQ(transformed("@/x"), program_directory() + "/x");
}

TEST(Path, PutsTheAgentsHomeWhereThatIsSet)
{
    Environment home("FMON_HOME", "/opt/agent");
    EXPECT_EQ("/opt/agent/bin/../lib/libhulbase.so", transformed("@/../lib/libhulbase.so"));
}

TEST(Path, CopiesEverythingElse)
{
    for (const char *path : {"", "/etc/fmon.ini", "relative", "/a/@/b", "@home/x", "@@"})
        EXPECT_EQ(transformed(path), path);
}

TEST(Path, DoesNotDependOnTheCurrentDirectory)
{
    Environment none("FMON_HOME", nullptr);
    TempDir dir;
    std::string before = std::filesystem::current_path();
    std::string first = transformed("@/x");
    Environment home("FMON_HOME", "stage");
    std::string second = transformed("@/x");
    std::filesystem::current_path(dir.path());
    EXPECT_EQ(transformed("@/x"), second);
    EXPECT_EQ(second, before + "/stage/bin/x") << "a relative home is meant from where the program started";
    unsetenv("FMON_HOME");
    EXPECT_EQ(transformed("@/x"), first);
    std::filesystem::current_path(before);
}

TEST(Path, CanBeOverridden)
{
    Environment home("FMON_HOME", "/opt/agent");
    ASSERT_EQ(0, orx_host_path_override("@/../lib/a.so", "/elsewhere/@/a.so"));
    EXPECT_EQ("/elsewhere/@/a.so", transformed("@/../lib/a.so")) << "taken as it is";
    EXPECT_EQ("/opt/agent/bin/../lib/a.so.1", transformed("@/../lib/a.so.1"));
    ASSERT_EQ(0, orx_host_path_override("@/../lib/a.so", ""));
    EXPECT_EQ("", transformed("@/../lib/a.so"));
    ASSERT_EQ(0, orx_host_path_override("@/../lib/a.so", nullptr));
    EXPECT_EQ("/opt/agent/bin/../lib/a.so", transformed("@/../lib/a.so"));
    EXPECT_EQ(0, orx_host_path_override("never set", nullptr));
    EXPECT_EQ(-1, orx_host_path_override(nullptr, "/x"));
}

/* What the package installs lies where the system keeps such files, and so does what is unpacked below a directory. */
TEST(Path, OfASystemsInstallation)
{
    using host::system_place;
    for (const std::string root : {"", "/mnt/target"}) {
        const std::string bin = root + "/usr/bin", lib = root + "/usr/lib/fmon";
        EXPECT_EQ(system_place("@/../config/fmon.ini", bin, lib), root + "/etc/fmon/fmon.ini");
        EXPECT_EQ(system_place("@/../lib", bin, lib), lib);
        EXPECT_EQ(system_place("@/../lib/libhulbase.so", bin, lib), lib + "/libhulbase.so");
        EXPECT_EQ(system_place("@/../var/log/agent/fmon", bin, lib), root + "/var/log/fmon");
        for (const char *other : {"@", "@/x", "@/../library/x", "@/../var/log/agent", "@/../configuration"})
            EXPECT_EQ(std::nullopt, system_place(other, bin, lib)) << other;
    }
}

TEST(Path, OfOneDirectorysInstallationIsNotTheSystems)
{
    using host::system_place;
    const char *const config = "@/../config/fmon.ini";
    EXPECT_EQ(std::nullopt, system_place(config, "/opt/fmon/bin", "/opt/fmon/lib"));
    EXPECT_EQ(std::nullopt, system_place(config, "/usr/bin", "/usr/lib")) << "installed below /usr as one directory";
    EXPECT_EQ(std::nullopt, system_place(config, "/usr/bin", "/opt/agent/lib")) << "an interpreter that loaded it";
    EXPECT_EQ(std::nullopt, system_place(config, "/opt/agent/bin", "/usr/lib/fmon")) << "an agent that borrows it";
    EXPECT_EQ(std::nullopt, system_place(config, "/a/usr/bin", "/b/usr/lib/fmon"));
    EXPECT_EQ(std::nullopt, system_place(config, "", "")) << "nobody said where the program is";
}

TEST(Path, KnowsWhereTheLibraryLies) { EXPECT_EQ(host::library_directory(), program_directory()); }

TEST(Path, SaysWhenItDoesNotFit)
{
    Environment home("FMON_HOME", "/h");
    char out[12];
    memset(out, 'x', sizeof out);
    EXPECT_EQ(-1, orx_dirutils_path_transform("@/12345", out, 12)); /* "/h/bin/12345" and its end need 13 */
    EXPECT_STREQ("/h/bin/1234", out);
    EXPECT_EQ(0, orx_dirutils_path_transform("@/1234", out, 12));
    EXPECT_STREQ("/h/bin/1234", out);
    EXPECT_EQ(-1, orx_dirutils_path_transform("@/", out, 1));
    EXPECT_STREQ("", out);
}

TEST(Path, RefusesMissingArguments)
{
    char out[12] = "x";
    EXPECT_EQ(-1, orx_dirutils_path_transform("@", nullptr, 5));
    EXPECT_EQ(-1, orx_dirutils_path_transform("@", out, 0));
    EXPECT_STREQ("x", out);
    EXPECT_EQ(-1, orx_dirutils_path_transform(nullptr, out, sizeof out));
    EXPECT_STREQ("", out);
}

/* A program that prints what "@" is for it: this one, copied to another tree and then moved with it. */
[[gnu::constructor(65535)]] void answer_as_child()
{
    const char *moved = getenv("HOST_PATH_TEST_MOVE");
    if (!moved)
        return;
    char first[4096], second[4096];
    orx_dirutils_path_transform("@/x", first, sizeof first);
    std::filesystem::rename(std::filesystem::path(first).parent_path().parent_path(), moved);
    orx_dirutils_path_transform("@/x", second, sizeof second);
    _exit(second == std::string(moved) + "/bin/x" ? 0 : 1);
}

TEST(Path, FollowsATreeThatIsMoved)
{
    TempDir dir;
    dir.dir("tree/bin");
    std::filesystem::copy_file("/proc/self/exe", dir.path("tree/bin/program"));
    Environment none("FMON_HOME", nullptr), move("HOST_PATH_TEST_MOVE", dir.path("elsewhere").c_str());
    pid_t pid = fork();
    if (pid == 0) {
        execl(dir.path("tree/bin/program").c_str(), "program", static_cast<char *>(nullptr));
        _exit(99);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, status);
    EXPECT_TRUE(dir.has("elsewhere/bin/program"));
}

}  // namespace
