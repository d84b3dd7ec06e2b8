/*
 * `fmon watch -r -e all`: what each operation on a tree is reported as, and that nothing else is. Records of one path
 * and process merge while they wait, so what is compared is the set of event names per path between two markers.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "harness.h"

using namespace systest;
using testlib::can_fanotify;
using testlib::TempTree;

namespace
{

constexpr char kWritten[] = "create,open,modify,close_write";

class WatchEvents : public testing::Test
{
protected:
    void SetUp() override
    {
        tree_.dir("in/old/deep/er");
        tree_.dir("out");
        watch_.emplace(root_, std::vector<std::string>{"-r", "-e", "all"});
        watch_->established();
        /* That directories are read for the watch is told, too; without root nobody knows that it was fmon. */
        EXPECT_TRUE(watch_->barrier(root_).empty() || !can_fanotify());
    }
    void TearDown() override
    {
        if (watch_) {
            EXPECT_EQ(0, watch_->stop()) << watch_->process().errors();
        }
    }

    std::string in(const std::string &below) const { return root_ + "/" + below; }
    std::string out(const std::string &below) const { return tree_.root() + "/out/" + below; }

    /* One row of a script: what is done, and what must be reported for it, and nothing more. */
    void section(const char *what, const std::function<void()> &act, const std::map<std::string, std::string> &want)
    {
        SCOPED_TRACE(what);
        act();
        EXPECT_EQ(watch_->barrier(root_), paths(want));
    }

    TempTree tree_;
    std::string root_ = tree_.root() + "/in";
    std::optional<Watch> watch_;
};

TEST_F(WatchEvents, OfFiles)
{
    section("create, write, close", [&] { make_file(in("a")); }, {{"a", kWritten}});
    section("read", [&] { read_file(in("a")); }, {{"a", "open,access,close_nowrite"}});
    section("append", [&] { append_file(in("a")); }, {{"a", "open,modify,close_write"}});
    section("chmod", [&] { change_mode(in("a"), 0600); }, {{"a", "attrib"}});
    section("rename", [&] { move(in("a"), in("b")); }, {{"a", "moved_from"}, {"b", "moved_to"}});
    section("hard link", [&] { hard_link(in("b"), in("c")); }, {{"c", "create"}});
    section("write through the link", [&] { append_file(in("c")); }, {{"c", "open,modify,close_write"}});
    section("rename over a file", [&] { make_file(out("d")), move(out("d"), in("c")); }, {{"c", "moved_to"}});
    section("move out", [&] { move(in("c"), out("c")); }, {{"c", "moved_from"}});
    section("write outside", [&] { append_file(out("c")); }, {});
    section("move in", [&] { move(out("c"), in("e")); }, {{"e", "moved_to"}});
    section("symbolic link", [&] { EXPECT_EQ(0, symlink("b", in("l").c_str())); }, {{"l", "create"}});
    section("FIFO", [&] { EXPECT_EQ(0, mkfifo(in("p").c_str(), 0600)); }, {{"p", "create"}});
    section("delete", [&] { remove_file(in("b")), remove_file(in("l")); }, {{"b", "delete"}, {"l", "delete"}});
}

TEST_F(WatchEvents, OfDirectories)
{
    NEED(can_fanotify(), "without root what fmon reads itself is not told from what others read");
    section("mkdir", [&] { make_dir(in("d")); }, {{"d", "create"}});
    section("in the new one", [&] { make_file(in("d/f")); }, {{"d/f", kWritten}});
    section("chmod", [&] { change_mode(in("d"), 0700); }, {{"d", "attrib"}});
    section("list", [&] { (void)!std::filesystem::is_empty(in("d")); }, {{"d", "open,access,close_nowrite"}});
    section("rename", [&] { move(in("d"), in("e")); }, {{"d", "moved_from"}, {"e", "moved_to"}});
    section("under the new name", [&] { make_file(in("e/g")); }, {{"e/g", kWritten}});
    section("delete its files", [&] { remove_file(in("e/f")), remove_file(in("e/g")); },
            {{"e/f", "delete"}, {"e/g", "delete"}});
    section("rmdir", [&] { remove_dir(in("e")); }, {{"e", "delete,delete_self"}});
    section("the same name again", [&] { make_dir(in("e")); }, {{"e", "create"}});
    section("in that one", [&] { make_file(in("e/h")); }, {{"e/h", kWritten}});
}

