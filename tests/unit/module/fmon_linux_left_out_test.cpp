/* What _orx_fmon_status tells of directories that could not be watched. */
#include "status_fixture.h"

using namespace testlib;

namespace
{

using LeftOut = Status;

/* ---- what is left out ---- */

TEST_F(LeftOut, LimitOfInotify)
{
    const std::string a = tree.dir("t/a");
    Fault fault("inotify_add_watch", 2, ENOSPC);
    EXPECT_EQ(0, watch());
    expect_one(&fmon_left_out::inotify_limit,
               refusal(FMON_LINUX_EINOTIFY, ENOSPC, FMON_LEFT_INOTIFY_LIMIT, FMON_STEP_INOTIFY, a));
}

TEST_F(LeftOut, LimitOfFanotify)
{
    const std::string a = tree.dir("t/a");
    m.fanotify.mark_error = ENOSPC;
    m.fanotify.fail_mark_at = 2;
    EXPECT_EQ(0, m.add(t, FMON_MODIFY, kSyncedTree));
    expect_one(&fmon_left_out::fanotify_limit,
               refusal(FMON_LINUX_EFANOTIFY, ENOSPC, FMON_LEFT_FANOTIFY_LIMIT, FMON_STEP_FANOTIFY, a));
    expect_directories(2);
}

TEST_F(LeftOut, FullCache)
{
    const std::string a = tree.dir("t/a");
    const uint32_t before = fmon.dcache.count;
    EXPECT_EQ(0, m.add(t, FMON_CREATE, FMON_DIR));
    fmon.dcache.max_entries = static_cast<int32_t>(fmon.dcache.count);
    EXPECT_LT(before, fmon.dcache.count);
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_CREATE, kSyncedTree, 0, 0));
    expect_one(&fmon_left_out::cache_full, refusal(FMON_ENOMEM, 0, FMON_LEFT_CACHE_FULL, FMON_STEP_CACHE, a));
    tree.dir("t/made");
    pump_all();
    EXPECT_EQ(2u, status_now().left_out.cache_full);
    EXPECT_EQ(t + "/made", status_now().last_refusal.path);
}

TEST_F(LeftOut, Denied)
{
    const std::string a = tree.dir("t/a");
    for (int error : {EACCES, EPERM}) {
        Fault fault("inotify_add_watch", 2, error);
        EXPECT_EQ(0, watch());
        EXPECT_EQ(error, status_now().last_refusal.error);
        EXPECT_EQ(0, m.del(t));
    }
    EXPECT_EQ(2u, status_now().left_out.denied);
    EXPECT_EQ(2u, sum(status_now().left_out));
    EXPECT_EQ(uint32_t{FMON_LEFT_DENIED}, status_now().last_refusal.reason);
}

TEST_F(LeftOut, NoDescriptors)
{
    const std::string a = tree.dir("t/a");
    for (int error : {EMFILE, ENFILE}) {
        Fault fault("opendir", 2, error);
        EXPECT_EQ(0, watch());
        EXPECT_EQ(0, m.del(t));
        EXPECT_EQ(error, status_now().last_refusal.error);
    }
    EXPECT_EQ(2u, status_now().left_out.descriptors);
    EXPECT_EQ(2u, sum(status_now().left_out));
    EXPECT_EQ(uint32_t{FMON_STEP_READ}, status_now().last_refusal.step);
    EXPECT_EQ(a, status_now().last_refusal.path);
}

TEST_F(LeftOut, ThatWhichIsNotOpened)
{
    if (!fmon.hardened)
        return;
    const std::string a = tree.dir("t/a");
    Fault fault("openat", 1, EMFILE);
    EXPECT_EQ(0, watch());
    expect_one(&fmon_left_out::descriptors,
               refusal(FMON_LINUX_EINOTIFY, EMFILE, FMON_LEFT_DESCRIPTORS, FMON_STEP_OPEN, a));
}

TEST_F(LeftOut, TooLong)
{
    std::string below = "t";
    while (tree.path(below).size() < 1022)
        below += "/" + std::string(100, 'd');
    tree.dir(below);
    EXPECT_EQ(0, watch());
    expect_one(&fmon_left_out::too_long,
               refusal(FMON_LINUX_EPATH, 0, FMON_LEFT_TOO_LONG, status_now().last_refusal.step, ""));
}

TEST_F(LeftOut, Gone)
{
    const std::string a = tree.dir("t/a");
    for (int error : {ENOENT, ENOTDIR, ELOOP}) {
        Fault fault("opendir", 2, error);
        EXPECT_EQ(0, watch());
        EXPECT_EQ(0, m.del(t));
    }
    EXPECT_EQ(3u, status_now().left_out.gone);
    EXPECT_EQ(3u, sum(status_now().left_out));
    EXPECT_EQ(FMON_ENOENT, status_now().last_refusal.code);
}

