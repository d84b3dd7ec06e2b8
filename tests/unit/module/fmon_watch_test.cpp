/* Tests of fmon_watch.cpp: watches added and deleted: what is refused, what is kept. */

#include <unistd.h>

#include "core_fixture.h"

namespace
{

using namespace testlib;

constexpr uint32_t kWait = FMON_DIR | FMON_DELETED;

class Watches : public CoreTest
{
protected:
    Watches() : id(instance()), dir(tree.dir("dir")) { log_clear(); }

    /* Adds, and where that succeeds deletes again. */
    int try_add(const std::string &path, uint32_t mask = FMON_CREATE, uint32_t flags = FMON_DIR)
    {
        int result = add(id, path, mask, flags);
        if (result == 0) {
            EXPECT_EQ(0, del(id, path)) << path;
        }
        EXPECT_EQ(0u, watches(id));
        return result;
    }

    int id;
    std::string dir;
};

/* ---- adding ---- */

TEST_F(Watches, RecordHoldsTheRequest)
{
    ASSERT_EQ(0, fmon_add_watch(id, dir.c_str(), 0x123, 0x10a, 5, 6));
    struct watch *w = find(id, dir);
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(0x123u, w->mask);
    EXPECT_EQ(0x10au, w->flags);
    EXPECT_EQ(id, w->instance);
    EXPECT_EQ(5, w->max_depth);
    EXPECT_EQ(6, w->max_subdirs);
    EXPECT_EQ(dentry(dir), w->dentry);
    EXPECT_EQ(nullptr, w->parent);
    EXPECT_EQ((std::vector<std::string>{"init()", "check_watch(" + dir + ")", "add_watch(" + dir + ")"}),
              backend.calls);
}

TEST_F(Watches, NothingIsSaidOfAWatchThatThereIsNoMemoryFor)
{
    for (const char *call : {"calloc", "malloc"}) {
        log_clear();
        Fault fault(call);
        EXPECT_EQ(FMON_ENOMEM, add(id, dir, FMON_CREATE));
        EXPECT_TRUE(fault.hit()) << call;
        EXPECT_EQ(0, log_count_containing("watch new")) << call;
    }
}

TEST_F(Watches, AddingIsLogged)
{
    EXPECT_EQ(
        (Lines{fmon_line(
                   4, "add watch: " + dir + ", event modify,create, flags dir,recursive, max depth 5, max subdirs 6\n"),
               fmon_line(4, "watch new, origin path: " + dir + ", rpath: " + dir)}),
        log_of([&] { fmon_add_watch(id, dir.c_str(), FMON_CREATE | FMON_MODIFY, FMON_DIR | FMON_RECURSIVE, 5, 6); }));
}

TEST_F(Watches, LimitsAreStoredTruncatedAndLoggedAsGiven)
{
    log_clear();
    ASSERT_EQ(0, fmon_add_watch(id, dir.c_str(), FMON_CREATE, FMON_DIR, 65536, 0x80000000));
    EXPECT_EQ(0, find(id, dir)->max_depth);
    EXPECT_EQ(INT32_MIN, find(id, dir)->max_subdirs);
    EXPECT_EQ(1, log_count_containing("max depth 65536, max subdirs -2147483648\n"));
    ASSERT_EQ(0, del(id, dir));
    ASSERT_EQ(0, fmon_add_watch(id, dir.c_str(), FMON_CREATE, FMON_DIR, 65535, 1));
    EXPECT_EQ(65535, find(id, dir)->max_depth);
}

TEST_F(Watches, InstanceMustBeLive)
{
    for (int bad : {-1, 1, 31, 32, INT32_MAX, INT32_MIN}) {
        EXPECT_TRUE(log_of([&] { EXPECT_EQ(FMON_EINVAL, add(bad, dir, FMON_CREATE)); }).empty());
        EXPECT_EQ(FMON_EINVAL, del(bad, dir));
    }
}

TEST_F(Watches, MaskMustBeWithinTheNamedKinds)
{
    EXPECT_EQ(FMON_EINVAL, try_add(dir, 0));
    EXPECT_EQ(0, try_add(dir, 1));
    EXPECT_EQ(0, try_add(dir, 0xfff));
    EXPECT_EQ(FMON_EINVAL, try_add(dir, 0x1000));
    EXPECT_EQ(FMON_EINVAL, try_add(dir, 0x1001));
    EXPECT_EQ(FMON_EINVAL, try_add(dir, 0x80000001));
    EXPECT_EQ(FMON_EINVAL, try_add(dir, 0xffffffff));
}

TEST_F(Watches, ExactlyOneTypeMustBeGiven)
{
    std::string file = tree.file("f");
    EXPECT_EQ(0, try_add(file, FMON_CREATE, FMON_FILE));
    EXPECT_EQ(0, try_add(dir, FMON_CREATE, FMON_DIR));
    EXPECT_EQ(0, try_add(dir, FMON_CREATE, FMON_MOUNT));
    for (uint32_t flags : {0u, 3u, 5u, 6u, 7u, 8u, 0x80u})
        EXPECT_EQ(FMON_EINVAL, try_add(dir, FMON_CREATE, flags)) << flags;
}

TEST_F(Watches, FlagsThatDoNotGoTogether)
{
    std::string file = tree.file("f");
    EXPECT_EQ(FMON_EINVAL, try_add(file, FMON_CREATE, FMON_FILE | FMON_RECURSIVE));
    EXPECT_EQ(0, try_add(dir, FMON_CREATE, FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(0, try_add(dir, FMON_CREATE, FMON_MOUNT | FMON_RECURSIVE));
    EXPECT_EQ(FMON_EINVAL, try_add(dir, FMON_CREATE, FMON_MOUNT | FMON_SYNC));
    EXPECT_EQ(0, try_add(dir, FMON_CREATE, FMON_DIR | FMON_SYNC));
    EXPECT_EQ(0, try_add(file, FMON_CREATE, FMON_FILE | FMON_SYNC));
}

TEST_F(Watches, FlagsWithoutAMeaningAreKept)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, FMON_DIR | FMON_SYMBOLIC | 0xfffc0000));
    EXPECT_EQ(FMON_DIR | FMON_SYMBOLIC | 0xfffc0000, find(id, dir)->flags);
}

