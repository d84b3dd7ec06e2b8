/* Tests of fmon_wildcard.cpp: patterns, and the watches that they make. */

#include "core_fixture.h"

namespace
{

using namespace testlib;

constexpr uint32_t kBoth = FMON_DYNAMIC | FMON_ASTERISK;

class Wildcard : public CoreTest
{
protected:
    Wildcard() : id(instance()), pattern(tree.path("*/log")) { log_clear(); }

    void pass() { fmon_tbd_pass(); }
    std::string log_dir(const std::string &user) { return tree.dir(user + "/log"); }

    int id;
    std::string pattern;
};

TEST_F(Wildcard, NothingNeedsToMatch)
{
    EXPECT_EQ((Lines{fmon_line(4, "add watch: " + pattern + ", event create, flags dir, max depth 0, max subdirs 0\n"),
                     fmon_line(4, "watch new, origin path: " + pattern + ", rpath: " + pattern)}),
              log_of([&] { EXPECT_EQ(0, add(id, pattern, FMON_CREATE)); }));
    EXPECT_EQ(1u, waiting());
    EXPECT_EQ(FMON_DIR | FMON_ASTERISK, find(id, pattern)->flags);
    EXPECT_EQ(nullptr, find(id, pattern)->dentry);
    EXPECT_EQ(1, backend.count("check_watch(" + pattern + ")"));
    EXPECT_EQ(0, backend.count("add_watch(" + pattern + ")"));
}

TEST_F(Wildcard, MatchesGetDynamicWatches)
{
    std::string a = log_dir("a"), b = log_dir("b");
    ASSERT_EQ(0, fmon_add_watch(id, pattern.c_str(), FMON_CREATE | FMON_MODIFY, FMON_DIR | FMON_SYNC, 3, 0x80000001));
    ASSERT_EQ(3u, watches(id));
    for (const std::string &path : {a, b}) {
        struct watch *w = find(id, path);
        ASSERT_NE(nullptr, w);
        EXPECT_EQ(FMON_CREATE | FMON_MODIFY, w->mask);
        EXPECT_EQ(FMON_DIR | FMON_SYNC | kBoth, w->flags);
        EXPECT_EQ(3, w->max_depth);
        EXPECT_EQ(static_cast<int32_t>(0x80000001), w->max_subdirs);
        EXPECT_EQ(id, w->instance);
        EXPECT_EQ(find(id, pattern), w->parent);
        EXPECT_EQ(dentry(path), w->dentry);
        EXPECT_EQ(0, backend.count("check_watch(" + path + ")"));
    }
    process(a, "f", FMON_CREATE);
    EXPECT_EQ(1u, queued(id));
}

TEST_F(Wildcard, DynamicWatchIsLogged)
{
    std::string a = log_dir("a");
    Lines lines = log_of([&] { add(id, pattern, FMON_CREATE); });
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(fmon_line(4, "watch new, origin path: " + a + ", rpath: " + a), lines[2]);
    EXPECT_EQ(fmon_line(4, "add asterisk watch " + a + " (" + pattern + ")\n"), lines[3]);
}

TEST_F(Wildcard, NewMatchIsFoundByTheNextPassAndOnlyOnce)
{
    log_dir("m");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    log_dir("a");
    log_dir("z");
    for (int i = 0; i < 3; i++) {
        pass();
        EXPECT_EQ(4u, watches(id));
        EXPECT_EQ(1u, waiting());
    }
    EXPECT_TRUE(log_of([&] { pass(); }).empty());
}

TEST_F(Wildcard, MatchThatWentAndCameBackIsWatchedAgain)
{
    std::string a = log_dir("a");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    vanish(find(id, a));
    EXPECT_EQ(1u, watches(id));
    EXPECT_EQ(1u, waiting());
    pass();
    EXPECT_EQ(2u, watches(id));
    EXPECT_NE(nullptr, find(id, a)->dentry);
}

TEST_F(Wildcard, MatchOfAnotherTypeIsLeftOut)
{
    tree.file("a/log");
    log_dir("b");
    tree.link("c/log", tree.path("b/log"));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(2u, watches(id));
    int files = instance("files");
    ASSERT_EQ(0, add(files, pattern, FMON_MODIFY, FMON_FILE));
    EXPECT_EQ(2u, watches(files));
    EXPECT_NE(nullptr, find(files, tree.path("a/log")));
}

TEST_F(Wildcard, FailedAddIsLoggedAndTriedAgain)
{
    std::string a = log_dir("a");
    backend.add_result = -108;
    for (int i = 0; i < 2; i++) {
        Lines lines = log_of([&] { i ? pass() : static_cast<void>(add(id, pattern, FMON_CREATE)); });
        EXPECT_EQ(fmon_line(1, "add watch " + a + " failed: -108\n"), lines.back());
        EXPECT_EQ(1u, watches(id));
    }
    backend.add_result = 0;
    pass();
    EXPECT_EQ(2u, watches(id));
}

TEST_F(Wildcard, OneFailedAddDoesNotStopTheOthers)
{
    log_dir("a");
    log_dir("b");
    log_dir("c");
    backend.on_add = [&](struct watch *w) {
        if (w->path == tree.path("b/log"))
            return -108;
        w->dentry = dcache_add(&fmon.dcache, w->path);
        list_add_tail(&w->link, &owner_of(w->dentry)->watches);
        return 0;
    };
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(3u, watches(id));
}

TEST_F(Wildcard, EachAllocationCanFail)
{
    std::string a = log_dir("a");
    ASSERT_NE(nullptr, dcache_add(&fmon.dcache, a.c_str())); /* so that only the core allocates */
    std::string before = snapshot();
    int result = 0;
    for (const char *name : {"malloc", "calloc"}) {
        int hits = fail_each_then(
            name,
            [&] {
                log_clear();
                result = add(id, pattern, FMON_CREATE);
            },
            [&](bool hit) {
                bool dynamic_failed = logged(1, "watch malloc fail\n");
                EXPECT_EQ(hit && !dynamic_failed ? FMON_ENOMEM : 0, result);
                if (result == 0) {
                    EXPECT_EQ(hit ? 1u : 2u, watches(id));
                    EXPECT_EQ(0, del(id, pattern));
                }
                EXPECT_EQ(before, snapshot());
            });
        EXPECT_EQ(2, hits);
    }
}

/* ---- patterns ---- */

TEST_F(Wildcard, OneStarOnly)
{
    for (const char *bad : {"/a/*/b/*", "/a/**", "/**", "/*/*"})
        EXPECT_EQ(FMON_EINVAL, add(id, bad, FMON_CREATE)) << bad;
    for (const char *good : {"/nosuch/*", "/nosuch*", "/nosuch/a*b/c"})
        EXPECT_EQ(0, add(id, good, FMON_CREATE)) << good;
    EXPECT_EQ(3u, waiting());
}

TEST_F(Wildcard, NotTogetherWithDeleted)
{
    EXPECT_EQ(FMON_EINVAL, add(id, pattern, FMON_CREATE, FMON_DIR | FMON_DELETED));
    EXPECT_EQ(0u, waiting());
}

TEST_F(Wildcard, PatternIsWellFormedToo)
{
    EXPECT_EQ(FMON_EINVAL, add(id, tree.root() + "//*", FMON_CREATE));
    EXPECT_EQ(FMON_EINVAL, add(id, tree.path("*/"), FMON_CREATE));
    EXPECT_EQ(FMON_EINVAL, add(id, "*", FMON_CREATE));
}

TEST_F(Wildcard, DirectoryNamedStarIsAPatternAsWell)
{
    std::string star = tree.dir("*");
    ASSERT_EQ(0, add(id, star, FMON_CREATE));
    EXPECT_EQ(1u, waiting());
    EXPECT_EQ(2u, watches(id)); /* the pattern, and the directory that it matches */
}

TEST_F(Wildcard, StarsAreCountedInWhatIsStored)
{
    std::string star = tree.dir("s*"), link = tree.link("plain", star);
    EXPECT_EQ(FMON_EINVAL, add(id, link, FMON_CREATE, FMON_DIR | FMON_DELETED));
    std::string plain = tree.dir("t"), named_star = tree.link("u*", plain);
    EXPECT_EQ(0, add(id, named_star, FMON_CREATE)); /* resolves to a path without a star */
    EXPECT_EQ(FMON_DIR, find(id, plain)->flags);
}

/* ---- links ---- */

TEST_F(Wildcard, MatchThroughALinkIsNotWatchedTwice)
{
    log_dir("victim");
    tree.link("evil", tree.path("victim"));
    tree.link("zevil", tree.path("victim"));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(2u, watches(id));
        pass();
    }
    EXPECT_NE(nullptr, find(id, tree.path("victim/log")));
}

