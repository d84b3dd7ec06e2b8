/* The functions that clients call. */
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>

#include "fmon_shell.h"
#include "linux/fmon_linux.h"
#include "shell_fixture.h"

namespace
{

int32_t take_a(struct event *) { return 0; }
int32_t take_b(struct event *) { return 0; }
int32_t take_c(struct event *) { return 0; }

class Export : public ShellTest
{
protected:
    Export() { start(); }

    static std::vector<int> ids()
    {
        std::vector<int> out(static_cast<size_t>(fmon_shell.row_count));
        for (size_t i = 0; i < out.size(); i++)
            out[i] = fmon_shell.rows[i].id;
        return out;
    }
    static int create(const std::string &name, fmon_client_cb cb = take_a)
    {
        return _orx_fmon_create_instance(name.c_str(), cb);
    }
    static void create_many(int n)
    {
        for (int i = 0; i < n; i++)
            ASSERT_EQ(i, create("client " + std::to_string(i)));
    }
    const struct watch *only_watch(int id)
    {
        const list_head *node = fmon.instances[id].watches.next;
        return FMON_RECORD(const_cast<list_head *>(node), struct watch, inst_link);
    }
};

/* ---- the table ---- */

TEST_F(Export, ThirtyTwoRowsAndNoMore)
{
    create_many(31);
    EXPECT_EQ(31, create("the 32nd"));
    EXPECT_EQ(32, fmon_shell.row_count);
    testlib::log_clear();
    EXPECT_EQ(-1, create("the 33rd"));
    EXPECT_EQ(LevelLines{}, level_lines()); /* the core was not asked */
    EXPECT_EQ(32, fmon_shell.row_count);

    EXPECT_EQ(0, _orx_fmon_del_instance(31));
    EXPECT_EQ(31, create("again the 32nd"));
}

TEST_F(Export, AFullTableHidesTheCoresOwnLimit)
{
    create_many(31);
    ASSERT_EQ(31, fmon_create_instance("not through the shell"));
    EXPECT_EQ(FMON_EFULL, create("the 32nd row"));
    EXPECT_EQ(31, fmon_shell.row_count);
}

TEST_F(Export, ARefusedInstanceGetsNoRow)
{
    EXPECT_EQ(0, create("name"));
    EXPECT_EQ(FMON_EEXIST, create("name"));
    EXPECT_EQ(FMON_EINVAL, create(""));
    EXPECT_EQ(1, fmon_shell.row_count);
}

TEST_F(Export, DeletingTheFirstKeepsTheOthersInOrder)
{
    create("a", take_a);
    create("b", take_b);
    create("c", take_c);
    fmon_shell.rows[1].next_call = 11;
    fmon_shell.rows[2].next_call = 22;
    EXPECT_EQ(0, _orx_fmon_del_instance(0));
    EXPECT_EQ((std::vector<int>{1, 2}), ids());
    EXPECT_EQ(take_b, fmon_shell.rows[0].cb);
    EXPECT_EQ(take_c, fmon_shell.rows[1].cb);
    EXPECT_EQ(11u, fmon_shell.rows[0].next_call);
    EXPECT_EQ(22u, fmon_shell.rows[1].next_call);
    EXPECT_EQ('\0', fmon.instances[0].name[0]);
}

TEST_F(Export, DeletingTheMiddleAndTheLast)
{
    create_many(4);
    EXPECT_EQ(0, _orx_fmon_del_instance(1));
    EXPECT_EQ((std::vector<int>{0, 2, 3}), ids());
    EXPECT_EQ(0, _orx_fmon_del_instance(3));
    EXPECT_EQ((std::vector<int>{0, 2}), ids());
    EXPECT_EQ(1, create("reuses the lowest id"));
    EXPECT_EQ((std::vector<int>{0, 2, 1}), ids());
}

TEST_F(Export, DeletingWhatIsNotThere)
{
    create("a");
    testlib::log_clear();
    EXPECT_EQ(-1, _orx_fmon_del_instance(1));
    EXPECT_EQ(-1, _orx_fmon_del_instance(32));
    EXPECT_EQ(-1, _orx_fmon_del_instance(0xffffffff));
    EXPECT_EQ(LevelLines{}, level_lines());
    EXPECT_EQ(0, _orx_fmon_del_instance(0));
    EXPECT_EQ(-1, _orx_fmon_del_instance(0));
}

TEST_F(Export, AnInstanceMadeBehindTheTableIsNotDeleted)
{
    ASSERT_EQ(0, fmon_create_instance("not through the shell"));
    EXPECT_EQ(-1, _orx_fmon_del_instance(0));
    EXPECT_NE('\0', fmon.instances[0].name[0]);
}

TEST_F(Export, TheRowGoesEvenWhenTheCoreRefuses)
{
    create("a");
    ASSERT_EQ(0, fmon_destroy_instance(0));
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_del_instance(0));
    EXPECT_EQ(0, fmon_shell.row_count);
}