/* An existing directory is resolved before it is stored, but the client's spelling decides. */
TEST_F(Watches, PathMustBeWellFormedAsGiven)
{
    EXPECT_EQ(FMON_EINVAL, try_add(dir + "/"));
    EXPECT_EQ(FMON_EINVAL, try_add(tree.root() + "//dir"));
    EXPECT_EQ(FMON_EINVAL, try_add("/" + dir));
    EXPECT_EQ(FMON_EINVAL, try_add("//"));
    EXPECT_EQ(FMON_EINVAL, try_add("data"));
    EXPECT_EQ(FMON_EINVAL, try_add("."));
    EXPECT_EQ(FMON_EINVAL, try_add(""));
    EXPECT_EQ(0, try_add("/"));
    ASSERT_EQ(0, chdir(tree.root().c_str()));
    EXPECT_EQ(FMON_EINVAL, try_add("dir"));
    ASSERT_EQ(0, chdir("/"));
}

TEST_F(Watches, MissingPathIsNotResolvedButMustBeWellFormed)
{
    std::string missing = tree.path("missing");
    EXPECT_EQ(0, try_add(missing, FMON_CREATE, kWait));
    EXPECT_EQ(FMON_EINVAL, try_add(missing + "/", FMON_CREATE, kWait));
    EXPECT_EQ(FMON_EINVAL, try_add(tree.root() + "//missing", FMON_CREATE, kWait));
    EXPECT_EQ(FMON_EINVAL, try_add("missing", FMON_CREATE, kWait));
}