TEST_F(Wildcard, MatchOnlyThroughALinkIsWatchedOnce)
{
    std::string real = tree.dir("elsewhere/deep/log");
    tree.link("evil", tree.path("elsewhere/deep"));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(2u, watches(id));
        EXPECT_NE(nullptr, find(id, real));
        pass();
    }
}

/* ---- the same path in other watches ---- */

TEST_F(Wildcard, WatchOfTheClientsOwnDoesNotPreventADynamicOne)
{
    std::string a = log_dir("a");
    ASSERT_EQ(0, add(id, a, FMON_MODIFY));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(3u, watches(id));
}

TEST_F(Wildcard, DynamicWatchPreventsOneOfTheClientsOwn)
{
    std::string a = log_dir("a");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(FMON_EEXIST, add(id, a, FMON_MODIFY));
    EXPECT_EQ(FMON_EEXIST, add(id, pattern, FMON_MODIFY));
}

TEST_F(Wildcard, TwoPatternsEachHaveTheirOwn)
{
    log_dir("a");
    std::string second = tree.path("a/*");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    ASSERT_EQ(0, add(id, second, FMON_CREATE));
    EXPECT_EQ(4u, watches(id));
    pass();
    EXPECT_EQ(4u, watches(id));
    ASSERT_EQ(0, del(id, pattern));
    EXPECT_EQ(2u, watches(id));
    EXPECT_EQ(find(id, second), find(id, tree.path("a/log"))->parent);
}