/* Kept: the time is the slot's, not the client's. */
TEST_F(Export, ANewRowInheritsTheSlotsNextCallTime)
{
    create("a");
    create("b");
    fmon_shell.rows[1].next_call = 4711;
    EXPECT_EQ(0, _orx_fmon_del_instance(1));
    EXPECT_EQ(1, create("c", take_c));
    EXPECT_EQ(4711u, fmon_shell.rows[1].next_call);
    EXPECT_EQ(take_c, fmon_shell.rows[1].cb);
}

TEST_F(Export, TheSlotFreedAtTheEndKeepsItsContents)
{
    create("a", take_a);
    create("b", take_b);
    fmon_shell.rows[1].next_call = 99;
    EXPECT_EQ(0, _orx_fmon_del_instance(0));
    EXPECT_EQ(1, fmon_shell.rows[1].id);
    EXPECT_EQ(take_b, fmon_shell.rows[1].cb);
    EXPECT_EQ(0, create("c", take_c));
    EXPECT_EQ(99u, fmon_shell.rows[1].next_call);
}

/* ---- watches ---- */

TEST_F(Export, AWatchGetsItsArgumentsInOrder)
{
    create("a");
    const std::string dir = tree.dir("d");
    EXPECT_EQ(0, _orx_fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR | FMON_RECURSIVE, 3, 4));
    const struct watch *w = only_watch(0);
    EXPECT_EQ(dir, w->path);
    EXPECT_EQ(static_cast<uint32_t>(FMON_CREATE), w->mask);
    EXPECT_EQ(static_cast<uint32_t>(FMON_DIR | FMON_RECURSIVE), w->flags);
    EXPECT_EQ(3, w->max_depth);
    EXPECT_EQ(4, w->max_subdirs);
    EXPECT_EQ(FMON_EEXIST, _orx_fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    EXPECT_EQ(0, _orx_fmon_del_watch(0, dir.c_str()));
    EXPECT_EQ(FMON_ENOENT, _orx_fmon_del_watch(0, dir.c_str()));
}

TEST_F(Export, DepthAndSubdirectoriesAreStoredInTheirOwnWidth)
{
    create("a");
    ASSERT_EQ(0, _orx_fmon_add_watch(0, tree.dir("d").c_str(), FMON_CREATE, FMON_DIR, 65536, 0x80000000));
    EXPECT_EQ(0, only_watch(0)->max_depth);
    EXPECT_EQ(INT32_MIN, only_watch(0)->max_subdirs);
}

