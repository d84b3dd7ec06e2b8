/* Tests of process_directory.h: what is read of one process, whole or broken. */

#include <fcntl.h>
#include <gtest/gtest.h>

#include "common/fd.h"
#include "container/process_directory.h"
#include "testlib/container_world/container_world.h"
#include "testlib/tree.h"

using container::Chain;
using container::ListEnd;
using testlib::made_id;
using Ids = std::vector<uint64_t>;

namespace
{

Ids numbers_of(const std::string &text, size_t piece)
{
    Ids ids;
    container::MountNumbers numbers;
    for (size_t i = 0; i < text.size(); i += piece)
        numbers.feed(std::string_view(text).substr(i, piece), [&](uint64_t id) { ids.push_back(id); });
    return ids;
}

TEST(ContainerLibMounts, NumbersAreReadWhateverThePieces)
{
    const std::string text = testlib::mount_line(7) + testlib::mount_line(12345, "/a\\0408\\012 9 1 0:1 / /x") +
                             testlib::mount_line(2147483647);
    for (const size_t piece : {size_t{1}, size_t{2}, size_t{3}, size_t{64}, text.size()})
        EXPECT_EQ((Ids{7, 12345, 2147483647}), numbers_of(text, piece)) << piece;
}

TEST(ContainerLibMounts, RubbishGivesNoNumbers)
{
    EXPECT_EQ(Ids{}, numbers_of("\n\n x 5 6\n-3 4\n5x 3\n12", 4));
    EXPECT_EQ(Ids{13}, numbers_of("12\n13 1\n", 3));
    EXPECT_EQ(Ids{}, numbers_of(std::string(10000, '9'), 100));
}

TEST(ContainerLibStat, NamesDoNotShiftTheFields)
{
    const std::string rest = " S 1 1 1 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 1 0 4711 1 2 3\n";
    for (const char *name : {"sh", "a b", ") R 1", "((", ") S 1 1 1 0 -1 1 1 2 3 4 5 6 7 8 20 0 1 0 99 1"})
        EXPECT_EQ(4711u, container::parse_start_time("5 (" + std::string(name) + ")" + rest)) << name;
    for (const char *text : {"", "5", "5 (sh", "5 (sh)", "5 (sh) S 1 1"})
        EXPECT_EQ(UINT64_MAX, container::parse_start_time(text)) << text;
}

/* One process of a made-up /proc. */
class ContainerLibProcess : public testing::Test
{
protected:
    ContainerLibProcess() : world(tree.root())
    {
        world.add({5, 77, "/docker/" + made_id(1), {10, 11}});
        proc = common::Fd(open(world.proc().c_str(), O_RDONLY | O_DIRECTORY));
    }
    ListEnd list(Ids &ids, size_t budget = 1 << 20) const
    {
        return container::list_mounts(proc.get(), 5, budget, [&](uint64_t id) { ids.push_back(id); });
    }
    testlib::TempTree tree;
    testlib::ContainerWorld world;
    common::Fd proc;
};

TEST_F(ContainerLibProcess, IsRead)
{
    EXPECT_EQ(77u, container::mount_namespace(proc.get(), 5));
    EXPECT_EQ(5u, container::start_time(proc.get(), 5));
    EXPECT_EQ(container::process_group(proc.get(), 5).chain, Chain{made_id(1)});
    Ids ids;
    EXPECT_EQ(ListEnd::kWhole, list(ids));
    EXPECT_EQ((Ids{10, 11}), ids);
}

TEST_F(ContainerLibProcess, OneThatIsGoneShowsNothing)
{
    world.remove(5);
    EXPECT_EQ(0u, container::mount_namespace(proc.get(), 5));
    EXPECT_EQ(UINT64_MAX, container::start_time(proc.get(), 5));
    EXPECT_EQ(Chain{}, container::process_group(proc.get(), 5).chain);
    Ids ids;
    EXPECT_EQ(ListEnd::kFailed, list(ids));
}

TEST_F(ContainerLibProcess, HugeFilesAreNotTakenIn)
{
    world.write("proc/5/cgroup", std::string(200'000, 'x') + "\n0::/docker/" + made_id(1) + "\n");
    EXPECT_EQ(Chain{}, container::process_group(proc.get(), 5).chain);
}

TEST_F(ContainerLibProcess, LongListsAreCut)
{
    const std::string line = testlib::mount_line(9, "/" + std::string(100'000, 'y'));
    world.write("proc/5/mountinfo", line + line + line);
    Ids ids;
    EXPECT_EQ(ListEnd::kCut, list(ids, line.size() + 1000));
    EXPECT_EQ(2u, ids.size());
    EXPECT_EQ(ListEnd::kCut, list(ids, 0));
    size_t budget = 10 * line.size();
    EXPECT_EQ(ListEnd::kWhole, container::list_mounts(proc.get(), 5, budget, [](uint64_t) {}));
    EXPECT_EQ(budget, 7 * line.size());
}

}  // namespace
