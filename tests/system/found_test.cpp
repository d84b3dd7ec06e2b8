/* What was made in a new directory before the directory could be marked: told as found, and once. */
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* Makes a directory with files and directories in it while the monitor stands still: only the first one's creation
 * is in a record. */
void make_unseen(Watch &watch, const std::string &top)
{
    watch.process().send(SIGSTOP);
    EXPECT_EQ(watch.process().pid(), waitpid(watch.process().pid(), nullptr, WUNTRACED));
    make_dir(top);
    make_dir(top + "/dir");
    make_file(top + "/dir/file");
    make_file(top + "/file");
    watch.process().send(SIGCONT);
}

/* "path" or "path found" of the creations until the marker, by their number. */
std::map<std::string, int> creations(Watch &watch, const TempTree &tree)
{
    std::map<std::string, int> told;
    watch.barrier(tree.root(), {"create"});
    for (const Json &event : watch.events()) {
        const std::string path = event["path"].text().substr(tree.root().size() + 1);
        told[path + (event.contains("found") ? " found" : "")]++;
    }
    return told;
}

TEST(FoundFiles, AreToldBehindTheirDirectory)
{
    TempTree tree;
    Watch watch(tree.root(), {"-r", "--source", "marks", "-e", "create"});
    watch.established();
    make_unseen(watch, tree.path("a"));
    EXPECT_EQ("a", watch.next_of("event")["path"].text().substr(tree.root().size() + 1));
    for (int i = 0; i < 3; i++) {
        const Json event = watch.next_of("event");
        EXPECT_EQ("true", event.contains("found") ? event["found"].dump() : "") << event;
        EXPECT_EQ(0, event["pid"]) << event;
    }
    make_file(tree.path("a/dir/later"));
    EXPECT_EQ((std::map<std::string, int>{{"a/dir/later", 1}}), creations(watch, tree));
    EXPECT_EQ(0, watch.stop());
}

TEST(FoundFiles, AreLeftOutWhereThatIsNotWanted)
{
    TempTree tree;
    Watch watch(tree.root(), {"-r", "--source", "marks", "-e", "create", "--no-found"});
    watch.established();
    make_unseen(watch, tree.path("a"));
    EXPECT_EQ((std::map<std::string, int>{{"a", 1}}), creations(watch, tree));
    EXPECT_EQ(0, watch.stop());
}

TEST(FoundFiles, OfAStormAreToldOnceEach)
{
    TempTree tree;
    Watch watch(tree.root(), {"-r", "--source", "marks", "-e", "create"});
    watch.established();
    std::map<std::string, int> want, seen;
    for (int i = 0; i < 300; i++) {
        std::string path = "t" + std::to_string(i);
        std::filesystem::create_directories(tree.path(path + "/a/b/c/d"));
        make_file(tree.path(path + "/a/b/c/d/f"));
        want[path] = 1;
        for (const char *part : {"/a", "/b", "/c", "/d", "/f"})
            want[path += part] = 1;
    }
    for (size_t told = 0; told < want.size(); told++) {
        const auto event = watch.next();
        if (!event)
            break;
        EXPECT_EQ("event", (*event)["type"]) << *event;
        seen[event->value("path", tree.root() + "/none").substr(tree.root().size() + 1)]++;
    }
    for (const auto &[path, times] : want)
        EXPECT_EQ(times, seen[path]) << path;
    EXPECT_EQ(want, seen);
    EXPECT_EQ((std::map<std::string, int>{}), creations(watch, tree)) << "told again";
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