TEST_F(WatchEvents, OfDeepTrees)
{
    section("far below, from the start", [&] { make_file(in("old/deep/er/f")); }, {{"old/deep/er/f", kWritten}});
    std::string path = "n";
    section("a chain, link by link", [&] { make_dir(in("n")); }, {{"n", "create"}});
    for (int i = 0; i < 20; i++) {
        path += "/n";
        section("next link", [&] { make_dir(in(path)); }, {{path, "create"}});
    }
    section("at its end", [&] { make_file(in(path + "/f")); }, {{path + "/f", kWritten}});
    section("delete that", [&] { remove_file(in(path + "/f")); }, {{path + "/f", "delete"}});
    std::map<std::string, std::string> gone;
    for (std::string link = path; link != "n"; link.resize(link.size() - 2))
        gone[link] = "delete,delete_self";
    section(
        "remove the chain",
        [&] {
            for (std::string link = path; link != "n"; link.resize(link.size() - 2))
                remove_dir(in(link));
        },
        gone);
}

TEST_F(WatchEvents, OfTreesThatLeaveAndArrive)
{
    NEED(can_fanotify(), "without root what fmon reads itself is not told from what others read");
    section("fill", [&] { make_file(in("old/deep/er/f")); }, {{"old/deep/er/f", kWritten}});
    section("leave", [&] { move(in("old"), out("old")); }, {{"old", "moved_from"}});
    section("outside nothing is seen",
            [&] {
                append_file(out("old/deep/er/f"));
                make_file(out("old/deep/g"));
                make_dir(out("old/deep/d"));
                change_mode(out("old/deep"), 0700);
            },
            {});
    section("arrive", [&] { move(out("old"), in("new")); }, {{"new", "moved_to"}});
    section("all of it is watched", [&] { append_file(in("new/deep/er/f")), make_file(in("new/deep/d/h")); },
            {{"new/deep/er/f", "open,modify,close_write"}, {"new/deep/d/h", kWritten}});
    section("a tree that was never here", [&] { std::filesystem::create_directories(out("x/y/z")); }, {});
    section("arrives", [&] { move(out("x"), in("x")); }, {{"x", "moved_to"}});
    section("and is watched", [&] { make_file(in("x/y/z/f")); }, {{"x/y/z/f", kWritten}});
    section("within the tree", [&] { move(in("x"), in("new/deep/x")); },
            {{"x", "moved_from"}, {"new/deep/x", "moved_to"}});
    section("and is still watched", [&] { append_file(in("new/deep/x/y/z/f")); },
            {{"new/deep/x/y/z/f", "open,modify,close_write"}});
}

/* What removes a tree also reads its directories; a directory that is gone by the time its record is read drops that
 * record, so those three kinds may be missing. Nothing else may, and nothing may be added. Such records hold the
 * directory until they are read, and only then does the kernel say delete_self: after the first marker. */
TEST_F(WatchEvents, OfTreesRemovedAsAWhole)
{
    make_file(in("old/f")), make_file(in("old/deep/f")), make_file(in("old/deep/er/f"));
    watch_->barrier(root_);
    std::filesystem::remove_all(in("old"));
    Paths seen = watch_->barrier(root_);
    for (const auto &[path, kinds] : watch_->barrier(root_))
        seen[path].insert(kinds.begin(), kinds.end());
    for (auto &[path, kinds] : seen)
        if (!path.ends_with("f"))
            for (const char *reading : {"open", "access", "close_nowrite"})
                kinds.erase(reading);
    std::erase_if(seen, [](const auto &at) { return at.second.empty(); }); /* "(deleted)" while it was looked up */
    EXPECT_EQ(seen, paths({{"old", "delete,delete_self"},
                           {"old/f", "delete"},
                           {"old/deep", "delete,delete_self"},
                           {"old/deep/f", "delete"},
                           {"old/deep/er", "delete,delete_self"},
                           {"old/deep/er/f", "delete"}}));
}

