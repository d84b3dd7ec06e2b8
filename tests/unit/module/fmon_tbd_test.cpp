/* Tests of fmon_tbd.cpp: watches that wait for their path. */

#include "core_fixture.h"

namespace
{

using namespace testlib;

constexpr uint32_t kWait = FMON_DIR | FMON_DELETED;

class Waiting : public CoreTest
{
protected:
    Waiting() : id(instance()), dir(tree.dir("dir")) { log_clear(); }

    void pass() { fmon_tbd_pass(); }
    /* The waiting paths in order, below the tree's root. */
    std::string order()
    {
        std::string text;
        FMON_LIST_EACH (node, &fmon.tbd) {
            struct watch *w = FMON_RECORD(node, struct watch, link);
            text += std::string(w->path).substr(tree.root().size());
        }
        /* The list is whole in the other direction too. */
        size_t back = 0;
        for (list_head *node = fmon.tbd.prev; node != &fmon.tbd; node = node->prev)
            back++;
        EXPECT_EQ(back, waiting());
        return text;
    }
    void wait_for(const std::string &names)
    {
        for (char c : names)
            ASSERT_EQ(0, add(id, tree.path(std::string(1, c)), FMON_CREATE, kWait));
    }

    int id;
    std::string dir;
};

TEST_F(Waiting, MissingPathIsAccepted)
{
    std::string missing = tree.path("missing");
    EXPECT_EQ((Lines{fmon_line(4, "add watch: " + missing +
                                      ", event create, flags dir,deleted, max depth 0, max subdirs 0\n"),
                     fmon_line(4, "watch new, origin path: " + missing + ", rpath: " + missing),
                     fmon_line(4, "this watch is add to tbd list\n")}),
              log_of([&] { EXPECT_EQ(0, add(id, missing, FMON_CREATE, kWait)); }));
    EXPECT_EQ(1u, waiting());
    EXPECT_EQ(nullptr, find(id, missing)->dentry);
    EXPECT_EQ(FMON_EEXIST, add(id, missing, FMON_CREATE, kWait));
}

TEST_F(Waiting, BackendThatMissesThePathMakesItWait)
{
    backend.add_result = FMON_ENOENT;
    EXPECT_EQ(0, add(id, dir, FMON_CREATE, kWait));
    EXPECT_EQ(1u, waiting());
    backend.add_result = -109;
    EXPECT_EQ(-109, add(id, tree.dir("e"), FMON_CREATE, kWait));
    EXPECT_EQ(1u, waiting());
}

TEST_F(Waiting, PathOfAnotherTypeMakesItWait)
{
    std::string path = tree.file("x");
    ASSERT_EQ(0, add(id, path, FMON_CREATE, kWait));
    pass();
    EXPECT_EQ(1u, waiting());
    tree.remove("x");
    tree.dir("x");
    pass();
    EXPECT_EQ(0u, waiting());
}

TEST_F(Waiting, MissingPathIsRetriedSilently)
{
    ASSERT_EQ(0, add(id, tree.path("missing"), FMON_CREATE, kWait));
    EXPECT_TRUE(log_of([&] { pass(); }).empty());
    EXPECT_EQ(0, backend.count("add_watch(" + tree.path("missing") + ")"));
}

TEST_F(Waiting, AttachesWhenThePathAppears)
{
    std::string missing = tree.path("missing");
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, kWait));
    tree.dir("missing");
    EXPECT_EQ((Lines{fmon_line(4, "tbd watch " + missing + " added\n")}), log_of([&] { pass(); }));
    EXPECT_EQ(0u, waiting());
    struct watch *w = find(id, missing);
    EXPECT_EQ(dentry(missing), w->dentry);
    EXPECT_EQ(&w->link, owner_of(w->dentry)->watches.next);
    process(missing, "f", FMON_CREATE);
    EXPECT_EQ(1u, queued(id));
}

TEST_F(Waiting, GoesBackToWaitingAndComesAgain)
{
    std::string path = tree.dir("x");
    ASSERT_EQ(0, add(id, path, FMON_CREATE, kWait));
    for (int i = 0; i < 3; i++) {
        ASSERT_NE(nullptr, find(id, path)->dentry);
        tree.remove("x");
        vanish(find(id, path));
        EXPECT_EQ(1u, waiting());
        pass();
        EXPECT_EQ(1u, waiting());
        tree.dir("x");
        pass();
        EXPECT_EQ(0u, waiting());
    }
    EXPECT_EQ(0, del(id, path));
}

TEST_F(Waiting, FailedRetryIsLoggedEveryTime)
{
    std::string path = tree.path("x");
    ASSERT_EQ(0, add(id, path, FMON_CREATE, kWait));
    tree.dir("x");
    backend.add_result = -108;
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ((Lines{fmon_line(1, "add deleted flag watch " + path + " failed: -108\n")}), log_of([&] { pass(); }));
        EXPECT_EQ("/x", order());
    }
    backend.add_result = 0;
    pass();
    EXPECT_EQ("", order());
}