TEST_F(Watches, RefusedCheckIsLogged)
{
    EXPECT_EQ((Lines{fmon_line(4, "add watch: , event create, flags dir, max depth 0, max subdirs 0\n"),
                     fmon_line(4, "watch new, origin path: , rpath: "), fmon_line(1, "check watch failed\n")}),
              log_of([&] { EXPECT_EQ(FMON_EINVAL, add(id, "", FMON_CREATE)); }));
}

TEST_F(Watches, BackendMayRefuse)
{
    backend.check_result = FMON_ENOTSUP;
    EXPECT_EQ(FMON_ENOTSUP, try_add(dir));
    EXPECT_TRUE(logged(1, "check watch failed\n"));
    EXPECT_EQ(0, backend.count("add_watch(" + dir + ")"));
    backend.check_result = 1; /* only below 0 */
    EXPECT_EQ(0, try_add(dir));
}

TEST_F(Watches, BackendNeedNotCheck)
{
    backend.drop_optional();
    EXPECT_EQ(0, try_add(dir));
}

TEST_F(Watches, CoreChecksBeforeTheBackend)
{
    try_add(dir, 0);
    EXPECT_EQ(0, backend.count("check_watch(" + dir + ")"));
}

TEST_F(Watches, PathMustExistAndBeOfItsType)
{
    std::string file = tree.file("f"), missing = tree.path("missing");
    EXPECT_EQ(FMON_ENOENT, try_add(missing));
    EXPECT_EQ(FMON_ENOENT, try_add(file));
    EXPECT_EQ(FMON_ENOENT, try_add(file, FMON_CREATE, FMON_MOUNT));
    EXPECT_EQ(FMON_ENOENT, try_add(dir, FMON_CREATE, FMON_FILE));
    EXPECT_EQ(FMON_ENOENT, try_add("/dev/null", FMON_CREATE, FMON_FILE));
    EXPECT_EQ(0, try_add(file, FMON_CREATE, FMON_FILE));
    EXPECT_EQ(0, backend.count("add_watch(" + missing + ")"));
    EXPECT_TRUE(logged(1, "add watch failed: -114\n"));
}

TEST_F(Watches, BackendsCodePassesThrough)
{
    std::string before = snapshot();
    for (int code : {-101, -103, -108, -109, -110, -112, -114, -117, -1, 1}) {
        backend.add_result = code;
        EXPECT_EQ((Lines{fmon_line(1, "add watch failed: " + std::to_string(code) + "\n")}).back(),
                  log_of([&] { EXPECT_EQ(code, add(id, dir, FMON_CREATE)); }).back());
        EXPECT_EQ(0u, watches(id));
    }
    EXPECT_EQ(before, snapshot());
}

TEST_F(Watches, EachAllocationCanFail)
{
    std::string before = snapshot();
    int result = 0, hits = 0;
    for (const char *name : {"malloc", "calloc", "realloc"})
        hits += fail_each_then(
            name, [&] { result = add(id, dir, FMON_CREATE); },
            [&](bool hit) {
                EXPECT_EQ(hit ? FMON_ENOMEM : 0, result) << name;
                if (!hit) {
                    EXPECT_EQ(0, del(id, dir));
                    clear_tree();
                }
                EXPECT_EQ(before, snapshot()) << name;
            });
    EXPECT_GE(hits, 4); /* record, path, and the directories */
}

TEST_F(Watches, PathThatCannotBeResolvedIsKept)
{
    std::string link = tree.link("l", dir);
    Fault fault("realpath", 1, ENOENT);
    EXPECT_EQ(FMON_ENOENT, add(id, link, FMON_CREATE)); /* itself a link, which is no directory */
    EXPECT_TRUE(logged(4, "watch new, origin path: " + link + ", rpath: " + link));
}

