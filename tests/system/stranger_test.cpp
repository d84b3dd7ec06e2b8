/*
 * What another user of the machine, who has no right over the monitor, can do to `fmon watch` that runs as root.
 */
#include "stranger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "marks.h"
#include "orx_fmon.h"

using namespace systest;
using testlib::TempTree;

namespace
{

constexpr char kNeedsStranger[] = "needs root, and a directory of temporary files that others may enter";
constexpr char kNeedsNamespace[] = "needs user namespaces that anybody may make";

/* ---- he is what he is said to be ---- */

TEST(Stranger, HasNoRights)
{
    NEED(can_be_stranger(), kNeedsStranger);
    TempTree tree;
    std::string home = strangers_dir(tree, "home"), others = tree.file("others", "x");
    EXPECT_EQ(0, chmod(others.c_str(), 0644));
    EXPECT_TRUE(run(as_stranger([&] {
        EXPECT_EQ(kStranger, getuid());
        EXPECT_EQ(0, getgroups(0, nullptr));
        make_file(home + "/mine");
        EXPECT_LT(open(others.c_str(), O_WRONLY), 0);
        EXPECT_LT(open("/etc/shadow", O_RDONLY), 0);
        EXPECT_NE(0, setuid(0));
    })));
}

TEST(Stranger, MountsInHisNamespaceOnly)
{
    NEED(can_have_namespace(), kNeedsNamespace);
    TempTree tree;
    std::string home = strangers_dir(tree, "home"), there = home + "/there";
    EXPECT_TRUE(run(in_own_namespace([&] {
        make_dir(there);
        mount_tmpfs(there);
        make_dir(there + "/inside");
        bind_mount(home, there + "/inside");
        EXPECT_EQ(0, access((there + "/inside/there").c_str(), F_OK));
        EXPECT_LT(open("/etc/shadow", O_RDONLY), 0);
    })));
    EXPECT_EQ(0, access(there.c_str(), F_OK));
    EXPECT_NE(0, access((there + "/inside").c_str(), F_OK));
}

/* What is checked in a child, and what does not end, reaches the test. */
TEST(Stranger, FailuresAndTimeLimitsAreSeen)
{
    EXPECT_FALSE(Background([] { ADD_FAILURE() << "on purpose"; }).wait());
    EXPECT_TRUE(Background([] {}).wait());
    Background endless([] { pause(); });
    EXPECT_FALSE(endless.wait(50));
    EXPECT_TRUE(endless.runs());
}

/* His lease holds up whoever opens the file without saying that he does not want to wait. */
TEST(Stranger, LeasesHoldUpOpening)
{
    NEED(can_be_stranger(), kNeedsStranger);
    TempTree tree;
    std::string home = strangers_dir(tree, "home"), file = home + "/leased";
    Child holder(as_stranger([&] {
        make_file(file);
        take_lease(file, F_WRLCK);
    }));
    EXPECT_LT(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), 0);
    EXPECT_EQ(EWOULDBLOCK, errno);
}

/* ---- what he can do to the monitor ---- */

constexpr char kAllKinds[] = "open,access,modify,close_write,create,delete,moved_from,moved_to";

class Strangers : public testing::Test
{
protected:
    void SetUp() override
    {
        NEED(testlib::can_fanotify() && can_be_stranger(), kNeedsStranger);
        NEED(can_have_namespace(), kNeedsNamespace);
    }

    /* Reads until this kind of event was told of the path. */
    static bool told(Watch &watch, const std::string &path, const std::string &kind, int ms = kPatienceMs)
    {
        const int64_t end = now_ms() + ms;
        for (int64_t left; (left = end - now_ms()) > 0;) {
            const auto object = watch.next(static_cast<int>(left));
            if (!object)
                return false;
            if (object->value("path", "") == path && (*object)["events"].dump().find(kind) != std::string::npos)
                return true;
        }
        return false;
    }

    /* Whether what happens in the directory is told, by inotify and by fanotify. */
    static void expect_heard(Watch &watch, const std::string &dir)
    {
        static int number = 0;
        const std::string file = dir + "/heard" + std::to_string(number++);
        make_file(file);
        EXPECT_TRUE(told(watch, file, "close_write")) << file;
        remove_file(file);
        EXPECT_TRUE(told(watch, file, "delete")) << file;
    }

