/* Tests of patterns in paths: what matches, in which order, what is left out. */

#include <algorithm>
#include <cstring>

#include "host_support.h"
#include "orx_base.h"

namespace
{

using host_test::TempDir;
using Paths = std::vector<std::string>;

/* What a pattern below `root` finds, without the root; both kinds of memory go back with free(). */
Paths found(const std::string &root, const std::string &pattern)
{
    list_head head = {&head, &head};
    EXPECT_EQ(0, orx_wildcard_path_expand((root + pattern).c_str(), &head));
    Paths paths;
    for (list_head *node = head.next, *next; node != &head; node = next) {
        next = node->next;
        EXPECT_EQ(next->prev, node);
        auto *entry = reinterpret_cast<orx_path_entry *>(node);
        std::string path = entry->path;
        EXPECT_EQ(path.substr(0, root.size()), root);
        paths.push_back(path.substr(root.size()));
        free(entry->path);
        free(entry);
    }
    return paths;
}

TEST(Wildcard, StandsForOneComponent)
{
    TempDir dir;
    dir.dir("home/ann/log");
    dir.dir("home/bob/log/deep");
    dir.dir("home/eve");
    EXPECT_EQ(found(dir.path(), "/home/*/log"), (Paths{"/home/ann/log", "/home/bob/log"}));
    EXPECT_EQ(found(dir.path(), "/home/*"), (Paths{"/home/ann", "/home/bob", "/home/eve"}));
    EXPECT_EQ(found(dir.path(), "/*"), (Paths{"/home"}));
    EXPECT_EQ(found(dir.path(), "/home/*/nothing"), Paths{});
    EXPECT_EQ(found(dir.path(), "/nothing/*"), Paths{});
}

TEST(Wildcard, StandsForPartOfAName)
{
    TempDir dir;
    for (const char *name : {"app.log", "app-1.log", "ap.log", "app.log.1", "xapp.log"})
        dir.file(name);
    EXPECT_EQ((Paths{"/app-1.log", "/app.log"}), found(dir.path(), "/app*.log"));
    EXPECT_EQ((Paths{"/app-1.log", "/app.log", "/app.log.1"}), found(dir.path(), "/app*"));
    EXPECT_EQ(found(dir.path(), "/*.log"), (Paths{"/ap.log", "/app-1.log", "/app.log", "/xapp.log"}));
}

TEST(Wildcard, MayStandMoreThanOnce)
{
    TempDir dir;
    for (const char *name : {"a/x1y", "b/x2y", "b/xy", "b/yx", "c/aXbXc"})
        dir.file(name);
    EXPECT_EQ(found(dir.path(), "/*/x*y"), (Paths{"/a/x1y", "/b/x2y", "/b/xy"}));
    EXPECT_EQ(found(dir.path(), "/c/*X*X*"), (Paths{"/c/aXbXc"}));
    EXPECT_EQ((Paths{"/c/aXbXc"}), found(dir.path(), "/c/a**c"));
    EXPECT_EQ(found(dir.path(), "/c/*X*X*X*"), Paths{});
}

/* The time of a matcher that recurses would grow with the power of the stars. */
TEST(Wildcard, MatchesHostilePatternsQuickly)
{
    TempDir dir;
    dir.file(std::string(250, 'a'));
    std::string pattern = "/";
    for (int i = 0; i < 100; i++)
        pattern += "*a";
    EXPECT_EQ(1u, found(dir.path(), pattern).size());
    EXPECT_EQ(Paths{}, found(dir.path(), pattern + "*b"));
}

TEST(Wildcard, ReturnsAPlainPathThatExists)
{
    TempDir dir;
    dir.file("file");
    EXPECT_EQ(Paths{"/file"}, found(dir.path(), "/file"));
    EXPECT_EQ(Paths{}, found(dir.path(), "/none"));
    EXPECT_EQ(Paths{}, found("", ""));
    EXPECT_EQ(Paths{"/"}, found("", "/"));
}

TEST(Wildcard, TakesOtherPatternCharactersAsTheyAre)
{
    TempDir dir;
    for (const char *name : {"a?/x", "ab/x", "[q]/x", "q/x", "b\\*/x", "{c,d}/x", "c/x", "~/x"})
        dir.file(name);
    EXPECT_EQ(found(dir.path(), "/a?/*"), Paths{"/a?/x"});
    EXPECT_EQ(found(dir.path(), "/[q]/*"), Paths{"/[q]/x"});
    EXPECT_EQ(found(dir.path(), "/{c,d}/*"), Paths{"/{c,d}/x"});
    EXPECT_EQ(found(dir.path(), "/~/*"), Paths{"/~/x"});
    EXPECT_EQ(Paths{"/b\\*/x"}, found(dir.path(), "/b\\*/x")) << "the backslash quotes nothing";
    EXPECT_EQ(Paths{}, found(dir.path(), "/?*"));
    EXPECT_EQ(Paths{"/[q]"}, found(dir.path(), "/[*"));
}

TEST(Wildcard, FindsHiddenNamesOnlyWhenAsked)
{
    TempDir dir;
    for (const char *name : {".ssh/key", ".profile", "plain"})
        dir.file(name);
    EXPECT_EQ(found(dir.path(), "/*"), Paths{"/plain"});
    EXPECT_EQ((Paths{"/.profile", "/.ssh"}), found(dir.path(), "/.*")) << "and never . or ..";
    EXPECT_EQ(Paths{"/.ssh/key"}, found(dir.path(), "/.s*/key"));
    EXPECT_EQ(found(dir.path(), "/*/key"), Paths{});
}

TEST(Wildcard, TakesNamesAsBytes)
{
    TempDir dir;
    Paths names = {"a\nb", "caf\xc3\xa9", "\xff\xfe", "* star", "tab\t", "%n", std::string(255, 'x')};
    for (const std::string &name : names)
        dir.file(name);
    Paths expected;
    for (const std::string &name : names)
        expected.push_back("/" + name);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(found(dir.path(), "/*"), expected);
    EXPECT_EQ(Paths{"/a\nb"}, found(dir.path(), "/a*b"));
    EXPECT_EQ(Paths{"/\xff\xfe"}, found(dir.path(), "/\xff*"));
}

TEST(Wildcard, SortsWholePaths)
{
    TempDir dir;
    for (const char *name : {"a/z", "a-b/z", "B/z", "c/z"})
        dir.file(name);
    EXPECT_EQ(found(dir.path(), "/*/z"), (Paths{"/B/z", "/a-b/z", "/a/z", "/c/z"}));
}

TEST(Wildcard, FollowsLinksOnTheWayAndFindsThoseAtTheEnd)
{
    TempDir dir;
    dir.file("real/log");
    std::filesystem::create_symlink("real", dir.path("link"));
    std::filesystem::create_symlink("nowhere", dir.path("dangling"));
    EXPECT_EQ(found(dir.path(), "/*/log"), (Paths{"/link/log", "/real/log"}));
    EXPECT_EQ(found(dir.path(), "/*"), (Paths{"/dangling", "/link", "/real"}));
}

TEST(Wildcard, TreatsFilesOnTheWayAsNoMatch)
{
    TempDir dir;
    dir.file("file");
    dir.file("dir/log");
    EXPECT_EQ(found(dir.path(), "/*/log"), Paths{"/dir/log"});
    EXPECT_EQ(found(dir.path(), "/file/*"), Paths{});
    EXPECT_EQ(found(dir.path(), "/*/"), Paths{"/dir/"});
}

TEST(Wildcard, SkipsDirectoriesThatCannotBeRead)
{
    TempDir dir;
    dir.file("open/a/log");
    dir.file("shut/a/log");
    std::filesystem::permissions(dir.path("shut"), std::filesystem::perms::none);
    bool root = geteuid() == 0;
    Paths all = root ? Paths{"/open/a/log", "/shut/a/log"} : Paths{"/open/a/log"};
    EXPECT_EQ(found(dir.path(), "/*/*/log"), all);
    std::filesystem::permissions(dir.path("shut"), std::filesystem::perms::owner_all);
}

TEST(Wildcard, SkipsPathsThatGrowTooLong)
{
    TempDir dir;
    std::string deep = dir.path();
    while (deep.size() < 3800)
        deep += "/" + std::string(200, 'd');
    std::filesystem::create_directories(deep);
    EXPECT_EQ(found(deep, "/*"), Paths{});
    EXPECT_EQ(found(dir.path(), "/*/" + std::string(5000, 'x')), Paths{});
}

TEST(Wildcard, AppendsToTheList)
{
    TempDir dir;
    dir.file("a");
    list_head head, first;
    head = {&first, &first};
    first = {&head, &head};
    ASSERT_EQ(0, orx_wildcard_path_expand(dir.path("*").c_str(), &head));
    EXPECT_EQ(head.next, &first);
    auto *entry = reinterpret_cast<orx_path_entry *>(first.next);
    EXPECT_STREQ(entry->path, dir.path("a").c_str());
    EXPECT_EQ(entry->link.next, &head);
    EXPECT_EQ(head.prev, &entry->link);
    free(entry->path);
    free(entry);
}

TEST(Wildcard, RefusesMissingArguments)
{
    list_head head = {&head, &head};
    EXPECT_EQ(-1, orx_wildcard_path_expand(nullptr, &head));
    EXPECT_EQ(orx_wildcard_path_expand("/*", nullptr), -1);
    EXPECT_EQ(head.next, &head);
}

TEST(Wildcard, WorksFromTheCurrentDirectory)
{
    TempDir dir;
    dir.file("only");
    std::string before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    EXPECT_EQ(Paths{"only"}, found("", "*"));
    EXPECT_EQ(found("", "./*"), Paths{"./only"});
    std::filesystem::current_path(before);
}

}  // namespace