TEST_F(Watches, PathThatCannotBeExaminedIsMissing)
{
    Fault fault("lstat", 1, EACCES);
    EXPECT_EQ(FMON_ENOENT, add(id, dir, FMON_CREATE));
    EXPECT_TRUE(fault.hit());
}

/* ---- the same path again ---- */

TEST_F(Watches, SamePathOfOneInstanceIsRefused)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    EXPECT_EQ((Lines{fmon_line(4, "add watch: " + dir + ", event modify, flags file, max depth 0, max subdirs 0\n")}),
              log_of([&] { EXPECT_EQ(FMON_EEXIST, add(id, dir, FMON_MODIFY, FMON_FILE)); }));
    int other = instance("other");
    EXPECT_EQ(0, add(other, dir, FMON_CREATE));
}

TEST_F(Watches, SameDirectoryThroughALinkIsAddedAgain)
{
    std::string link = tree.link("l", dir);
    EXPECT_EQ(0, add(id, dir, FMON_CREATE));
    EXPECT_EQ(0, add(id, link, FMON_CREATE));
    EXPECT_EQ(0, add(id, link, FMON_CREATE));
    EXPECT_EQ(3u, watches(id));
    EXPECT_TRUE(logged(4, "watch new, origin path: " + link + ", rpath: " + dir));
    EXPECT_EQ(FMON_EEXIST, add(id, dir, FMON_CREATE));
    EXPECT_EQ(FMON_ENOENT, del(id, link));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(0, del(id, dir));
    EXPECT_EQ(FMON_ENOENT, del(id, dir));
}

TEST_F(Watches, LinkOnTheWayIsResolved)
{
    tree.dir("dir/e");
    std::string through = tree.link("l", dir) + "/e";
    ASSERT_EQ(0, add(id, through, FMON_CREATE));
    EXPECT_NE(nullptr, find(id, dir + "/e"));
    EXPECT_EQ(FMON_ENOENT, del(id, through));
    EXPECT_EQ(0, add(id, through, FMON_CREATE));
}

/* Who could put a link in the path's place must not choose what is watched, nor under what path it is deleted. */
TEST_F(Watches, PathWithALinkIsMissingWhereLinksAreRefused)
{
    fmon.hardened = 1;
    tree.dir("dir/e");
    const std::string link = tree.link("l", dir);
    constexpr uint32_t kNoLinks = FMON_DIR | FMON_NO_LINKS;
    EXPECT_EQ(FMON_ENOENT, try_add(link, FMON_CREATE, kNoLinks));
    EXPECT_EQ(FMON_ENOENT, try_add(link + "/e", FMON_CREATE, kNoLinks));
    EXPECT_EQ(0, try_add(dir + "/e", FMON_CREATE, kNoLinks));
    Fault fault("realpath", 1, EACCES);
    EXPECT_EQ(FMON_ENOENT, try_add(dir, FMON_CREATE, kNoLinks));
    EXPECT_TRUE(fault.hit());
    fmon.hardened = 0;
}

TEST_F(Watches, WaitingWatchThatRefusesLinksWaitsOn)
{
    fmon.hardened = 1;
    const std::string link = tree.link("l", dir);
    ASSERT_EQ(0, add(id, link + "/e", FMON_CREATE, kWait | FMON_NO_LINKS));
    tree.dir("dir/e");
    fmon_tbd_pass();
    ASSERT_NE(nullptr, find(id, link + "/e"));
    EXPECT_EQ(nullptr, find(id, link + "/e")->dentry);
    EXPECT_EQ(0, del(id, link + "/e"));
    fmon.hardened = 0;
}

TEST_F(Watches, LinksAreRefusedByAHardenedMonitorOnly)
{
    fmon.hardened = 0;
    EXPECT_EQ(0, add(id, tree.link("l", dir), FMON_CREATE, FMON_DIR | FMON_NO_LINKS));
    EXPECT_NE(nullptr, find(id, dir));
}

/* ---- deleting ---- */