TEST_F(Waiting, OutOfMemoryInARetryChangesNothing)
{
    wait_for("wxy");
    std::string path = tree.dir("x"), before = snapshot();
    int hits = 0;
    for (const char *name : {"malloc", "calloc"})
        hits += fail_each_then(
            name,
            [&] {
                log_clear();
                pass();
            },
            [&](bool hit) {
                EXPECT_EQ(hit ? 1 : 0, log_count_containing("failed: -101\n"));
                EXPECT_EQ(hit ? "/w/x/y" : "/w/y", order());
                if (!hit) {
                    vanish(find(id, path));
                    clear_tree();
                    for (const char *again : {"w", "x", "y"})
                        ASSERT_EQ(0, del(id, tree.path(again)));
                    tree.remove("x");
                    wait_for("wxy");
                    tree.dir("x");
                }
                EXPECT_EQ(before, snapshot());
            });
    EXPECT_GE(hits, 2);
}

/* Each subset of five waiting watches is attached in one pass: first, last, only, neighbours, all, none. */
TEST_F(Waiting, AnyOfThemCanLeaveTheList)
{
    const std::string names = "abcde";
    for (unsigned subset = 0; subset < 32; subset++) {
        wait_for(names);
        std::string left;
        for (size_t i = 0; i < names.size(); i++) {
            if (subset & 1u << i)
                tree.dir(std::string(1, names[i]));
            else
                left += std::string("/") + names[i];
        }
        pass();
        EXPECT_EQ(left, order()) << subset;
        for (char c : names) {
            std::string name(1, c);
            bool attached = left.find(c) == std::string::npos;
            EXPECT_EQ(attached, find(id, tree.path(name))->dentry != nullptr) << subset << c;
            ASSERT_EQ(0, del(id, tree.path(name)));
            tree.remove(name);
        }
        ASSERT_EQ("", order());
    }
}

/* The same with the backend refusing a subset: those stay, and stay in their place. */
TEST_F(Waiting, RefusedOnesKeepTheirPlace)
{
    const std::string names = "abcde";
    for (char c : names)
        tree.dir(std::string(1, c));
    for (unsigned subset = 0; subset < 32; subset++) {
        backend.add_result = FMON_ENOENT;
        backend.on_add = nullptr;
        wait_for(names);
        std::string left;
        for (size_t i = 0; i < names.size(); i++)
            if (!(subset & 1u << i))
                left += std::string("/") + names[i];
        backend.on_add = [&](struct watch *w) {
            if (left.find(w->path + tree.root().size()) != std::string::npos)
                return -108;
            w->dentry = dcache_add(&fmon.dcache, w->path);
            list_add_tail(&w->link, &owner_of(w->dentry)->watches);
            return 0;
        };
        pass();
        EXPECT_EQ(left, order()) << subset;
        for (char c : names)
            ASSERT_EQ(0, del(id, tree.path(std::string(1, c))));
        ASSERT_EQ("", order());
    }
}

/* A backend that calls it a success without linking the watch leaves no trace of it in the list. */
TEST_F(Waiting, SuccessWithoutALinkLeavesTheListToo)
{
    wait_for("abc");
    tree.dir("b");
    backend.on_add = [](struct watch *) { return 1; };
    pass();
    EXPECT_EQ("/a/c", order());
    EXPECT_FALSE(list_linked(&find(id, tree.path("b"))->link));
}

TEST_F(Waiting, ManyComeAndGoInOneList)
{
    wait_for("abc");
    tree.dir("b");
    pass();
    wait_for("d");
    EXPECT_EQ("/a/c/d", order());
    vanish(find(id, tree.path("b")));
    EXPECT_EQ("/a/c/d/b", order()); /* it waits behind the others */
}

/* ---- watch_out_service ---- */

class OutOfService : public Waiting
{
};

TEST_F(OutOfService, PlainWatchStaysUnattached)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    vanish(find(id, dir));
    ASSERT_NE(nullptr, find(id, dir));
    EXPECT_FALSE(list_linked(&find(id, dir)->link));
    pass();
    EXPECT_EQ(nullptr, find(id, dir)->dentry);
}

TEST_F(OutOfService, WaitingKindWaitsLast)
{
    wait_for("a");
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, kWait));
    vanish(find(id, dir));
    EXPECT_EQ("/a/dir", order());
}

TEST_F(OutOfService, WatchMarkedDynamicByItsClientIsFreed)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, FMON_DIR | FMON_DYNAMIC));
    vanish(find(id, dir));
    EXPECT_EQ(0u, watches(id));
}

TEST_F(OutOfService, DynamicWinsOverDeleted)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, FMON_DIR | FMON_DYNAMIC | FMON_DELETED));
    vanish(find(id, dir));
    EXPECT_EQ(0u, watches(id));
    EXPECT_EQ(0u, waiting());
}

}  // namespace
