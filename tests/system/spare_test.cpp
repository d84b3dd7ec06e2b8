/* Sub-trees of a watched tree that are left unwatched: neither shown nor marked, by each source. */
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "file_systems.h"
#include "run_service.h"

using namespace systest;
using testlib::TempTree;

namespace
{

class Spared : public testing::TestWithParam<const char *>
{
protected:
    void SetUp() override
    {
        if (GetParam() == std::string("filesystem"))
            NEED(can_watch_file_systems(), "needs marks of file systems");
        for (const char *name : {"in", "out/a/b"})
            tree.dir(name);
    }
    std::vector<std::string> arguments() const
    {
        return {"-r", "--source", GetParam(), "--probes", "off", "-e", "create,delete,move", "@" + tree.path("out")};
    }
    void rename(const std::string &from, const std::string &to) const
    {
        EXPECT_EQ(0, std::rename(tree.path(from).c_str(), tree.path(to).c_str()));
    }

    TempTree tree;
};

INSTANTIATE_TEST_SUITE_P(Sources, Spared, testing::Values("marks", "filesystem"),
                         [](const auto &source) { return std::string(source.param); });

TEST_P(Spared, NothingBelowIsShown)
{
    Watch watch(tree.root(), arguments());
    EXPECT_EQ(GetParam() == std::string("marks") ? 2 : 0, watch.established().value("directories", -1))
        << "the tree itself and \"in\"";
    make_file(tree.path("out/a/b/f"));
    make_dir(tree.path("out/new"));
    make_file(tree.path("out/new/f"));
    make_file(tree.path("in/f"));
    EXPECT_EQ(paths({{"in/f", "create"}}), watch.barrier(tree.root(), {"create"}));
    EXPECT_EQ(0, watch.stop());
}

TEST_P(Spared, WhatComesAndGoesAcrossTheBorderIsShownOnThisSide)
{
    make_file(tree.path("in/f"));
    make_file(tree.path("out/g"));
    Watch watch(tree.root(), arguments());
    watch.established();
    rename("in/f", "out/f");
    rename("out/g", "in/g");
    EXPECT_EQ(paths({{"in/f", "moved_from"}, {"in/g", "moved_to"}}), watch.barrier(tree.root(), {"create"}));
    rename("out", "shown");
    watch.barrier(tree.root(), {"create"});
    make_file(tree.path("shown/a/b/h"));
    EXPECT_EQ(paths({{"shown/a/b/h", "create"}}), watch.barrier(tree.root(), {"create"}))
        << "by another name it is watched";
    EXPECT_EQ(0, watch.stop());
}

/* A new directory that is only found has such a sub-tree, too. */
TEST_P(Spared, WhatIsFoundInNewDirectoriesIsNotShownEither)
{
    tree.remove("out");
    Watch watch(tree.root(), arguments());
    watch.established();
    watch.process().send(SIGSTOP);
    EXPECT_EQ(watch.process().pid(), waitpid(watch.process().pid(), nullptr, WUNTRACED));
    for (const char *name : {"out", "out/a", "out/a/b"})
        make_dir(tree.path(name));
    make_file(tree.path("out/a/b/f"));
    watch.process().send(SIGCONT);
    EXPECT_EQ(paths({{"out", "create"}}), watch.barrier(tree.root(), {"create"}));
    EXPECT_EQ(0, watch.stop());
}

}  // namespace

TEST(SparedService, EachWatchHasItsOwn)
{
    TempTree tree;
    Service service(tree);
    tree.dir("w/out/a");
    const std::string watch = tree_text(tree.path("w")) + "events = [\"create\"]\n";
    service.configure(
        instance_text("some", watch + "spare = [\"" + tree.path("w/out") + "\"]\n", file_text(tree.path("some"))) +
        instance_text("all", watch, file_text(tree.path("all"))));
    service.start();
    for (const char *name : {"w/out/a/f", "w/f"})
        make_file(tree.path(name));
    const auto has = [&](const char *file, size_t count) {
        return await([&] { return paths_in(tree.path(file), {"create"}).size() == count; });
    };
    EXPECT_TRUE(has("all", 2) && has("some", 1)) << content(tree.path("some"));
    EXPECT_EQ(std::vector<std::string>{tree.path("w/f")}, paths_in(tree.path("some"), {"create"}));
}