TEST_F(LeftOut, OtherReasons)
{
    const std::string a = tree.dir("t/a");
    Fault fault("inotify_add_watch", 2, EIO);
    EXPECT_EQ(0, watch());
    expect_one(&fmon_left_out::other, refusal(FMON_LINUX_EINOTIFY, EIO, FMON_LEFT_OTHER, FMON_STEP_INOTIFY, a));
}

TEST_F(LeftOut, ATableThatCannotGrow)
{
    bool met = false;
    fail_each("realloc", ENOMEM, [&](Fault &fault) {
        const int result = watch();
        if (fault.hit() && result == FMON_LINUX_ESEQ) {
            met = true;
            const struct fmon_refusal last = status_now().last_refusal;
            EXPECT_EQ(uint32_t{FMON_STEP_TABLE}, last.step);
            EXPECT_EQ(uint32_t{FMON_LEFT_OTHER}, last.reason);
            EXPECT_EQ(FMON_LINUX_ESEQ, last.code);
            EXPECT_EQ(t, last.path);
        }
        if (result == 0)
            m.del(t);
    });
    EXPECT_TRUE(met);
}

TEST_F(LeftOut, NoMemoryToGoDeeper)
{
    tree.dir("t/a/b");
    bool met = false;
    fail_each("malloc", ENOMEM, [&](Fault &) {
        if (watch() == 0)
            m.del(t);
        met |= fmon_account.last_refusal.step == FMON_STEP_MEMORY;
    });
    EXPECT_TRUE(met);
    EXPECT_LE(1u, status_now().left_out.other);
}

TEST_F(LeftOut, ADirectoryThatIsRefusedTwiceCountsOnce)
{
    tree.dir("t/a");
    m.fanotify.mark_error = ENOSPC;
    m.fanotify.fail_mark_at = 2;
    Fault watch_fails("inotify_add_watch", 2, EACCES), read_fails("opendir", 2, EACCES);
    EXPECT_EQ(0, m.add(t, FMON_MODIFY | FMON_CREATE, kSyncedTree));
    const struct fmon_status now = status_now();
    EXPECT_EQ(3u, now.refusals);
    EXPECT_EQ(1u, now.left_out.fanotify_limit) << "what was met first";
    EXPECT_EQ(1u, sum(now.left_out));
}

TEST_F(LeftOut, EachNewDirectoryIsAnAttemptOfItsOwn)
{
    EXPECT_EQ(0, watch());
    Fault fault("inotify_add_watch", 1, ENOSPC, 100);
    for (const char *name : {"a", "b", "c"}) {
        tree.dir(std::string("t/") + name);
        m.feed(0, inotify_record(wd_of(t), IN_CREATE | IN_ISDIR, name));
    }
    EXPECT_EQ(3u, status_now().left_out.inotify_limit);
    EXPECT_EQ(3u, status_now().refusals);
    EXPECT_EQ(t + "/c", status_now().last_refusal.path);
}

/* ---- requests ---- */

TEST_F(LeftOut, ARefusedRequestIsTheLastRefusal)
{
    const struct {
        const char *call;
        int error, code;
        uint32_t reason;
    } rows[] = {
        {"inotify_add_watch", ENOSPC, FMON_LINUX_EINOTIFY, FMON_LEFT_INOTIFY_LIMIT},
        {"inotify_add_watch", EACCES, FMON_LINUX_EINOTIFY, FMON_LEFT_DENIED},
        {"inotify_add_watch", ENOENT, FMON_ENOENT, FMON_LEFT_GONE},
        {"opendir", EMFILE, FMON_ENOENT, FMON_LEFT_DESCRIPTORS},
        {"opendir", EIO, FMON_ENOENT, FMON_LEFT_OTHER},
    };
    for (const auto &row : rows) {
        Fault fault(row.call, 1, row.error);
        EXPECT_EQ(row.code, watch()) << row.call;
        const struct fmon_refusal last = status_now().last_refusal;
        EXPECT_EQ(row.code, last.code) << row.call;
        EXPECT_EQ(row.error, last.error);
        EXPECT_EQ(row.reason, last.reason);
        EXPECT_EQ(t, last.path);
        EXPECT_EQ(0u, status_now().watches);
        expect_directories(0);
    }
}

TEST_F(LeftOut, ALongPathIsCut)
{
    fmon.dcache.max_entries = 1;
    std::string below = "t";
    while (tree.path(below).size() < 1100)
        below += "/" + std::string(100, 'd');
    const std::string path = tree.dir(below);
    EXPECT_EQ(FMON_ENOMEM, m.add(path, FMON_CREATE, FMON_DIR));
    const struct fmon_refusal last = status_now().last_refusal;
    EXPECT_EQ(path.substr(0, 1023), last.path);
    EXPECT_EQ(uint32_t{FMON_LEFT_CACHE_FULL}, last.reason);
}

}  // namespace
