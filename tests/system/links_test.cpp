/*
 * Links that are put where a directory was a moment ago, while the tree is followed: nothing that lies elsewhere is
 * ever watched, and nothing stays watched that is gone.
 */
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* inotify watches that a process has, as the kernel lists them. */
size_t marks_of(pid_t pid)
{
    size_t count = 0;
    const std::string directory = "/proc/" + std::to_string(pid) + "/fdinfo";
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);)
            count += line.rfind("inotify wd:", 0) == 0;
    }
    return count;
}

/* The watches once they no longer change. */
size_t settled_marks_of(pid_t pid)
{
    size_t before = SIZE_MAX, now = marks_of(pid);
    for (int round = 0; round < 50 && now != before; round++) {
        pause_ms(300);
        before = std::exchange(now, marks_of(pid));
    }
    return now;
}

class Links : public testing::Test
{
protected:
    Links()
    {
        for (int i = 0; i < 300; i++)
            elsewhere.dir("top/deep/d" + std::to_string(i));
    }

    TempTree tree, elsewhere;
};

/* mkdir a; mkdir a/top; mv a b; ln -s ELSEWHERE a */
TEST_F(Links, ALinkInTheDirectorysPlaceIsNotWalked)
{
    Watch watch(tree.root(), {"-r", "-e", "attrib"}); /* silent: nobody reads */
    watch.established();
    const std::string a = tree.path("a"), b = tree.path("b");
    for (int round = 0; round < 400; round++) {
        make_dir(a);
        make_dir(a + "/top");
        make_dir(a + "/top/deep");
        move(a, b);
        ASSERT_EQ(0, symlink(elsewhere.root().c_str(), a.c_str()));
        pause_ms(round % 4);
        remove_file(a);
        std::filesystem::remove_all(b);
    }
    EXPECT_LE(settled_marks_of(watch.process().pid()), 1u);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* A directory and a link change places. */
TEST_F(Links, ALinkExchangedForADirectoryIsNotWalked)
{
    Watch watch(tree.root(), {"-r", "-e", "attrib"}); /* silent: nobody reads */
    watch.established();
    const std::string a = tree.dir("a"), link = tree.path("link");
    make_dir(a + "/top");
    ASSERT_EQ(0, symlink(elsewhere.root().c_str(), link.c_str()));
    for (int round = 0; round < 400; round++) {
        ASSERT_EQ(0, renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE));
        pause_ms(round % 3 == 0);
    }
    EXPECT_LE(settled_marks_of(watch.process().pid()), 3u);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

}  // namespace
