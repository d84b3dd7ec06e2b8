/* Tests of fmon_global.cpp: system-wide watches of instances, and what the backend is asked for. */

#include <list>

#include "core_fixture.h"
#include "linux/fmon_linux.h"
#include "linux/mount.h"

namespace
{

using namespace testlib;

constexpr uint32_t kClose = FMON_CLOSE_WRITE, kCreate = FMON_CREATE, kDelete = FMON_DELETE;
constexpr uint32_t kMountFlags = FMON_MOUNT | FMON_PID;

class Global : public CoreTest
{
protected:
    Global()
    {
        saved = fmlnx.mounts;
        list_init(&fmlnx.mounts);
        id = instance();
        forget_calls();
    }
    ~Global() override { fmlnx.mounts = saved; }

    void mount(const std::string &path)
    {
        names.push_back(path);
        entries.push_back({});
        entries.back().mount = names.back().data();
        list_add_tail(&entries.back().link, &fmlnx.mounts);
    }
    void forget_calls()
    {
        backend.calls.clear();
        log_clear();
    }

    int id;
    list_head saved;
    std::list<std::string> names;
    std::list<struct mount_entry> entries;
};

/* ---- adding ---- */

TEST_F(Global, MasksAreKept)
{
    ASSERT_EQ(0, fmon_add_global_watch(id, kCreate));
    EXPECT_EQ((std::vector<std::string>{"add_global(0x100)"}), backend.calls);
    EXPECT_EQ(kCreate, fmon.instances[id].global_mask);
    EXPECT_EQ(1u, fmon.global_instance_mask);
    EXPECT_EQ(kCreate, fmon.global_event_mask);
    EXPECT_TRUE(log_lines().empty());

    ASSERT_EQ(0, fmon_add_global_watch(id, kDelete));
    EXPECT_EQ(kCreate | kDelete, fmon.instances[id].global_mask);
    EXPECT_EQ(kCreate | kDelete, fmon.global_event_mask);
    EXPECT_EQ(1, backend.count("add_global(0x200)")); /* the new kinds only */
}

TEST_F(Global, InstanceMustBeLive)
{
    for (int bad : {-1, 1, 31, 32, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(FMON_EINVAL, fmon_add_global_watch(bad, kClose)) << bad;
        EXPECT_EQ(FMON_EINVAL, fmon_del_global_watch(bad, kClose)) << bad;
        EXPECT_EQ(FMON_EINVAL, fmon_update_global_watch(bad)) << bad;
    }
    EXPECT_TRUE(backend.calls.empty());
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Global, CloseWriteIsWatchedOnEveryMount)
{
    std::string b = tree.dir("b"), c = tree.dir("c");
    for (const std::string &path : {std::string("/"), b, c})
        mount(path);
    ASSERT_EQ(0, fmon_add_global_watch(id, kClose | kCreate));
    EXPECT_EQ(1, backend.count("add_global(0x100)"));
    EXPECT_EQ(3u, watches(id));
    for (const std::string &path : {std::string("/"), b, c}) {
        struct watch *w = find(id, path);
        ASSERT_NE(nullptr, w) << path;
        EXPECT_EQ(kClose, w->mask);
        EXPECT_EQ(kMountFlags, w->flags);
        EXPECT_EQ(12, w->max_depth);
        EXPECT_EQ(12, w->max_subdirs);
        EXPECT_TRUE(logged(3, "we watch the mount point:" + path));
    }
    EXPECT_EQ(1, log_count(3, "fmon use fanotify to watch globale close_write event"));
    EXPECT_EQ(kClose | kCreate, fmon.instances[id].global_mask);
    EXPECT_EQ(kClose | kCreate, fmon.global_event_mask);
    /* Should a probe see one all the same, it reaches the instance. */
    process_path("/x", kClose, 5, 0);
    EXPECT_EQ(1u, queued(id));
}

TEST_F(Global, MountsAreTakenInTheirOrder)
{
    std::string b = tree.dir("b"), a = tree.dir("a");
    mount(b);
    mount(a);
    fmon_add_global_watch(id, kClose);
    EXPECT_EQ((std::vector<std::string>{"check_watch(" + b + ")", "add_watch(" + b + ")", "check_watch(" + a + ")",
                                        "add_watch(" + a + ")", "add_global(0x0)"}),
              backend.calls);
}

TEST_F(Global, OtherKindsLeaveTheMountsAlone)
{
    mount("/");
    fmon_add_global_watch(id, kCreate);
    EXPECT_EQ(0u, watches(id));
}

TEST_F(Global, OneFailingMountLeavesCloseWriteToTheBackend)
{
    std::string a = tree.dir("a"), c = tree.dir("c");
    for (const std::string &path : {a, tree.path("missing"), c})
        mount(path);
    ASSERT_EQ(0, fmon_add_global_watch(id, kClose | kCreate));
    EXPECT_EQ(1, backend.count("add_global(0x108)"));
    EXPECT_EQ(1, log_count(2, "maybe some mount point is not correct!"));
    EXPECT_EQ(0, log_count_containing("fmon use fanotify"));
    EXPECT_EQ(2u, watches(id)); /* those that were placed stay */
    EXPECT_EQ(kClose | kCreate, fmon.instances[id].global_mask);
}

TEST_F(Global, WithoutMountsCloseWriteIsTakenOut)
{
    ASSERT_EQ(0, fmon_add_global_watch(id, kClose));
    EXPECT_EQ((std::vector<std::string>{"add_global(0x0)"}), backend.calls);
    EXPECT_EQ(kClose, fmon.instances[id].global_mask);
}

TEST_F(Global, TableThatWasNeverReadHasNoMounts)
{
    fmlnx.mounts = {};
    EXPECT_EQ(0, fmon_add_global_watch(id, kClose));
    EXPECT_EQ(1, backend.count("add_global(0x0)"));
}

TEST_F(Global, SecondRequestFindsTheMountsTaken)
{
    mount("/");
    ASSERT_EQ(0, fmon_add_global_watch(id, kClose));
    forget_calls();
    ASSERT_EQ(0, fmon_add_global_watch(id, kClose));
    EXPECT_EQ((std::vector<std::string>{"add_global(0x8)"}), backend.calls);
    EXPECT_EQ(1, log_count(2, "maybe some mount point is not correct!"));
    EXPECT_EQ(1u, watches(id));
}

TEST_F(Global, BackendThatFailsLosesOnlyTheWatchOnRoot)
{
    std::string a = tree.dir("a");
    mount("/");
    mount(a);
    for (int code : {-1, 1}) {
        backend.add_global_result = code;
        EXPECT_EQ(code, fmon_add_global_watch(id, kClose | kCreate));
        EXPECT_EQ(nullptr, find(id, "/"));
        EXPECT_NE(nullptr, find(id, a));
        EXPECT_EQ(0u, fmon.instances[id].global_mask);
        EXPECT_EQ(0u, fmon.global_instance_mask);
        EXPECT_EQ(0u, fmon.global_event_mask);
    }
}

TEST_F(Global, BackendThatFailsTakesTheClientsOwnWatchOnRootToo)
{
    ASSERT_EQ(0, add(id, "/", kCreate));
    backend.add_global_result = -1;
    EXPECT_EQ(-1, fmon_add_global_watch(id, kCreate));
    EXPECT_EQ(0u, watches(id));
}

TEST_F(Global, EachAllocationCanFail)
{
    mount("/");
    std::string before = snapshot();
    for (const char *name : {"malloc", "calloc"}) {
        int hits = fail_each_then(
            name,
            [&] {
                backend.calls.clear();
                EXPECT_EQ(0, fmon_add_global_watch(id, kClose));
            },
            [&](bool hit) {
                EXPECT_EQ(hit ? 1 : 0, backend.count("add_global(0x8)"));
                EXPECT_EQ(hit ? 0u : 1u, watches(id));
                fmon_del_global_watch(id, kClose);
                fmon.global_event_mask = 0;
                EXPECT_EQ(before, snapshot());
            });
        EXPECT_EQ(1, hits);
    }
}

/* ---- deleting ---- */

TEST_F(Global, DeletingSendsWhatIsStillWanted)
{
    int other = instance("other");
    fmon_add_global_watch(id, kCreate | kDelete);
    fmon_add_global_watch(other, kDelete | FMON_ATTRIB);
    forget_calls();
    EXPECT_EQ(0, fmon_del_global_watch(id, kCreate));
    EXPECT_EQ((std::vector<std::string>{"del_global(0x204)"}), backend.calls);
    EXPECT_EQ(kDelete, fmon.instances[id].global_mask);
    EXPECT_EQ(3u, fmon.global_instance_mask);
    EXPECT_EQ(0, fmon_del_global_watch(other, 0xfff));
    EXPECT_EQ(1, backend.count("del_global(0x200)"));
    EXPECT_EQ(1u, fmon.global_instance_mask);
    EXPECT_EQ(kCreate | kDelete | FMON_ATTRIB, fmon.global_event_mask); /* only grows */
}

TEST_F(Global, BackendsResultIsReturned)
{
    for (int code : {0, -1, 5}) {
        backend.del_global_result = code;
        EXPECT_EQ(code, fmon_del_global_watch(id, kCreate));
    }
}

TEST_F(Global, ZeroMaskOnlySendsTheUnionAgain)
{
    int other = instance("other");
    fmon_add_global_watch(id, kCreate);
    fmon_add_global_watch(other, kDelete);
    forget_calls();
    EXPECT_EQ(0, fmon_del_global_watch(id, 0));
    EXPECT_EQ((std::vector<std::string>{"del_global(0x300)"}), backend.calls);
    EXPECT_EQ(kCreate, fmon.instances[id].global_mask);
    EXPECT_EQ(3u, fmon.global_instance_mask);
}

TEST_F(Global, InstanceThatAddedNothingLeavesTheSet)
{
    ASSERT_EQ(0, fmon_add_global_watch(id, 0));
    EXPECT_EQ(1u, fmon.global_instance_mask);
    fmon_del_global_watch(id, 0);
    EXPECT_EQ(0u, fmon.global_instance_mask);
}

/* What counts is the set as it was before the call: a mask that an instance has without being in it does not. */
TEST_F(Global, UnionIsTakenOverTheSetBeforeTheCall)
{
    int other = instance("other");
    fmon_add_global_watch(other, kDelete);
    fmon.global_instance_mask = 0;
    forget_calls();
    fmon_del_global_watch(id, kCreate);
    EXPECT_EQ((std::vector<std::string>{"del_global(0x0)"}), backend.calls);
}

TEST_F(Global, DestroyedInstanceStillCounts)
{
    int other = instance("other");
    fmon_add_global_watch(other, kDelete);
    fmon_destroy_instance(other);
    forget_calls();
    fmon_del_global_watch(id, 0);
    EXPECT_EQ((std::vector<std::string>{"del_global(0x200)"}), backend.calls);
}

TEST_F(Global, CloseWriteTakesTheWatchOnRootWithIt)
{
    std::string a = tree.dir("a");
    mount("/");
    mount(a);
    fmon_add_global_watch(id, kClose | kCreate);
    fmon_del_global_watch(id, kCreate);
    EXPECT_NE(nullptr, find(id, "/"));
    EXPECT_EQ(0, fmon_del_global_watch(id, kClose));
    EXPECT_EQ(nullptr, find(id, "/"));
    EXPECT_NE(nullptr, find(id, a));
    EXPECT_EQ(0, fmon_del_global_watch(id, kClose)); /* a watch that is not there changes nothing */
}

/* ---- updating ---- */

TEST_F(Global, UpdateAsksTheBackend)
{
    EXPECT_TRUE(log_of([&] { EXPECT_EQ(0, fmon_update_global_watch(id)); }).empty());
    EXPECT_EQ(1, backend.count("update_global(0)"));
}

TEST_F(Global, FailedUpdateIsLogged)
{
    for (int code : {-1, 2}) {
        backend.update_global_result = code;
        EXPECT_EQ((Lines{fmon_line(1, "update global mnt fail\n")}),
                  log_of([&] { EXPECT_EQ(code, fmon_update_global_watch(id)); }));
    }
}

}  // namespace
