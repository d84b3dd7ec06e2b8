/* Tests of fmon.h: start, stop and instances, and what fails. */

#include <cstring>

#include "core_fixture.h"

namespace
{

using namespace testlib;

/* ---- start and stop, without a monitor running ---- */

class Start : public ::testing::Test
{
protected:
    Start() { memcpy(&before, &fmon, sizeof fmon); }
    ~Start() override
    {
        fmon_deinit();
        memcpy(&fmon, &before, sizeof fmon);
    }
    HostReset host;
    FakeBackend backend;
    struct fmon before;
};

TEST_F(Start, SetsTheObjectUp)
{
    EXPECT_EQ((Lines{fmon_line(3, "init fmon: max events 10000, max dentries 8000\n")}),
              log_of([] { EXPECT_EQ(0, fmon_init(10000, 8000, 30000)); }));
    EXPECT_EQ(1u, fmon.inited);
    EXPECT_EQ(0u, fmon.inst_mask);
    EXPECT_EQ(10000, fmon.max_events);
    EXPECT_EQ(0, fmon.event_count);
    EXPECT_EQ(833, fmon.hash_size);
    EXPECT_EQ(30000u, fmon.tbd_interval);
    EXPECT_EQ(8000, fmon.dcache.max_entries);
    EXPECT_EQ(&fmon.tbd, fmon.tbd.next);
    EXPECT_EQ((std::vector<std::string>{"init()"}), backend.calls);
    EXPECT_EQ(-1, owner_of(fmon.dcache.root)->wd);
}

TEST_F(Start, LimitsAreTested)
{
    const int refused[][3] = {{10000, 8000, 999}, {0, 8000, 1000},  {-1, 8000, 1000},        {10000, 0, 1000},
                              {10000, -1, 1000},  {10000, 8000, 0}, {10000, 8000, INT32_MIN}};
    for (const int(&limits)[3] : refused)
        EXPECT_EQ((Lines{fmon_line(3, "event set error")}),
                  log_of([&] { EXPECT_EQ(FMON_EINVAL, fmon_init(limits[0], limits[1], limits[2])); }));
    EXPECT_TRUE(backend.calls.empty());
    EXPECT_EQ(0, fmon_init(1, 1, 1000));
}

TEST_F(Start, SecondStartIsRefused)
{
    ASSERT_EQ(0, fmon_init(10000, 8000, 1000));
    EXPECT_EQ((Lines{fmon_line(3, "init func noexist")}),
              log_of([] { EXPECT_EQ(FMON_EEXIST, fmon_init(20000, 8000, 1000)); }));
    EXPECT_EQ(10000, fmon.max_events);
}

TEST_F(Start, LimitsAreTestedBeforeTheState)
{
    ASSERT_EQ(0, fmon_init(10000, 8000, 1000));
    EXPECT_EQ(FMON_EINVAL, fmon_init(10000, 8000, 999));
}

TEST_F(Start, CacheThatCannotBeMade)
{
    EXPECT_EQ((Lines{fmon_line(3, "init fmon: max events 100, max dentries 2097153\n"),
                     fmon_line(1, "init dcache failed\n")}),
              log_of([] { EXPECT_EQ(FMON_ENOMEM, fmon_init(100, DCACHE_MAX_ENTRIES + 1, 1000)); }));
    EXPECT_EQ(0u, fmon.inited);
    EXPECT_EQ(0, fmon_init(100, DCACHE_MAX_ENTRIES, 1000));
}

TEST_F(Start, BackendThatFails)
{
    backend.init_result = -105;
    EXPECT_EQ((Lines{fmon_line(3, "init fmon: max events 100, max dentries 10\n"),
                     fmon_line(1, "method init failed: err -105\n")}),
              log_of([] { EXPECT_EQ(-105, fmon_init(100, 10, 1000)); }));
    EXPECT_EQ(0u, fmon.inited);
    EXPECT_EQ(nullptr, fmon.hash);
    EXPECT_EQ(nullptr, fmon.dcache.root);
    EXPECT_EQ(nullptr, fmon.dcache.buckets);
    EXPECT_EQ(0, backend.count("deinit()"));
    backend.init_result = 1; /* only below 0 is a failure */
    EXPECT_EQ(0, fmon_init(100, 10, 1000));
}

TEST_F(Start, EachAllocationCanFail)
{
    for (const char *name : {"malloc", "calloc", "realloc"})
        fail_each(name, ENOMEM, [&](Fault &fault) {
            log_clear();
            int result = fmon_init(100, 10, 1000);
            if (!fault.hit()) {
                EXPECT_EQ(0, result);
                fmon_deinit();
                return;
            }
            EXPECT_EQ(FMON_ENOMEM, result);
            EXPECT_EQ(1, log_count(1, "init dcache failed\n") + log_count(1, "event init failed: -101\n"));
            EXPECT_EQ(0u, fmon.inited);
            EXPECT_EQ(nullptr, fmon.hash);
            EXPECT_EQ(nullptr, fmon.dcache.root);
        });
}

TEST_F(Start, EventTableIsTheLastThingToFail)
{
    CallCount count("calloc");
    ASSERT_EQ(0, fmon_init(100, 10, 1000));
    int calls = count.calls();
    fmon_deinit();
    Fault fault("calloc", calls);
    EXPECT_EQ(FMON_ENOMEM, fmon_init(100, 10, 1000));
    EXPECT_TRUE(logged(1, "event init failed: -101\n")) << log_text();
}

TEST_F(Start, StopTakesTheBackendWithIt)
{
    ASSERT_EQ(0, fmon_init(100, 10, 1000));
    EXPECT_TRUE(log_of([] { fmon_deinit(); }).empty());
    EXPECT_EQ((std::vector<std::string>{"init()", "deinit()"}), backend.calls);
    EXPECT_EQ(0u, fmon.inited);
    fmon_deinit();
    EXPECT_EQ(1, backend.count("deinit()"));
}

TEST_F(Start, NothingWorksBeforeIt)
{
    int32_t *fds = nullptr;
    uint32_t timeout = 1000;
    log_clear();
    EXPECT_EQ(FMON_ENOTINIT, fmon_create_instance("a"));
    EXPECT_EQ(FMON_ENOTINIT, fmon_create_instance(""));
    EXPECT_EQ(FMON_ENOTINIT, fmon_destroy_instance(0));
    EXPECT_EQ(FMON_ENOTINIT, fmon_destroy_instance(99));
    EXPECT_EQ(FMON_ENOTINIT, fmon_add_watch(0, "/", 1, 2, 0, 0));
    EXPECT_EQ(FMON_ENOTINIT, fmon_del_watch(0, "/"));
    EXPECT_EQ(FMON_ENOTINIT, fmon_add_global_watch(0, 8));
    EXPECT_EQ(FMON_ENOTINIT, fmon_del_global_watch(0, 8));
    EXPECT_EQ(FMON_ENOTINIT, fmon_update_global_watch(0));
    EXPECT_EQ(FMON_ENOTINIT, fmon_get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(FMON_ENOTINIT, fmon_run(0));
    EXPECT_EQ(FMON_ENOTINIT, fmon_rate_ctrl(10, 200, 0));
    EXPECT_TRUE(backend.calls.empty());
    EXPECT_TRUE(log_lines().empty());
}

TEST_F(Start, AccessorsWorkBeforeIt)
{
    for (int id : {0, 31}) {
        EXPECT_EQ(0, fmon_has_event(id));
        EXPECT_EQ(nullptr, fmon_peek_event(id));
        EXPECT_EQ(nullptr, fmon_read_event(id));
        fmon_drop_event(id);
    }
    EXPECT_EQ(0u, *fmon_get_event_mask());
}

TEST(DentryInit, SetsListAndDescriptorOnly)
{
    struct dentry d = {};
    owner_of(&d)->ino = 77;
    dentry_init(&d);
    EXPECT_TRUE(list_empty(&owner_of(&d)->watches));
    EXPECT_EQ(&owner_of(&d)->watches, owner_of(&d)->watches.next);
    EXPECT_EQ(-1, owner_of(&d)->wd);
    EXPECT_EQ(77u, owner_of(&d)->ino);
}

/* ---- instances ---- */

class Instances : public CoreTest
{
};

TEST_F(Instances, IdsAreTheLowestFree)
{
    EXPECT_EQ(0, fmon_create_instance("a"));
    EXPECT_EQ(1, fmon_create_instance("b"));
    EXPECT_EQ(3u, fmon.inst_mask);
    EXPECT_EQ(0, fmon_destroy_instance(0));
    EXPECT_EQ(2u, fmon.inst_mask);
    EXPECT_EQ(0, fmon_create_instance("c"));
    EXPECT_EQ(2, fmon_create_instance("a"));
}

TEST_F(Instances, CreationIsLogged)
{
    EXPECT_EQ((Lines{fmon_line(4, "create instance: a\n")}), log_of([] { fmon_create_instance("a"); }));
}

TEST_F(Instances, NameIsTakenOnce)
{
    ASSERT_EQ(0, fmon_create_instance("a"));
    ASSERT_EQ(1, fmon_create_instance("b"));
    EXPECT_TRUE(log_of([] { EXPECT_EQ(FMON_EEXIST, fmon_create_instance("b")); }).empty());
    fmon_destroy_instance(0);
    EXPECT_EQ(FMON_EEXIST, fmon_create_instance("b")); /* a free slot before it changes nothing */
    EXPECT_EQ(0, fmon_create_instance("a"));
}

TEST_F(Instances, EmptyNameIsRefused) { EXPECT_EQ(FMON_EINVAL, fmon_create_instance("")); }

TEST_F(Instances, Name15BytesLongIsKeptAndFound)
{
    EXPECT_EQ(0, fmon_create_instance("123456789012345"));
    EXPECT_STREQ("123456789012345", fmon.instances[0].name);
    EXPECT_EQ(FMON_EEXIST, fmon_create_instance("123456789012345"));
}

TEST_F(Instances, LongerNameIsCutAndNeverFound)
{
    for (const char *name : {"1234567890123456", "12345678901234567890"}) {
        int id = fmon_create_instance(name);
        EXPECT_STREQ("123456789012345", fmon.instances[id].name);
        EXPECT_EQ(id + 1, fmon_create_instance(name));
    }
    EXPECT_EQ(4u, static_cast<unsigned>(__builtin_popcount(fmon.inst_mask)));
    EXPECT_EQ(FMON_EEXIST, fmon_create_instance("123456789012345"));
}

TEST_F(Instances, ThereAre32)
{
    for (int i = 0; i < 31; i++)
        ASSERT_EQ(i, fmon_create_instance(("i" + std::to_string(i)).c_str()));
    EXPECT_EQ(0x7fffffffu, fmon.inst_mask);
    EXPECT_EQ(31, fmon_create_instance("last"));
    EXPECT_EQ(0xffffffffu, fmon.inst_mask);
    EXPECT_EQ((Lines{fmon_line(4, "instance full\n")}),
              log_of([] { EXPECT_EQ(FMON_EFULL, fmon_create_instance("more")); }));
    EXPECT_EQ(FMON_EEXIST, fmon_create_instance("last"));
    EXPECT_EQ(0, fmon_destroy_instance(31));
    EXPECT_EQ(0x7fffffffu, fmon.inst_mask);
    EXPECT_EQ(31, fmon_create_instance("more"));
}

TEST_F(Instances, SlotIsClearedWhenItIsTaken)
{
    int id = instance();
    fmon_add_global_watch(id, FMON_CREATE);
    fmon_destroy_instance(id);
    EXPECT_EQ(FMON_CREATE, fmon.instances[id].global_mask);
    ASSERT_EQ(id, instance("b"));
    EXPECT_EQ(0u, fmon.instances[id].global_mask);
    EXPECT_TRUE(list_empty(&fmon.instances[id].watches));
    EXPECT_TRUE(list_empty(&fmon.instances[id].events));
}

TEST_F(Instances, OnlyLiveIdsAreDestroyed)
{
    for (int id : {-1, 0, 31, 32, INT32_MAX, INT32_MIN})
        EXPECT_EQ(FMON_EINVAL, fmon_destroy_instance(id)) << id;
    int id = instance();
    EXPECT_EQ(0, fmon_destroy_instance(id));
    EXPECT_EQ(FMON_EINVAL, fmon_destroy_instance(id));
}

TEST_F(Instances, DestructionSendsTheGlobalMasksAgain)
{
    int a = instance("a"), b = instance("b");
    fmon_add_global_watch(a, FMON_CREATE);
    fmon_add_global_watch(b, FMON_DELETE);
    backend.calls.clear();
    backend.del_global_result = -1; /* changes nothing */
    EXPECT_EQ((Lines{fmon_line(4, "destroy instance a\n")}), log_of([=] { EXPECT_EQ(0, fmon_destroy_instance(a)); }));
    EXPECT_EQ((std::vector<std::string>{"del_global(0x300)"}), backend.calls);
    EXPECT_EQ(FMON_CREATE, fmon.instances[a].global_mask);
    EXPECT_EQ(3u, fmon.global_instance_mask);
    fmon_destroy_instance(b);
    EXPECT_EQ(2, backend.count("del_global(0x300)")); /* the dead one's wish still counts */
}

TEST_F(Instances, DestructionFreesWatchesOfEveryKind)
{
    int id = instance();
    std::string a = tree.dir("a"), gone = tree.path("gone"), pattern = tree.path("*/log"),
                missing = tree.path("missing");
    tree.dir("x/log");
    tree.dir("y/log");
    tree.dir("gone");
    ASSERT_EQ(0, add(id, a, FMON_CREATE));
    ASSERT_EQ(0, add(id, missing, FMON_CREATE, FMON_DIR | FMON_DELETED));
    ASSERT_EQ(0, add(id, pattern, FMON_CREATE));
    ASSERT_EQ(0, add(id, gone, FMON_CREATE));
    vanish(find(id, gone)); /* now neither attached nor waiting */
    ASSERT_EQ(6u, watches(id));
    ASSERT_EQ(2u, waiting());

    backend.calls.clear();
    EXPECT_EQ(0, fmon_destroy_instance(id));
    EXPECT_EQ(
        (std::vector<std::string>{"del_global(0x0)", "del_watch(" + a + ")", "del_watch(" + tree.path("x/log") + ")",
                                  "del_watch(" + tree.path("y/log") + ")"}),
        backend.calls);
    EXPECT_EQ(0u, watches(id));
    EXPECT_EQ(0u, waiting());
    EXPECT_TRUE(list_empty(&owner_of(dentry(a))->watches));
}

TEST_F(Instances, DestructionGoesOnWhenTheBackendFails)
{
    int id = instance();
    ASSERT_EQ(0, add(id, tree.dir("a"), FMON_CREATE));
    ASSERT_EQ(0, add(id, tree.dir("b"), FMON_CREATE));
    backend.on_del = [](struct watch *) { return -109; }; /* leaves the watch in its dentry */
    EXPECT_EQ((Lines{fmon_line(4, "destroy instance client\n"), fmon_line(1, "del watch failed: -109\n"),
                     fmon_line(1, "del watch failed: -109\n")}),
              log_of([=] { EXPECT_EQ(0, fmon_destroy_instance(id)); }));
    EXPECT_EQ(0u, watches(id));
    EXPECT_TRUE(list_empty(&owner_of(dentry(tree.path("a")))->watches));
}

TEST_F(Instances, DestructionSurvivesABackendThatFreesOtherWatches)
{
    int id = instance();
    ASSERT_EQ(0, add(id, tree.dir("a"), FMON_CREATE));
    tree.dir("x/log");
    ASSERT_EQ(0, add(id, tree.path("*/log"), FMON_CREATE));
    struct watch *dynamic = find(id, tree.path("x/log"));
    backend.on_del = [&](struct watch *w) {
        list_unlink(&w->link);
        w->dentry = nullptr;
        if (dynamic && w != dynamic) {
            list_unlink(&dynamic->link);
            dynamic->dentry = nullptr;
            watch_out_service(&fmon, dynamic);
            dynamic = nullptr;
        }
        return 0;
    };
    EXPECT_EQ(0, fmon_destroy_instance(id));
    EXPECT_EQ(nullptr, dynamic);
    EXPECT_EQ(0u, watches(id));
}

TEST_F(Instances, QueuedRecordSurvivesOneOfItsHolders)
{
    int a = instance("a"), b = instance("b");
    std::string dir = tree.dir("d");
    ASSERT_EQ(0, add(a, dir, FMON_CREATE));
    ASSERT_EQ(0, add(b, dir, FMON_CREATE));
    process(dir, "f", FMON_CREATE);
    process(dir, "g", FMON_CREATE);
    ASSERT_EQ(3u, fmon.event_mask);
    fmon_destroy_instance(a);
    EXPECT_EQ(2u, fmon.event_mask);
    EXPECT_EQ(2, fmon.event_count);
    ASSERT_NE(nullptr, record(dir + "/f"));
    EXPECT_EQ(2u, record(dir + "/f")->ref);
    fmon_drop_event(b);
    fmon_drop_event(b);
    EXPECT_EQ(0, fmon.event_count);
}

TEST_F(Instances, LastHolderTakesItsRecordsWithIt)
{
    int a = instance("a"), b = instance("b");
    std::string dir = tree.dir("d");
    ASSERT_EQ(0, add(a, dir, FMON_CREATE));
    ASSERT_EQ(0, add(b, dir, FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY));
    process(dir, "f", FMON_CREATE);
    process(dir, "g", FMON_CREATE | FMON_MODIFY);
    fmon_destroy_instance(a);
    EXPECT_EQ(1, fmon.event_count); /* g is held back for b */
    EXPECT_EQ(2u, record(dir + "/g")->pending);
    EXPECT_EQ(0u, record(dir + "/g")->ref);
}

}  // namespace