TEST_F(Export, TheCoresAnswersComeBackUnchanged)
{
    const std::string dir = tree.dir("d");
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_add_watch(0xffffffff, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    create("a");
    EXPECT_EQ(FMON_ENOENT, _orx_fmon_add_watch(0, tree.path("none").c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    backend.add_result = -109;
    EXPECT_EQ(-109, _orx_fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
}

/* ---- system-wide watches ---- */

TEST_F(Export, AnythingButZeroAdds)
{
    create("a");
    for (uint32_t add : {1u, 2u, 0x100u, 0x80000000u}) {
        backend.calls.clear();
        EXPECT_EQ(0, _orx_fmon_global_watch(0, FMON_DELETE, add));
        EXPECT_EQ(1, backend.count("add_global(0x200)")) << add;
    }
    backend.calls.clear();
    EXPECT_EQ(0, _orx_fmon_global_watch(0, FMON_DELETE, 0));
    EXPECT_EQ(0, backend.count("add_global(0x200)"));
    EXPECT_EQ(1, backend.count("del_global(0x0)"));
}

TEST_F(Export, ARefusedSystemWideWatch)
{
    create("a");
    backend.add_global_result = -1;
    EXPECT_EQ(-1, _orx_fmon_global_watch(0, FMON_DELETE, 1));
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_global_watch(5, FMON_DELETE, 1));
}

TEST_F(Export, AnUpdateReachesTheBackend)
{
    create("a");
    EXPECT_EQ(0, _orx_fmon_global_update(0));
    EXPECT_EQ(1, backend.count("update_global(0)"));
    backend.update_global_result = -1;
    EXPECT_EQ(-1, _orx_fmon_global_update(0));
}

/* ---- the lock ---- */

TEST_F(Export, EveryFunctionTakesTheLockOnce)
{
    create("a");
    struct fmon_losses losses;
    struct fmon_status status = {};
    const std::string dir = tree.dir("d");
    const std::vector<std::pair<const char *, std::function<void()>>> calls = {
        {"create", [] { create("b"); }},
        {"add", [&] { _orx_fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0); }},
        {"del watch", [&] { _orx_fmon_del_watch(0, dir.c_str()); }},
        {"global add", [] { _orx_fmon_global_watch(0, FMON_DELETE, 1); }},
        {"global del", [] { _orx_fmon_global_watch(0, FMON_DELETE, 0); }},
        {"spare", [] { EXPECT_EQ(FMON_EINVAL, _orx_fmon_spare(0, "a")); }},
        {"resync", [] { EXPECT_EQ(FMON_EINVAL, _orx_fmon_resync("a", FMON_RESYNC_FORGET)); }},
        {"update", [] { _orx_fmon_global_update(0); }},
        {"losses", [&] { _orx_fmon_losses(&losses); }},
        {"status", [&] { _orx_fmon_status(&status); }},
        {"dump", [] { _orx_fmon_dump(0, nullptr); }},
        {"del", [] { _orx_fmon_del_instance(0); }},
        {"del none", [] { _orx_fmon_del_instance(9); }},
    };
    for (const auto &[name, call] : calls) {
        const int before = testlib::mutex_lock_calls();
        call();
        EXPECT_EQ(before + 1, testlib::mutex_lock_calls()) << name;
        EXPECT_FALSE(testlib::mutex_locked()) << name;
    }
}

TEST_F(Export, TheBackendIsCalledUnderTheLock)
{
    create("a");
    bool locked = false;
    backend.on_add = [&](struct watch *) {
        locked = testlib::mutex_locked();
        return FMON_ENOTSUP;
    };
    EXPECT_EQ(FMON_ENOTSUP, _orx_fmon_add_watch(0, tree.dir("d").c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    EXPECT_TRUE(locked);
    EXPECT_FALSE(testlib::mutex_locked());
}

TEST_F(Export, TheRestTakesNoLock)
{
    char path[260];
    const int before = testlib::mutex_lock_calls();
    _clt_file_enable(1);
    _clt_file_enable(0xffffff00);
    EXPECT_EQ(0, _orx_get_container_path(path));
    EXPECT_EQ(0, callback_func(nullptr));
    EXPECT_EQ(before, testlib::mutex_lock_calls());
}

class ExportBeforeTheStart : public ShellTest
{
};

TEST_F(ExportBeforeTheStart, EverythingAnswersNotStartedWithoutALock)
{
    struct fmon_losses losses = {1, 2, 3};
    struct fmon_status status = {};
    status.size = sizeof status;
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_create_instance("a", take_a));
    EXPECT_EQ(0, fmon_shell.row_count);
    EXPECT_EQ(-1, _orx_fmon_del_instance(0));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_add_watch(0, "/", FMON_CREATE, FMON_DIR, 0, 0));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_del_watch(0, "/"));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_spare(0, "/a"));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_resync("/", FMON_RESYNC_MARK));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_global_watch(0, FMON_DELETE, 1));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_global_watch(0, FMON_DELETE, 0));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_global_update(0));
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_losses(&losses));
    EXPECT_EQ(2u, losses.inotify_overflow); /* untouched */
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_status(&status));
    EXPECT_EQ(sizeof status, status.size);
    EXPECT_EQ(0, testlib::mutex_lock_calls());
}

