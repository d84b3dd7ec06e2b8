/*
 * file_systems.h: the fixture of tests of directories that are watched by events of whole file systems, in a mount
 * namespace of its own.
 */
#ifndef SYSTEM_FILE_SYSTEMS_H
#define SYSTEM_FILE_SYSTEMS_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "harness.h"
#include "stranger.h"

namespace systest
{

inline const std::vector<std::string> kByFileSystem = {"-r", "--source", "filesystem"};

inline std::vector<std::string> with(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), kByFileSystem.begin(), kByFileSystem.end());
    return arguments;
}

inline bool can_watch_file_systems()
{
    testlib::TempTree tree;
    Watch watch(tree.root(), kByFileSystem);
    const auto first = watch.next();
    watch.stop();
    return first && first->value("type", "") == "established";
}

class FileSystems : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        own_mounts = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        can_watch = own_mounts && can_watch_file_systems();
    }
    void SetUp() override
    {
        NEED(testlib::is_root(), "marks of file systems need root");
        if (!can_watch)
            GTEST_SKIP() << "this kernel, or the file system of temporary files, has no such events";
    }
    void TearDown() override
    {
        while (umount2(mounted.c_str(), MNT_DETACH) == 0) {
        }
    }

    void mount_new()
    {
        std::filesystem::create_directories(mounted);
        ASSERT_EQ(0, mount("fmon-test", mounted.c_str(), "tmpfs", 0, nullptr)) << strerror(errno);
    }
    /* Makes files in a directory until one is reported: what was mounted a moment ago is known a moment later. */
    bool is_watched(Watch &watch, const std::string &directory)
    {
        return !watch.until_reported([&](int round) { make_file(directory + "/file" + std::to_string(round)); })
                    .empty();
    }
    /* Whether the last barrier's events all have a process. */
    static void expect_processes(const Watch &watch)
    {
        for (const Json &event : watch.events())
            EXPECT_NE(0u, event.value("pid", 0u)) << event;
    }

    static inline bool own_mounts = false, can_watch = false;
    testlib::TempTree tree;
    const std::string mounted = tree.path("mounted");
};

}  // namespace systest

#endif
