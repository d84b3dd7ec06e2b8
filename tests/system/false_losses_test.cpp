/* What is no loss is not told as one, and what is one is told once. */
#include <gtest/gtest.h>

#include "harness.h"

using namespace systest;
using testlib::TempTree;

namespace
{

/* The losses that are told until nothing was for `ms`. */
std::vector<Json> losses(Watch &watch, int ms)
{
    std::vector<Json> found;
    while (auto object = watch.next(ms))
        if ((*object)["type"] == "loss")
            found.push_back(*object);
    return found;
}

TEST(FalseLosses, ADirectoryMovedOntoAnEmptyOne)
{
    TempTree tree;
    const std::string old = tree.dir("old"), fresh = tree.path("fresh");
    Watch watch(tree.root(), {"-r", "-e", "create"});
    watch.established();
    for (int i = 0; i < 5; i++) {
        make_dir(fresh);
        pause_ms(30);
        move(fresh, old);
        pause_ms(30);
    }
    for (const Json &loss : losses(watch, 3000))
        ADD_FAILURE() << loss;
    EXPECT_EQ("", watch.process().errors());
    EXPECT_EQ(0, watch.stop());
}

/* Directories for which there is no room, made within a moment. */
TEST(FalseLosses, ManyAtOnceAreToldTogether)
{
    TempTree tree;
    Watch watch(tree.root(), {"-r", "--source", "marks", "--set", "max_dentries=16", "-e", "delete"});
    watch.established();
    for (int i = 0; i < 40; i++) {
        make_dir(tree.path("d" + std::to_string(i)));
        pause_ms(5);
    }
    const std::vector<Json> told = losses(watch, 3000);
    ASSERT_EQ(1u, told.size()) << watch.process().errors();
    EXPECT_GE(told[0]["count"].number(), 24);
    EXPECT_LE(told[0]["count"].number(), 40);
    const std::string said = watch.process().errors();
    EXPECT_EQ(said.find("fmon:"), said.rfind("fmon:")) << said;
    EXPECT_EQ(0, watch.stop());
}

}  // namespace
