/* What the kernel says of directories and of the halves of renames reaches the records, by each source. */
#include <gtest/gtest.h>

#include <cstdio>

#include "file_systems.h"
#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* A watch on what is made, removed and renamed below a directory, by marks without kernel probes or by file systems. */
class Renames : public testing::TestWithParam<const char *>
{
protected:
    void SetUp() override
    {
        if (GetParam() == std::string("filesystem"))
            NEED(can_watch_file_systems(), "needs marks of file systems");
    }
    std::vector<std::string> arguments(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> all = {"-r", "--source", GetParam(), "--probes", "off", "-e", "create,delete,move"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    void rename(const std::string &from, const std::string &to) const
    {
        EXPECT_EQ(0, std::rename(tree.path(from).c_str(), tree.path(to).c_str()));
    }
    /* The next event as "kinds path", and what else is said of it. */
    std::string next(Watch &watch) const
    {
        const Json event = watch.next_of("event");
        std::string line = event["events"].dump() + " " + below(event["path"].text());
        if (event.contains("from"))
            line += " from " + below(event["from"].text());
        return line + (event.contains("dir") ? " dir" : "");
    }
    std::string below(const std::string &path) const { return path.substr(tree.root().size() + 1); }

    TempTree tree;
};

INSTANTIATE_TEST_SUITE_P(Sources, Renames, testing::Values("marks", "filesystem"),
                         [](const auto &source) { return std::string(source.param); });

TEST_P(Renames, DirectoriesAreSaidToBeSome)
{
    Watch watch(tree.root(), arguments());
    watch.established();
    make_dir(tree.path("d"));
    EXPECT_EQ("[\"create\"] d dir", next(watch));
    make_file(tree.path("f"));
    EXPECT_EQ("[\"create\"] f", next(watch));
    tree.remove("d");
    EXPECT_EQ("[\"delete\"] d dir", next(watch)) << "when it is gone";
    EXPECT_EQ(0, watch.stop());
}

TEST_P(Renames, HaveBothPathsInOneRecord)
{
    make_dir(tree.path("d"));
    make_file(tree.path("f"));
    Watch watch(tree.root(), arguments({"--pair-renames"}));
    watch.established();
    rename("f", "g");
    EXPECT_EQ("[\"moved_to\"] g from f", next(watch));
    rename("d", "e");
    EXPECT_EQ("[\"moved_to\"] e from d dir", next(watch));
    rename("g", "e/h");
    EXPECT_EQ("[\"moved_to\"] e/h from g", next(watch));
    EXPECT_EQ(0, watch.stop());
}

TEST_P(Renames, OutOfTheTreeAndIntoItHaveOnePath)
{
    const TempTree other;
    make_file(tree.path("f"));
    make_file(other.path("x"));
    Watch watch(tree.root(), arguments({"--pair-renames"}));
    watch.established();
    EXPECT_EQ(0, std::rename(tree.path("f").c_str(), other.path("f").c_str()));
    EXPECT_EQ("[\"moved_from\"] f", next(watch));
    EXPECT_EQ(0, std::rename(other.path("x").c_str(), tree.path("x").c_str()));
    EXPECT_EQ("[\"moved_to\"] x", next(watch));
    EXPECT_EQ(0, watch.stop());
}

TEST_P(Renames, AStormOfThemLeavesNoHalfAlone)
{
    constexpr int kFiles = 500;
    for (int i = 0; i < kFiles; i++)
        make_file(tree.path("a" + std::to_string(i)));
    Watch watch(tree.root(), arguments({"--pair-renames"}));
    watch.established();
    for (int i = 0; i < kFiles; i++)
        rename("a" + std::to_string(i), "b" + std::to_string(i));
    for (int i = 0; i < kFiles; i++) {
        const std::string number = std::to_string(i);
        ASSERT_EQ("[\"moved_to\"] b" + number + " from a" + number, next(watch));
    }
    EXPECT_EQ(0, watch.stop());
}

TEST_P(Renames, ATemplateHasThemToo)
{
    make_file(tree.path("f"));
    Process watch({{std::string(FMON_TEST_BIN) + "/fmon", "watch", "-q", "-n", "1", "--source", GetParam(), "--probes",
                    "off", "-e", "move", "-f", "%o>%w>%F", tree.root()}});
    std::optional<std::string> line;
    for (int i = 0; i < 300 && !line; i++) {
        rename(i % 2 ? "g" : "f", i % 2 ? "f" : "g");
        line = watch.line(50);
    }
    const std::string forth = tree.path("f") + ">" + tree.root() + "/>g",
                      back = tree.path("g") + ">" + tree.root() + "/>f";
    EXPECT_TRUE(line == forth || line == back) << line.value_or("nothing");
    EXPECT_EQ(0, watch.wait());
}

}  // namespace