TEST_F(WatchEvents, OfManyFilesAtOnce)
{
    std::map<std::string, std::string> made, gone;
    for (int i = 0; i < 2000; i++) {
        made["f" + std::to_string(i)] = kWritten;
        gone["f" + std::to_string(i)] = "delete";
    }
    section(
        "make",
        [&] {
            for (auto &[name, kinds] : made)
                make_file(in(name));
        },
        made);
    section(
        "delete",
        [&] {
            for (auto &[name, kinds] : gone)
                remove_file(in(name));
        },
        gone);
}

TEST_F(WatchEvents, NameTheProcess)
{
    NEED(can_fanotify(), "the causing process is told to root only");
    Child child([&] { make_file(in("a")); });
    watch_->barrier(root_);
    int written = 0;
    for (const Json &event : watch_->events()) {
        if (event.value("pid", 0) == 0)
            continue;
        written++;
        EXPECT_EQ(event["pid"], child.pid());
        EXPECT_EQ(event["process"]["exe"], std::filesystem::read_symlink("/proc/self/exe").string());
        EXPECT_EQ(event["process"]["ppid"], getpid());
        EXPECT_EQ(event["process"]["uid"], getuid());
        EXPECT_FALSE(event["process"].value("name", "").empty());
        EXPECT_TRUE(event["process"].contains("cmdline"));
    }
    EXPECT_GE(written, 1);
}

/* ---- with --pid ---- */

TEST(WatchPids, EveryModifyAndCloseNamesItsWriter)
{
    NEED(can_fanotify(), "the causing process is told to root only");
    TempTree tree;
    for (int i = 0; i < 10; i++)
        tree.file("f" + std::to_string(i));
    Watch watch(tree.root(), {"-r", "--pid", "-e", "modify,close"});
    watch.established();

    std::map<std::string, pid_t> writer;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 10; i++) {
        std::string path = tree.path("f" + std::to_string(i));
        children.push_back(std::make_unique<Child>([&] { append_file(path), read_file(path); }));
        writer[path] = children.back()->pid();
    }
    Paths want;
    for (int i = 0; i < 10; i++)
        want["f" + std::to_string(i)] = names("modify,close_write,close_nowrite");
    EXPECT_EQ(want, watch.barrier(tree.root(), {"close_write"}));
    for (const Json &event : watch.events())
        EXPECT_EQ(event["pid"], writer[event["path"]]) << event;
    EXPECT_EQ(0, watch.stop());
}

/* Two writers of one file are told apart. */
TEST(WatchPids, TwoWritersOfOneFile)
{
    NEED(can_fanotify(), "the causing process is told to root only");
    TempTree tree;
    std::string path = tree.file("f");
    Watch watch(tree.root(), {"-r", "--pid", "-e", "modify,close_write"});
    watch.established();
    Child first([&] { append_file(path); });
    Child second([&] { append_file(path); });
    watch.barrier(tree.root(), {"close_write"});
    std::map<int, Names> by_pid;
    for (const Json &event : watch.events())
        for (const std::string name : event["events"])
            by_pid[event["pid"].number()].insert(name);
    EXPECT_EQ(
        (std::map<int, Names>{{first.pid(), names("modify,close_write")}, {second.pid(), names("modify,close_write")}}),
        by_pid);
    EXPECT_EQ(0, watch.stop());
}

/* ---- the first line ---- */

TEST(WatchEstablished, ComesFirstAndCountsDirectories)
{
    TempTree tree;
    tree.dir("a/b/c"), tree.dir("d");
    Watch watch(tree.root(), {"-r", "-e", "create"});
    Json first = watch.established();
    EXPECT_EQ(first["paths"], Json::array({tree.root()})) << first;
    /* The root and four below; or one mark for a whole file system. */
    EXPECT_EQ(by_filesystem() ? 0 : 5, first["directories"]) << first;
    EXPECT_EQ(0, watch.stop());
}

TEST(WatchEstablished, IsNotSaidOfAMissingPath)
{
    TempTree tree;
    Process process({{std::string(FMON_TEST_BIN) + "/fmon", "watch", "--format", "json", tree.path("missing")}});
    EXPECT_EQ(std::nullopt, process.line());
    EXPECT_EQ(2, process.wait());
    std::string errors = process.errors();
    EXPECT_NE(errors.find(tree.path("missing")), std::string::npos) << errors;
    EXPECT_EQ(1, std::count(errors.begin(), errors.end(), '\n')) << errors;
}

}  // namespace
