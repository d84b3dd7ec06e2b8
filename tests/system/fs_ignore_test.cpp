/* Loud directories outside of what is watched, of whose files the kernel is asked to report nothing (fs_ignore). */
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "file_systems.h"

using namespace systest;

namespace
{

constexpr int kFiles = 4000;

class Ignoring : public FileSystems
{
protected:
    void SetUp() override
    {
        FileSystems::SetUp();
        utsname name = {};
        NEED(uname(&name) == 0 && atoi(name.release) >= 6, "such marks came with Linux 6.0");
    }
    /* Until the kernel was asked. */
    void be_loud(Watch &watch)
    {
        for (int round = 0; round < 100 && !is_ignored(watch, loud); round++)
            for (int i = 0; i < kFiles / 10; i++) {
                make_file(loud + "/f" + std::to_string(i));
                remove_file(loud + "/f" + std::to_string(i));
            }
        EXPECT_TRUE(is_ignored(watch, loud));
    }
    /* Whether the command has an ignore mark there: "fanotify ino:12 sdev:3 mflags:240 mask:0 ignored_mask:100". */
    static bool is_ignored(Watch &watch, const std::string &directory)
    {
        struct stat st = {};
        EXPECT_EQ(0, stat(directory.c_str(), &st));
        char mark[64];
        snprintf(mark, sizeof mark, "fanotify ino:%llx ", static_cast<unsigned long long>(st.st_ino));
        const std::string all = "/proc/" + std::to_string(watch.process().pid()) + "/fdinfo";
        for (const auto &entry : std::filesystem::directory_iterator(all)) {
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);) {
                const size_t at = line.find(" ignored_mask:");
                if (line.starts_with(mark) && at != std::string::npos &&
                    strtoul(line.c_str() + at + strlen(" ignored_mask:"), nullptr, 16) != 0)
                    return true;
            }
        }
        return false;
    }
    /* Other programs' directories may be loud, too: there is room for all. */
    static std::vector<std::string> arguments()
    {
        return with({"-e", "create,delete,close_write,moved_from,moved_to", "--set", "fs_ignore=1024"});
    }

    const std::string watched = tree.dir("watched"), loud = tree.dir("outside/loud");
};

TEST_F(Ignoring, ALoudDirectoryIsSilentUntilItComesInside)
{
    Watch watch(watched, arguments());
    watch.losses_are_due();
    watch.established();
    be_loud(watch);
    make_file(loud + "/unseen");
    make_file(watched + "/seen");
    EXPECT_EQ(paths({{"seen", "create,close_write"}}), watch.barrier(watched));
    make_file(loud + "/file");
    make_dir(loud + "/directory");
    move(loud + "/file", watched + "/file");
    move(loud + "/directory", watched + "/directory");
    EXPECT_EQ(paths({{"file", "moved_to"}, {"directory", "moved_to"}}), watch.barrier(watched));
    move(watched + "/file", loud + "/file");
    move(watched + "/directory", loud + "/directory");
    EXPECT_EQ(paths({{"file", "moved_from"}, {"directory", "moved_from"}}), watch.barrier(watched));
    EXPECT_TRUE(is_ignored(watch, loud));
    move(loud, watched + "/here");
    EXPECT_EQ("table", watch.next_of("loss").value("source", ""));
    EXPECT_FALSE(is_ignored(watch, watched + "/here"));
    make_file(watched + "/here/known");
    EXPECT_EQ(paths({{"here/known", "create,close_write"}}), watch.barrier(watched));
    EXPECT_EQ(0, watch.stop());
}

TEST_F(Ignoring, ABindMountInsideHearsIt)
{
    const std::string point = tree.dir("watched/point");
    Watch watch(watched, arguments());
    watch.losses_are_due(); /* what happened between the mount and the look at it */
    watch.established();
    be_loud(watch);
    ASSERT_EQ(0, mount(loud.c_str(), point.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
    EXPECT_TRUE(is_watched(watch, point));
    EXPECT_FALSE(is_ignored(watch, loud));
    EXPECT_EQ(0, watch.stop());
    EXPECT_EQ(0, umount2(point.c_str(), MNT_DETACH));
}

/* Whatever is made in it right after: it is reported, or there was a loss. */
TEST_F(Ignoring, NothingIsMissedWithoutALoss)
{
    Watch watch(watched, arguments());
    watch.losses_are_due();
    watch.established();
    be_loud(watch);
    move(tree.path("outside"), watched + "/here");
    for (int i = 0; i < kFiles; i++)
        make_file(watched + "/here/loud/g" + std::to_string(i));
    make_file(watched + "/end");
    Names seen;
    for (bool lost = false, ended = false; !lost || !ended;) {
        const auto object = watch.next();
        ASSERT_TRUE(object) << "loss " << lost << ", end " << ended;
        const std::string path = object->value("path", "");
        lost |= object->value("type", "") == "loss";
        ended |= path == watched + "/end";
        if (path.find("/here/loud/g") != std::string::npos)
            seen.insert(path);
    }
    RecordProperty("missed", static_cast<int>(kFiles - seen.size()));
    EXPECT_TRUE(is_watched(watch, watched + "/here/loud"));
    EXPECT_EQ(0, watch.stop());
}

TEST_F(Ignoring, OtherMonitorsHearAllOfIt)
{
    Watch watch(watched, arguments());
    watch.established();
    be_loud(watch);
    {
        Watch second(tree.path("outside"), arguments());
        second.established();
        make_file(loud + "/g");
        EXPECT_EQ(paths({{"loud/g", "create,close_write"}}), second.barrier(tree.path("outside")));
        EXPECT_EQ(0, second.stop());
    }
    EXPECT_EQ(0, watch.stop());
}

TEST_F(Ignoring, NoneIsIgnoredUnlessItIsAskedFor)
{
    Watch watch(watched, with({"-e", "create,delete"}));
    watch.established();
    for (int i = 0; i < kFiles; i++) {
        make_file(loud + "/f");
        remove_file(loud + "/f");
    }
    make_file(watched + "/seen");
    EXPECT_EQ(paths({{"seen", "create"}}), watch.barrier(watched, {"create"}));
    EXPECT_FALSE(is_ignored(watch, loud));
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