TEST_F(Watches, DeletingGivesItBackToTheBackend)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    EXPECT_EQ((Lines{fmon_line(4, "del watch: " + dir + " from instance client\n")}),
              log_of([&] { EXPECT_EQ(0, del(id, dir)); }));
    EXPECT_EQ(1, backend.count("del_watch(" + dir + ")"));
    EXPECT_EQ(0u, watches(id));
    EXPECT_TRUE(log_of([&] { EXPECT_EQ(FMON_ENOENT, del(id, dir)); }).empty());
}

TEST_F(Watches, DeletingGoesOnWhenTheBackendFails)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    backend.del_result = -109;
    EXPECT_EQ((Lines{fmon_line(4, "del watch: " + dir + " from instance client\n"),
                     fmon_line(1, "del watch failed: -109\n")}),
              log_of([&] { EXPECT_EQ(0, del(id, dir)); }));
    EXPECT_EQ(0u, watches(id));
}

TEST_F(Watches, BackendThatLeavesTheWatchInItsDentryDoesNoHarm)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    backend.on_del = [](struct watch *) { return -1; };
    EXPECT_EQ(0, del(id, dir));
    EXPECT_TRUE(list_empty(&owner_of(dentry(dir))->watches));
}

TEST_F(Watches, PlainWatchOfAVanishedDirectoryIsStillThere)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE));
    vanish(find(id, dir));
    EXPECT_EQ(1u, watches(id));
    EXPECT_EQ(0u, waiting());
    EXPECT_EQ(FMON_EEXIST, add(id, dir, FMON_CREATE));
    EXPECT_EQ(0, del(id, dir));
    EXPECT_EQ(0, backend.count("del_watch(" + dir + ")"));
    EXPECT_EQ(0u, watches(id));
}

TEST_F(Watches, WaitingWatchIsDeleted)
{
    std::string missing = tree.path("missing");
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, kWait));
    EXPECT_EQ((Lines{fmon_line(4, "del watch: " + missing + " from instance client\n"),
                     fmon_line(4, "delete deleted watch\n")}),
              log_of([&] { EXPECT_EQ(0, del(id, missing)); }));
    EXPECT_EQ(0u, watches(id));
    EXPECT_EQ(0u, waiting());
}

TEST_F(Watches, AttachedWatchThatWouldWaitIsDeletedAsAnyOther)
{
    ASSERT_EQ(0, add(id, dir, FMON_CREATE, kWait));
    EXPECT_EQ((Lines{fmon_line(4, "del watch: " + dir + " from instance client\n")}),
              log_of([&] { EXPECT_EQ(0, del(id, dir)); }));
    EXPECT_EQ(1, backend.count("del_watch(" + dir + ")"));
}

/* ---- in a container ---- */

class InContainer : public Watches
{
protected:
    InContainer() { g_container_flag = 1; }
};

TEST_F(InContainer, PathIsNotResolved)
{
    CallCount count("realpath");
    std::string link = tree.link("l", dir);
    ASSERT_EQ(0, add(id, link, FMON_CREATE));
    EXPECT_EQ(0, count.calls());
    EXPECT_NE(nullptr, find(id, link));
    EXPECT_EQ(FMON_EEXIST, add(id, link, FMON_CREATE));
    EXPECT_EQ(0, del(id, link));
}

TEST_F(InContainer, TypeOfADirectoryIsNotTested)
{
    std::string file = tree.file("f");
    EXPECT_EQ(0, try_add(file, FMON_CREATE, FMON_DIR));
    EXPECT_EQ(0, try_add(file, FMON_CREATE, FMON_MOUNT));
    EXPECT_EQ(FMON_ENOENT, try_add(tree.path("missing"), FMON_CREATE, FMON_DIR));
    EXPECT_EQ(FMON_ENOENT, try_add(dir, FMON_CREATE, FMON_FILE));
    EXPECT_EQ(0, try_add(file, FMON_CREATE, FMON_FILE));
}

}  // namespace