/* ---- diagnosis ---- */

TEST_F(Export, LossesAreTheBackendsCounters)
{
    fmlnx.unknown_wd_count = 1;
    fmlnx.ino_overflow = 0x100000002;
    fmlnx.fan_overflow = 3;
    struct fmon_losses losses = {};
    EXPECT_EQ(0, _orx_fmon_losses(&losses));
    EXPECT_EQ(1u, losses.unknown_wd);
    EXPECT_EQ(0x100000002u, losses.inotify_overflow);
    EXPECT_EQ(3u, losses.fanotify_overflow);
    fmlnx.unknown_wd_count = fmlnx.ino_overflow = fmlnx.fan_overflow = 0;
}

TEST_F(Export, StatusGathersAllCounters)
{
    fmon.lost.unknown_wd = 1;
    fmlnx.unknown_wd_count = 7; /* not all of them are losses */
    fmlnx.ino_overflow = 2;
    fmlnx.fan_overflow = 3;
    fmon.lost.path = 4;
    fmon.released = 5;
    strcpy(fmon.lost_path, "/a/b");
    struct fmon_status status = {};
    status.size = sizeof status + 100; /* a caller of a later version */
    EXPECT_EQ(0, _orx_fmon_status(&status));
    EXPECT_EQ(sizeof status, status.size);
    EXPECT_EQ(0u, status.hardened);
    EXPECT_EQ(1u, status.lost.unknown_wd);
    EXPECT_EQ(2u, status.lost.inotify);
    EXPECT_EQ(3u, status.lost.fanotify);
    EXPECT_EQ(4u, status.lost.path);
    EXPECT_EQ(5u, status.released);
    EXPECT_STREQ("/a/b", status.lost_path);
    fmlnx.unknown_wd_count = fmlnx.ino_overflow = fmlnx.fan_overflow = 0;
}

TEST_F(Export, StatusFillsNoMoreThanItsCallerKnows)
{
    fmlnx.ino_overflow = 2;
    struct fmon_status status;
    memset(&status, 0x5a, sizeof status);
    status.size = offsetof(struct fmon_status, lost.fanotify);
    EXPECT_EQ(0, _orx_fmon_status(&status));
    EXPECT_EQ(offsetof(struct fmon_status, lost.fanotify), status.size);
    EXPECT_EQ(2u, status.lost.inotify);
    EXPECT_EQ(0x5a5a5a5a5a5a5a5au, status.lost.fanotify);
    status.size = 7;
    EXPECT_EQ(FMON_EINVAL, _orx_fmon_status(&status));
    fmlnx.ino_overflow = 0;
}

TEST_F(Export, ADumpIsTheCores)
{
    EXPECT_EQ(0, _orx_fmon_dump(5, nullptr));
    EXPECT_EQ(1, backend.count("dump(5)"));
    EXPECT_EQ(-1, _orx_fmon_dump(7, nullptr));
}

TEST_F(Export, TheContainerPathFillsNoMoreThanItsBuffer)
{
    char path[300];
    memset(path, 'x', sizeof path);
    EXPECT_EQ(0, _orx_get_container_path(path));
    EXPECT_STREQ("/rootfs/var/lib/docker/containers/*", path);
    EXPECT_EQ(40, std::count(path + 260, path + 300, 'x'));
}

TEST_F(Export, TheDefaultCallbackConsumes)
{
    struct event ev = {};
    EXPECT_EQ(0, callback_func(&ev));
}

}  // namespace
