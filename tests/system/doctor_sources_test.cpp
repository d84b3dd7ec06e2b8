/*
 * What `fmon doctor` says of the source that serves each mount, on mounts of the test's own and with fewer rights than
 * root's. In a mount namespace of its own.
 */
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "harness.h"
#include "stranger.h"

using namespace systest;
using testlib::TempTree;

namespace
{

using Arguments = std::vector<std::string>;

class DoctorSources : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    void SetUp() override
    {
        if (!own_mounts)
            GTEST_SKIP() << "needs root, for a mount namespace";
    }
    void TearDown() override
    {
        for (const char *dir : {"overlay", "nested", "tmpfs", "one", "two"})
            while (umount2(tree.path(dir).c_str(), MNT_DETACH) == 0) {
            }
    }
    /* What is said of the mount at `point`; `before`: what starts the doctor. */
    static Json check_of(const std::string &point, Arguments before = {})
    {
        for (const char *word : {FMON_TEST_BIN "/fmon", "doctor", "--format", "json"})
            before.emplace_back(word);
        Process doctor({before});
        Json found;
        while (auto line = doctor.line()) {
            const Json check = Json::parse(*line);
            if (check.value("section", "") == "sources" && check.value("name", "") == point)
                found = check;
        }
        return found;
    }
    static std::string text_of(const std::string &point, const Arguments &before = {})
    {
        return check_of(point, before).value("text", "");
    }
    /* Without a right, as the program starts. */
    static Arguments without(const char *right)
    {
        return {"/usr/bin/setpriv", "--bounding-set", right, "--inh-caps", right};
    }

    static inline bool own_mounts = false;
    TempTree tree;
};

TEST_F(DoctorSources, AFileSystemThatTakesAMark)
{
    const std::string point = tree.dir("tmpfs");
    mount_tmpfs(point);
    const std::string text = text_of(point);
    if (text.find("has no id") != std::string::npos)
        GTEST_SKIP() << text;
    EXPECT_EQ("filesystem", text);
    EXPECT_EQ(0, umount2(point.c_str(), 0)) << "nothing keeps it: " << strerror(errno);
}

TEST_F(DoctorSources, AnOverlayHasMarks)
{
    const std::string base = tree.dir("tmpfs"), point = tree.dir("overlay");
    mount_tmpfs(base);
    for (const char *layer : {"lower", "upper", "work"})
        make_dir(base + "/" + layer);
    const std::string layers =
        "lowerdir=" + base + "/lower,upperdir=" + base + "/upper,workdir=" + base + "/work,nfs_export=off";
    if (::mount("overlay", point.c_str(), "overlay", 0, layers.c_str()) != 0)
        GTEST_SKIP() << "no overlay: " << strerror(errno);
    const Json check = check_of(point);
    EXPECT_EQ("warn", check.value("state", ""));
    EXPECT_EQ(0u, check.value("text", "").find("marks: overlay has no")) << check.value("text", "");
    EXPECT_NE("", check.value("remedy", ""));
}

// A mount below another, and the same file system a second time.
TEST_F(DoctorSources, ABindMountIsServedAsItsFileSystem)
{
    const std::string base = tree.dir("tmpfs"), point = tree.dir("nested");
    mount_tmpfs(base);
    make_dir(base + "/a");
    bind_mount(base + "/a", point);
    EXPECT_EQ(text_of(point), text_of(base));
}

// An image and its copy: their events could not be told apart.
TEST_F(DoctorSources, OfTwoFileSystemsWithOneIdOneIsServed)
{
    const std::string one = tree.dir("one"), two = tree.dir("two"), image = tree.path("image");
    const std::string command = "exec 2>&1 >/dev/null; truncate -s 8M " + image + " && mkfs.ext4 -q " + image +
                                " && cp " + image + " " + image + "2 && mount -o loop " + image + " " + one +
                                " && mount -o loop " + image + "2 " + two;
    NEED(system(command.c_str()) == 0, "needs mkfs.ext4 and loop devices");
    EXPECT_EQ("filesystem", text_of(one));
    const Json check = check_of(two);
    EXPECT_EQ("marks: its file system has the id of the one on " + one + ", as copied images have",
              check.value("text", ""));
    EXPECT_NE(std::string::npos, check.value("remedy", "").find("tune2fs -U random"));
}

TEST_F(DoctorSources, WithoutTheRights)
{
    NEED(access("/usr/bin/setpriv", X_OK) == 0, "no setpriv");
    const std::string point = tree.dir("tmpfs");
    mount_tmpfs(point);
    if (text_of(point) != "filesystem")
        GTEST_SKIP() << "tmpfs takes no mark here";
    const std::string admin = text_of(point, without("-sys_admin")),
                      search = text_of(point, without("-dac_read_search"));
    EXPECT_EQ(0u, admin.find("marks")) << admin;
    EXPECT_EQ(0u, search.find("marks: a file handle cannot be opened (Operation not permitted)")) << search;
}

}  // namespace
