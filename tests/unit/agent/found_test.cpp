/* Tests of found.h: what is in a new directory is told once, by its record or as found. */
#include "agent/found.h"

#include <map>

#include "orx_fmon.h"
#include "unit/agent/agent_testing.h"

using namespace agent;
using agent_testing::Directory;

namespace
{

using Lines = std::vector<std::string>;

class FoundTest : public testing::Test
{
protected:
    /* Shows records of these paths and kinds in one batch. */
    void show(const std::vector<std::pair<std::string, uint32_t>> &records)
    {
        Batch batch;
        for (const auto &[path, mask] : records)
            batch.append({5, mask, 42, 1, path, "", nullptr}, nullptr);
        found.begin(batch);
        for (size_t i = 0; i < batch.size(); i++) {
            const Event event = batch.event(i);
            if (const uint32_t news = found.news(event))
                lines.push_back(name(event) + (news == event.mask ? "" : " in part"));
            found.shown(event, [this](const Event &made) { tell(made); });
        }
    }
    void create(const std::string &below) { show({{directory.path(below), FMON_CREATE}}); }
    void marked(const std::string &below) { found.marked(directory.path(below)); }
    Lines take() { return std::exchange(lines, {}); }

    Directory directory;
    std::function<void()> complete = [] {}; /* what the keeper of trees does */
    Found found{[this] { complete(); }};
    Lines lines;

private:
    std::string name(const Event &event) const { return std::string(event.path.substr(directory.root().size() + 1)); }
    void tell(const Event &made)
    {
        EXPECT_TRUE(made.found);
        EXPECT_EQ(uint32_t{FMON_CREATE}, made.mask);
        EXPECT_EQ(0u, made.pid) << "who made it is not known";
        EXPECT_EQ(1u, made.source) << "the instance of the directory's creation";
        EXPECT_EQ(5u, made.time_ns);
        lines.push_back("found " + name(made));
    }
};

TEST_F(FoundTest, IsToldBehindTheCreationOfItsDirectory)
{
    directory.dir("a");
    directory.file("a/f");
    marked("a");
    create("a");
    EXPECT_EQ((Lines{"a", "found a/f"}), take());
    create("a");
    EXPECT_EQ(Lines{"a"}, take()) << "looked into once a mark";
}

TEST_F(FoundTest, WhatWasMovedInOrIsNotMarkedIsNotLookedInto)
{
    directory.dir("a");
    directory.file("a/f");
    create("a");
    marked("a");
    show({{directory.path("a"), FMON_MOVED_TO}});
    EXPECT_EQ((Lines{"a", "a"}), take());
}

/* The monitor was about to read the record of a/b when a was looked into: what is in a/b has none. */
TEST_F(FoundTest, WhatIsInADirectoryIsMarkedBeforeTheDirectoryIsLookedInto)
{
    directory.dir("a/b/c");
    directory.file("a/b/c/f");
    marked("a");
    marked("a/b");
    complete = [this, done = false]() mutable {
        if (!std::exchange(done, true))
            marked("a/b/c");
    };
    create("a");
    EXPECT_EQ((Lines{"a", "found a/b", "found a/b/c", "found a/b/c/f"}), take());
    create("a/b");
    EXPECT_EQ(Lines(), take());
}

TEST_F(FoundTest, WholeTreesAreFoundWithParentsFirst)
{
    directory.dir("a/b/c");
    directory.file("a/b/c/f");
    for (const char *path : {"a", "a/b", "a/b/c"})
        marked(path);
    create("a");
    EXPECT_EQ((Lines{"a", "found a/b", "found a/b/c", "found a/b/c/f"}), take());
}

TEST_F(FoundTest, ADirectoryThatIsNotMarkedYetIsLookedIntoWithItsOwnRecord)
{
    directory.dir("a/b");
    directory.file("a/b/f");
    marked("a");
    create("a");
    EXPECT_EQ((Lines{"a", "found a/b"}), take());
    marked("a/b");
    create("a/b");
    EXPECT_EQ(Lines{"found a/b/f"}, take()) << "the directory itself was told";
}

TEST_F(FoundTest, WhatHasARecordInTheBatchIsLeftToIt)
{
    directory.dir("a");
    directory.file("a/f");
    directory.file("a/g");
    marked("a");
    show({{directory.path("a"), FMON_CREATE},
          {directory.path("a/f"), FMON_CREATE},
          {directory.path("a/g"), FMON_MOVED_TO}});
    EXPECT_EQ((Lines{"a", "a/f", "a/g"}), take());
}

TEST_F(FoundTest, ARecordThatComesLaterSaysWhatWasNotTold)
{
    directory.dir("a");
    directory.file("a/f");
    directory.file("a/g");
    marked("a");
    create("a");
    take();
    create("a/f");
    show({{directory.path("a/g"), FMON_CREATE | FMON_CLOSE_WRITE}});
    EXPECT_EQ(Lines{"a/g in part"}, take());
    create("a/f");
    EXPECT_EQ(Lines{"a/f"}, take()) << "another creation";
}

TEST_F(FoundTest, ANameThatWentAndCameAgainIsToldAgain)
{
    directory.dir("a");
    for (const char *file : {"a/f", "a/g", "a/h"})
        directory.file(file);
    marked("a");
    create("a");
    take();
    show({{directory.path("a/f"), FMON_DELETE}, {directory.path("a/f"), FMON_CREATE}});
    show({{directory.path("a/g"), FMON_CREATE | FMON_DELETE}});
    show({{directory.path("a/h"), FMON_MOVED_TO}, {directory.path("a/h"), FMON_CREATE}});
    EXPECT_EQ((Lines{"a/f", "a/f", "a/g", "a/h", "a/h"}), take());
}

TEST_F(FoundTest, WhatIsMadeInADirectoryOfAFormerNameIsToldAgain)
{
    directory.dir("a/b");
    directory.dir("ab");
    for (const char *file : {"a/b/f", "a/g", "ab/h"})
        directory.file(file);
    for (const char *name : {"a", "a/b", "ab"})
        marked(name);
    create("a");
    create("ab");
    take();
    show({{directory.path("a"), FMON_MOVED_FROM}});
    for (const char *path : {"a/b/f", "a/g", "ab/h"})
        create(path);
    EXPECT_EQ((Lines{"a", "a/b/f", "a/g"}), take()) << "ab is another directory";
}

TEST_F(FoundTest, NoLinkIsFollowed)
{
    directory.file("elsewhere");
    directory.dir("there");
    directory.file("there/f");
    std::filesystem::create_symlink(directory.path("there"), directory.path("a"));
    marked("a");
    create("a");
    EXPECT_EQ(Lines{"a"}, take());
}

TEST_F(FoundTest, IsForgottenAfterSomeTimeAndWithALoss)
{
    directory.dir("a");
    directory.file("a/f");
    marked("a");
    create("a");
    take();
    for (int i = 0; i < 31; i++)
        found.look();
    create("a/f");
    EXPECT_EQ(Lines{}, take()) << "still known";
    marked("a");
    create("a");
    take();
    for (int i = 0; i < 33; i++)
        found.look();
    create("a/f");
    EXPECT_EQ(Lines{"a/f"}, take());
    marked("a");
    found.clear();
    create("a");
    EXPECT_EQ(Lines{"a"}, take());
}

TEST(RecentPaths, KeepsAsManyAsItSays)
{
    RecentPaths paths;
    paths.add("first");
    for (size_t i = 0; i < RecentPaths::kMost - 1; i++)
        paths.add(std::to_string(i));
    EXPECT_TRUE(paths.has("first"));
    for (size_t i = 0; i < RecentPaths::kMost; i++)
        paths.add("x" + std::to_string(i));
    EXPECT_TRUE(paths.has("x0"));
    paths.add("last");
    EXPECT_FALSE(paths.has("first"));
    EXPECT_TRUE(paths.take("last"));
    EXPECT_FALSE(paths.take("last"));
}

TEST(RecentPaths, ForgetsBelowADirectoryOnly)
{
    RecentPaths paths;
    for (const char *path : {"/a", "/a/b", "/a/b/c", "/a-b", "/a0", "/ab/c"})
        paths.add(path);
    paths.age();
    paths.add("/a/later");
    paths.forget_below("/a");
    for (const char *path : {"/a/b", "/a/b/c", "/a/later"})
        EXPECT_FALSE(paths.has(path)) << path;
    for (const char *path : {"/a", "/a-b", "/a0", "/ab/c"})
        EXPECT_TRUE(paths.has(path)) << path;
}

}  // namespace
