/* Who watches tracefs: lists of marks as the kernel writes them, and a made tree of processes. */
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "fanotify_marks.h"

using namespace kprobe;
namespace fs = std::filesystem;

namespace
{

const FileSystem kTracefs = {0xc, {31, 255}};
const std::string kHead = "pos:\t0\nflags:\t02\nmnt_id:\t15\nfanotify flags:0 event-flags:0\n";

class Processes
{
public:
    Processes()
    {
        char name[] = "/tmp/fmon-procXXXXXX";
        root_ = mkdtemp(name);
    }
    ~Processes() { fs::remove_all(root_); }
    void add(const std::string &pid, const std::string &fd, const std::string &target, const std::string &info)
    {
        fs::create_directories(root_ + "/" + pid + "/fd");
        fs::create_directories(root_ + "/" + pid + "/fdinfo");
        fs::create_symlink(target, root_ + "/" + pid + "/fd/" + fd);
        std::ofstream(root_ + "/" + pid + "/fdinfo/" + fd) << info;
    }
    const std::string &root() const { return root_; }

private:
    std::string root_;
};

}  // namespace

TEST(KprobeFanotifyMarks, OfEveryKind)
{
    for (const char *mark :
         {"fanotify mnt_id:1f mflags:40 mask:38 ignored_mask:0\n", "fanotify mnt_id:ff mflags:0 mask:1\n",
          "fanotify sdev:c mflags:0 mask:38 ignored_mask:0\n",
          "fanotify ino:41 sdev:c mflags:0 mask:3b ignored_mask:0 fhandle-bytes:8 fhandle-type:1\n", "fanotify sdev:c"})
        EXPECT_TRUE(has_fanotify_mark(kHead + mark, kTracefs)) << mark;
}

TEST(KprobeFanotifyMarks, OfOtherFileSystems)
{
    for (const char *mark : {"", "fanotify mnt_id:1e mflags:40\n", "fanotify mnt_id:31 mflags:40\n",
                             "fanotify ino:c sdev:800001 mflags:0\n", "inotify wd:1 ino:41 sdev:c mask:2\n",
                             "fanotify sdev: mflags:c\n", "fanotify\n", "fanotify sdev:zz\n"})
        EXPECT_FALSE(has_fanotify_mark(kHead + mark, kTracefs)) << mark;
}

TEST(KprobeFanotifyMarks, TheProcessThatHasOne)
{
    Processes processes;
    const std::string mark = kHead + "fanotify sdev:c mflags:0 mask:38 ignored_mask:0\n";
    EXPECT_EQ(0, fanotify_watcher(processes.root(), kTracefs)) << "nobody";
    processes.add("12", "3", "/some/file", mark);
    processes.add("self", "3", "anon_inode:[fanotify]", mark);
    processes.add("13", "4", "anon_inode:[fanotify]", kHead);
    EXPECT_EQ(0, fanotify_watcher(processes.root(), kTracefs)) << "no fanotify, no process, no mark";
    processes.add("4711", "9", "anon_inode:[fanotify]", mark);
    EXPECT_EQ(4711, fanotify_watcher(processes.root(), kTracefs));
    EXPECT_EQ(0, fanotify_watcher(processes.root() + "/missing", kTracefs));
}