    /* That the process has marks on these directories and on nothing else, once it has caught up. */
    void expect_marks(Watch &watch, const std::string &root)
    {
        const auto wrong = [&] {
            const Marks expected = expected_marks({{root, FMON_OPEN | FMON_CREATE, FMON_DIR | FMON_RECURSIVE}});
            return compare_marks(expected, actual_marks(watch.process().pid()), tree_.root());
        };
        if (by_filesystem()) /* one mark for all of them */
            return;
        std::vector<std::string> lines = wrong();
        for (const int64_t end = now_ms() + kPatienceMs; !lines.empty() && now_ms() < end; lines = wrong())
            pause_ms(100);
        EXPECT_TRUE(lines.empty()) << lines.size() << ": " << lines.front();
    }

    TempTree tree_;
    const std::string home_ = strangers_dir(tree_, "home");
    const std::string watched_ = tree_.dir("watched");
};

/* For everybody else his path is a link to what is watched: an event told under the path, which is not watched, would
 * have the marks of the watched directory taken away. */
TEST_F(Strangers, AliasesTakeNoMarksAway)
{
    const std::string sub = tree_.dir("watched/sub"), file = tree_.file("watched/sub/f", "x"), alias = home_ + "/alias";
    Watch watch(watched_, {"-r", "-e", kAllKinds});
    watch.established();
    expect_heard(watch, sub);
    EXPECT_TRUE(run(in_own_namespace([&] {
        make_link(watched_, alias);
        mount_tmpfs(home_);
        make_dir(alias);
        bind_mount(watched_, alias);
        for (int i = 0; i < 20; i++)
            read_file(alias + "/sub/f");
    })));
    expect_heard(watch, sub);
    expect_marks(watch, watched_);
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* Links take the place of directories that are about to be looked into. */
TEST_F(Strangers, LinksLeadNoWatchElsewhere)
{
    for (int i = 0; i < 50; i++)
        tree_.dir("decoy/usr/d" + std::to_string(i));
    const std::string his = strangers_dir(tree_, "watched/his"), decoy = tree_.path("decoy");
    Watch watch(watched_, {"-r", "-e", kAllKinds});
    watch.established();
    EXPECT_TRUE(run(as_stranger([&] {
                        make_dir(his + "/d");
                        make_dir(his + "/d/usr");
                        make_link(decoy, his + "/l");
                        for (int i = 0; i < 300; i++) {
                            const std::string a = his + "/a" + std::to_string(i), b = his + "/b" + std::to_string(i);
                            make_dir(a);
                            make_dir(a + "/usr");
                            move(a, b);
                            make_link(decoy, a);
                            exchange(his + "/d", his + "/l");
                            exchange(his + "/d", his + "/l");
                            remove_file(a);
                            remove_dir(b + "/usr");
                            remove_dir(b);
                        }
                    }),
                    2 * kPatienceMs));
    expect_marks(watch, watched_);
    expect_heard(watch, his + "/d/usr");
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

/* Ten directories one in the other, each with a name of 120 bytes, and five others beside each. */
void make_deep(const std::string &top)
{
    make_dir(top);
    int dir = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < 10; level++) {
        for (int i = 0; i < 5; i++)
            EXPECT_EQ(0, mkdirat(dir, std::to_string(i).c_str(), 0755));
        const std::string name(120, 'd');
        EXPECT_EQ(0, mkdirat(dir, name.c_str(), 0755));
        const int next = openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(dir);
        dir = next;
    }
    close(dir);
}

/* Of trees deeper than any path that can be told, moved in and removed, nothing stays in the cache, which has a limit.
 */
TEST_F(Strangers, DeepTreesDoNotFillTheCache)
{
    const std::string his = strangers_dir(tree_, "watched/his");
    Watch watch(watched_, {"-r", "-e", kAllKinds});
    watch.established();
    for (int round = 0; round < 5; round++) {
        const std::string deep = home_ + "/deep", in = his + "/deep" + std::to_string(round);
        EXPECT_TRUE(run(as_stranger([&] {
            make_deep(deep);
            move(deep, in);
        })));
        expect_heard(watch, watched_); /* so that the tree was looked into before it goes */
        std::filesystem::remove_all(in);
    }
    expect_marks(watch, watched_);
    Process dump({{FMON_TEST_BIN "/fmon", "dump", "-t", "dentries", std::to_string(watch.process().pid())}});
    int lines = 0;
    for (auto line = dump.line(); line; line = dump.line(), lines++)
        EXPECT_EQ(line->find("/deep"), std::string::npos) << *line;
    EXPECT_GT(lines, 0) << dump.errors();
    EXPECT_EQ(0, watch.stop()) << watch.process().errors();
}

}  // namespace
