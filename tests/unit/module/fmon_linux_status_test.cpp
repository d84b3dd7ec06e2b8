/* What _orx_fmon_status tells of watches and marks, and whom _orx_fmon_on_mark tells of them. */
#include "status_fixture.h"

using namespace testlib;

namespace
{

/* ---- what is placed ---- */

TEST_F(Status, CountsWhatIsPlaced)
{
    tree.dir("t/a/b");
    const std::string file = tree.file("f");
    EXPECT_EQ(0, watch());
    EXPECT_EQ(0, m.add(file, FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(0, m.add(tree.path("later"), FMON_CREATE, FMON_DIR | FMON_DELETED));
    struct fmon_status now = status_now();
    EXPECT_EQ(2u, now.watches) << "not the one that waits";
    EXPECT_EQ(4u, now.inotify_watches);
    expect_directories(3);
    EXPECT_EQ(kernel_watches().size(), now.inotify_watches);
    tree.dir("later");
    fmon_tbd_pass();
    EXPECT_EQ(3u, status_now().watches);
    expect_directories(4);
    for (const std::string &path : {t, file, tree.path("later")})
        EXPECT_EQ(0, m.del(path));
    now = status_now();
    EXPECT_EQ(0u, now.watches);
    EXPECT_EQ(0u, now.inotify_watches);
    expect_directories(0);
    EXPECT_EQ(0u, sum(now.left_out));
    EXPECT_EQ(0u, now.refusals);
    EXPECT_EQ(0, now.last_refusal.code);
}

TEST_F(Status, FollowsTheTree)
{
    tree.dir("t/a/b/c");
    EXPECT_EQ(0, watch());
    expect_directories(4);
    tree.dir("t/new");
    pump_all();
    expect_directories(5);
    rename((t + "/a").c_str(), tree.path("gone").c_str());
    pump_all();
    expect_directories(2);
    tree.remove("t/new");
    pump_all();
    expect_directories(1);
    EXPECT_EQ(1u, status_now().inotify_watches);
    tree.remove("t");
    pump_all();
    expect_directories(0);
    EXPECT_EQ(0u, status_now().watches) << "its directory is gone";
    EXPECT_EQ(0u, status_now().inotify_watches);
}

TEST_F(Status, OneMarkOfEitherSourceMakesAMarkedDirectory)
{
    tree.dir("t/a");
    EXPECT_EQ(0, m.add(t, FMON_MODIFY, FMON_DIR | FMON_RECURSIVE));
    EXPECT_EQ(0u, status_now().inotify_watches);
    expect_directories(2);
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
    EXPECT_EQ(1u, status_now().inotify_watches);
    expect_directories(2);
    EXPECT_EQ(0, m.del(t));
    expect_directories(1);
}

TEST_F(Status, NamesOfOneFileShareTheKernelsWatch)
{
    const std::string f = tree.file("f");
    ASSERT_EQ(0, link(f.c_str(), tree.path("g").c_str()));
    EXPECT_EQ(0, m.add(f, FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(0, m.add(tree.path("g"), FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(2u, status_now().watches);
    EXPECT_EQ(1u, status_now().inotify_watches);
    expect_directories(0);
    EXPECT_EQ(0, m.del(f));
    EXPECT_EQ(1u, status_now().watches);
}

TEST_F(Status, AMountWatchIsAWatchWithoutDirectories)
{
    EXPECT_EQ(0u, status_now().watches);
    if (m.add("/", FMON_MODIFY, FMON_MOUNT) != 0)
        GTEST_SKIP() << "no mount of a device here";
    EXPECT_EQ(1u, status_now().watches);
    expect_directories(0);
    EXPECT_EQ(0, m.del("/"));
    EXPECT_EQ(0u, status_now().watches);
}

TEST_F(Status, AFileInPlaceOfADirectory)
{
    EXPECT_EQ(0, m.add(tree.file("t/x"), FMON_ATTRIB, FMON_FILE));
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_CREATE, kSyncedTree, 0, 0));
    expect_directories(1);
    tree.remove("t/x");
    tree.dir("t/x");
    pump_all();
    expect_directories(2);
}

TEST_F(Status, CountsStayTrueWhateverFails)
{
    tree.dir("t/a/b");
    for (const char *call : {"malloc", "calloc", "realloc", "inotify_add_watch", "opendir", "open", "fstat"}) {
        bool hit = true;
        for (int nth = 1; hit; nth++) {
            const std::string name = std::string(call) + std::to_string(nth);
            {
                Fault fault(call, nth, EMFILE);
                watch();
                m.feed(0, inotify_record(wd_of(t), IN_CREATE | IN_ISDIR, tree.dir("t/" + name).substr(t.size() + 1)));
                hit = fault.hit();
            }
            EXPECT_EQ(marked_directories(), fmlnx.marked_directories) << name;
            EXPECT_EQ(kernel_watches().size(), seq_live(&fmlnx.seq)) << name;
            tree.remove("t/" + name);
            m.del(t);
            EXPECT_EQ(0u, fmon_account.watches) << name;
            EXPECT_EQ(0u, fmlnx.marked_directories) << name;
            EXPECT_EQ(0u, seq_live(&fmlnx.seq)) << name;
        }
        pump_all();
    }
}

TEST_F(Status, CountsRecords)
{
    EXPECT_EQ(0, watch());
    EXPECT_EQ(1000u, status_now().max_records);
    tree.file("t/f");
    tree.file("t/g");
    pump_all();
    EXPECT_EQ(2u, status_now().records);
    m.events();
    EXPECT_EQ(0u, status_now().records);
}

/* ---- who is told ---- */

TEST_F(Status, TellsOfEachNewMark)
{
    tree.dir("t/a");
    EXPECT_EQ(0, _orx_fmon_on_mark(take_mark));
    EXPECT_EQ(0, watch());
    EXPECT_EQ((Strings{"+ " + t, "+ " + t + "/a"}), told);
    told.clear();
    EXPECT_EQ(0, fmon_add_watch(m.id2, t.c_str(), FMON_ATTRIB, FMON_DIR, 0, 0));
    EXPECT_EQ(Strings{}, told) << "a mark that was there wants more";
    tree.dir("t/new");
    pump_all();
    EXPECT_EQ(Strings{"+ " + t + "/new"}, told);
    told.clear();
    EXPECT_EQ(0, _orx_fmon_on_mark(nullptr));
    tree.dir("t/newer");
    pump_all();
    EXPECT_EQ(Strings{}, told);
}

TEST_F(Status, TellsOfADirectoryInPlaceOfAnother)
{
    EXPECT_EQ(0, watch());
    tree.dir("t/a");
    pump_all();
    EXPECT_EQ(0, _orx_fmon_on_mark(take_mark));
    tree.remove("t/a");
    tree.dir("t/a");
    pump_all();
    EXPECT_EQ(Strings{"+ " + t + "/a"}, told);
}

TEST_F(Status, TellsOfEachRefusal)
{
    tree.dir("t/a");
    EXPECT_EQ(0, _orx_fmon_on_mark(take_mark));
    Fault watch_fails("inotify_add_watch", 2, EACCES), read_fails("opendir", 2, EACCES);
    EXPECT_EQ(0, watch());
    const std::string behind = " " + std::to_string(EACCES) + " " + t + "/a", denied = std::to_string(FMON_LEFT_DENIED);
    EXPECT_EQ((Strings{"+ " + t, denied + " " + std::to_string(FMON_STEP_INOTIFY) + behind,
                       denied + " " + std::to_string(FMON_STEP_READ) + behind}),
              told);
}

/* ---- sizes ---- */

TEST_F(Status, FillsWhatItsCallerKnows)
{
    EXPECT_EQ(0, watch());
    EXPECT_EQ(1128u, offsetof(struct fmon_status, watches)) << "what callers before this knew";
    for (const size_t size : {size_t{8}, size_t{96}, size_t{1128}, size_t{1136}, offsetof(struct fmon_status, inotify),
                              sizeof(struct fmon_status)}) {
        struct fmon_status status;
        memset(&status, 0x5a, sizeof status);
        status.size = static_cast<uint32_t>(size);
        EXPECT_EQ(0, _orx_fmon_status(&status));
        EXPECT_EQ(size, status.size);
        const auto *bytes = reinterpret_cast<const unsigned char *>(&status);
        for (size_t i = size; i < sizeof status; i++)
            ASSERT_EQ(0x5a, bytes[i]) << i;
        if (size > offsetof(struct fmon_status, watches)) {
            EXPECT_EQ(1u, status.watches);
        }
    }
}

/* ---- sources ---- */

void expect_source(const struct fmon_source &source, uint32_t state, uint32_t reason, int32_t code, int32_t error,
                   const char *why = "")
{
    EXPECT_EQ(state, source.state);
    EXPECT_EQ(reason, source.reason);
    EXPECT_EQ(code, source.code);
    EXPECT_EQ(error, source.error);
    EXPECT_STREQ(why, source.why);
}

TEST_F(Status, SourcesThatAreOn)
{
    const struct fmon_status now = status_now();
    for (const struct fmon_source *source : {&now.monitor, &now.inotify, &now.fanotify, &now.mounts})
        expect_source(*source, FMON_SOURCE_ON, FMON_WHY_NONE, 0, 0);
}

/* A monitor that is not started yet, over a fanotify of paper. */
class StatusOfAStart : public ::testing::Test
{
protected:
    ~StatusOfAStart() override
    {
        fmon_deinit();
        reset_host();
    }
    static int start() { return fmon_init(1000, 10000, 1000); }

    PaperFanotify fanotify;
};

TEST_F(StatusOfAStart, FanotifyRefused)
{
    fanotify.init_errors[0] = EPERM;
    fanotify.init_errors[1] = EMFILE;
    ASSERT_EQ(0, start());
    const struct fmon_status now = status_now();
    expect_source(now.inotify, FMON_SOURCE_ON, FMON_WHY_NONE, 0, 0);
    expect_source(now.fanotify, FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, FMON_LINUX_EFANINIT, EPERM);
    expect_source(now.mounts, FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, FMON_LINUX_EFANINIT, EMFILE);
}

TEST_F(StatusOfAStart, NoFanotify)
{
    fanotify.has_init = false;
    ASSERT_EQ(0, start());
    expect_source(status_now().fanotify, FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, FMON_LINUX_ENOFAN, ENOSYS);
}

TEST_F(StatusOfAStart, InotifyRefused)
{
    {
        Fault fault("inotify_init", 1, EMFILE);
        EXPECT_EQ(FMON_LINUX_EINOINIT, start());
    }
    struct fmon_status now = {};
    now.size = sizeof now;
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_status(&now));
    expect_source(now.monitor, FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, FMON_LINUX_EINOINIT, EMFILE,
                  "init inotify failed");
    expect_source(now.inotify, FMON_SOURCE_REFUSED, FMON_WHY_SYSTEM, FMON_LINUX_EINOINIT, EMFILE);
    ASSERT_EQ(0, start());
    expect_source(status_now().monitor, FMON_SOURCE_ON, FMON_WHY_NONE, 0, 0);
    expect_source(status_now().inotify, FMON_SOURCE_ON, FMON_WHY_NONE, 0, 0);
}

TEST_F(StatusOfAStart, EveryAllocationThatFails)
{
    fail_each("calloc", ENOMEM, [](Fault &) {
        const int result = start();
        struct fmon_status now = {};
        now.size = sizeof now;
        EXPECT_EQ(result == 0 ? 0 : FMON_ENOTINIT, _orx_fmon_status(&now));
        EXPECT_EQ(uint32_t{result == 0 ? FMON_SOURCE_ON : FMON_SOURCE_REFUSED}, now.monitor.state);
        EXPECT_EQ(result, now.monitor.code);
        EXPECT_EQ(result == 0, now.monitor.why[0] == '\0') << now.monitor.why;
        fmon_deinit();
    });
}

TEST_F(StatusOfAStart, AStoppedMonitorTellsNothing)
{
    ASSERT_EQ(0, start());
    fmon_deinit();
    struct fmon_status now = {};
    now.size = sizeof now;
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_status(&now));
    EXPECT_EQ(uint32_t{FMON_SOURCE_OFF}, now.inotify.state);
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_on_mark(take_mark));
}

}  // namespace