/* ---- deleting ---- */

TEST_F(Wildcard, DeletingThePatternDeletesItsWatches)
{
    std::string a = log_dir("a"), b = log_dir("b"), own = tree.dir("own");
    ASSERT_EQ(0, add(id, own, FMON_CREATE));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    backend.calls.clear();
    EXPECT_EQ((Lines{fmon_line(4, "del watch: " + pattern + " from instance client\n"),
                     fmon_line(4, "delete asterisk watch\n"), fmon_line(4, "delete asterisk dynamic watch " + a + "\n"),
                     fmon_line(4, "delete asterisk dynamic watch " + b + "\n")}),
              log_of([&] { EXPECT_EQ(0, del(id, pattern)); }));
    EXPECT_EQ((std::vector<std::string>{"del_watch(" + a + ")", "del_watch(" + b + ")"}), backend.calls);
    EXPECT_EQ(1u, watches(id));
    EXPECT_EQ(0u, waiting());
    pass();
    EXPECT_EQ(1u, watches(id));
}

TEST_F(Wildcard, BackendsFailuresAreLogged)
{
    std::string a = log_dir("a");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    backend.del_result = -109;
    EXPECT_EQ(fmon_line(1, "del watch " + a + " failed: -109\n"),
              log_of([&] { EXPECT_EQ(0, del(id, pattern)); }).back());
    EXPECT_EQ(0u, watches(id));
}

/* A dynamic watch keeps the pattern's flag, so it is deleted as if it were one; the next pass makes it again. */
TEST_F(Wildcard, DynamicWatchCanBeDeletedByItsPath)
{
    std::string a = log_dir("a");
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(
        (Lines{fmon_line(4, "del watch: " + a + " from instance client\n"), fmon_line(4, "delete asterisk watch\n")}),
        log_of([&] { EXPECT_EQ(0, del(id, a)); }));
    EXPECT_EQ(1, backend.count("del_watch(" + a + ")"));
    EXPECT_EQ(1u, watches(id));
    EXPECT_EQ(1u, waiting());
    EXPECT_TRUE(list_empty(&owner_of(dentry(a))->watches));
    pass();
    EXPECT_EQ(2u, watches(id));
}

TEST_F(Wildcard, PatternsWaitAmongOtherWatches)
{
    std::string missing = tree.path("missing"), other = tree.path("other");
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, FMON_DIR | FMON_DELETED));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    ASSERT_EQ(0, add(id, other, FMON_CREATE, FMON_DIR | FMON_DELETED));
    tree.dir("missing/log");
    tree.dir("other");
    pass();
    EXPECT_EQ(1u, waiting());
    EXPECT_EQ(4u, watches(id));
    EXPECT_EQ(&find(id, pattern)->link, fmon.tbd.next);
    EXPECT_EQ(&find(id, pattern)->link, fmon.tbd.prev);
}

/* ---- flags that only the monitor should set ---- */

TEST_F(Wildcard, ClientsAsteriskWithoutAStarIsAPatternOfOnePath)
{
    std::string dir = tree.dir("d");
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, FMON_DIR | FMON_ASTERISK));
    EXPECT_EQ(2u, watches(id));
    EXPECT_EQ(1u, waiting());
    EXPECT_EQ(0, del(id, dir));
    EXPECT_EQ(0u, watches(id));
    EXPECT_EQ(0u, waiting());
}

TEST_F(Wildcard, ClientsAsteriskWithDeleted)
{
    std::string dir = tree.dir("d");
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, FMON_DIR | FMON_ASTERISK | FMON_DELETED));
    struct watch *dynamic = FMON_RECORD(fmon.instances[id].watches.prev, struct watch, inst_link);
    ASSERT_TRUE(dynamic->flags & FMON_DYNAMIC);
    vanish(dynamic);
    EXPECT_EQ(1u, watches(id));
    pass();
    EXPECT_EQ(2u, watches(id));
    Lines lines = log_of([&] { EXPECT_EQ(0, del(id, dir)); });
    EXPECT_EQ(fmon_line(4, "delete deleted watch\n"), lines.back());
    EXPECT_EQ(0u, watches(id));
    EXPECT_EQ(0u, waiting());
}

/* ---- the expander ---- */

TEST_F(Wildcard, ExpanderMayNameAPathTwiceInAnyOrder)
{
    std::string a = log_dir("a"), b = log_dir("b"), c = log_dir("c");
    set_wildcard_matches({c, a, c, b, a});
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(4u, watches(id));
    set_wildcard_matches({b, c, a});
    pass();
    EXPECT_EQ(4u, watches(id));
}

TEST_F(Wildcard, ExpanderMayNameAMissingPath)
{
    set_wildcard_matches({tree.path("missing/log")});
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(1u, watches(id));
}

TEST_F(Wildcard, InContainerModePathsStayAsTheyAre)
{
    g_container_flag = 1;
    log_dir("victim");
    tree.link("evil", tree.path("victim"));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    EXPECT_EQ(3u, watches(id));
    pass();
    EXPECT_EQ(3u, watches(id));
}

}  // namespace
