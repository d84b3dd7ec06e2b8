/*
 * The test library's own tests: records, agent, trees, backend. Its switches are tested in fault_test.cpp.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_event_loop.h"
#include "testlib/fake_backend.h"
#include "testlib/fake_host.h"
#include "testlib/records.h"
#include "testlib/tree.h"

using namespace testlib;

namespace
{

/* ---- records as the kernel lays them out ---- */

TEST(Records, InotifyLayoutIsTheKernels)
{
    struct inotify_event ev;
    std::string record = inotify_record(7, IN_CREATE | IN_ISDIR, "name", 99);
    ASSERT_EQ(sizeof ev, 16U);
    ASSERT_EQ(record.size(), 32U);
    memcpy(&ev, record.data(), sizeof ev);
    EXPECT_EQ(ev.wd, 7);
    EXPECT_EQ(ev.mask, static_cast<uint32_t>(IN_CREATE | IN_ISDIR));
    EXPECT_EQ(ev.cookie, 99U);
    EXPECT_EQ(ev.len, 16U);
    EXPECT_STREQ(record.c_str() + offsetof(struct inotify_event, name), "name");
    EXPECT_EQ(inotify_record(1, IN_IGNORED).size(), 16U);
    EXPECT_EQ(inotify_record(1, IN_CREATE, std::string(15, 'n')).size(), 32U);
    EXPECT_EQ(inotify_record(1, IN_CREATE, std::string(16, 'n')).size(), 48U); /* the NUL does not fit in 16 */
}

/* What the kernel itself sends for such a name. */
TEST(Records, InotifyPaddingIsTheKernels)
{
    TempTree tree;
    for (int len : {1, 15, 16, 255}) {
        int fd = inotify_init();
        int wd = inotify_add_watch(fd, tree.root().c_str(), IN_CREATE);
        std::string name(static_cast<size_t>(len), 'n');
        tree.file(name);
        char buffer[1024];
        ssize_t n = read(fd, buffer, sizeof buffer);
        ASSERT_GT(n, 0);
        EXPECT_EQ(std::string(buffer, static_cast<size_t>(n)), inotify_record(wd, IN_CREATE, name)) << len;
        close(fd);
    }
}

TEST(Records, FanotifyLayoutIsTheKernels)
{
    struct fanotify_event_metadata ev;
    std::string record = fanotify_record(FAN_CLOSE_WRITE, 5, 1234);
    ASSERT_EQ(sizeof ev, 24U);
    ASSERT_EQ(record.size(), sizeof ev);
    memcpy(&ev, record.data(), sizeof ev);
    EXPECT_EQ(ev.event_len, FAN_EVENT_METADATA_LEN);
    EXPECT_EQ(ev.vers, FANOTIFY_METADATA_VERSION);
    EXPECT_EQ(ev.metadata_len, FAN_EVENT_METADATA_LEN);
    EXPECT_EQ(ev.mask, static_cast<uint64_t>(FAN_CLOSE_WRITE));
    EXPECT_EQ(ev.fd, 5);
    EXPECT_EQ(ev.pid, 1234);
}

TEST(Records, PipesCarryThem)
{
    Pipe pipe;
    pipe.put(inotify_record(1, IN_DELETE, "a"));
    char buffer[64];
    EXPECT_EQ(read(pipe.read_fd(), buffer, sizeof buffer), 32);
    pipe.close_write();
    EXPECT_EQ(read(pipe.read_fd(), buffer, sizeof buffer), 0);
    int taken = pipe.take_read();
    EXPECT_EQ(close(taken), 0);
}

/* ---- the agent ---- */

class Agent : public testing::Test
{
protected:
    void SetUp() override { reset_host(); }
    void TearDown() override { reset_host(); }
};

TEST_F(Agent, CapturesLinesWhole)
{
    std::string path(3000, 'p');
    error_output(2, "fmon.c", 1, "add %s: %d\n", path.c_str(), -7);
    error_output(4, "event.c", 2, "no newline");
    EXPECT_TRUE(logged(2, "add " + path + ": -7\n"));
    EXPECT_FALSE(logged(1, "add " + path + ": -7\n"));
    EXPECT_EQ(log_count(4, "no newline"), 1);
    EXPECT_EQ(log_count_containing("p"), 1);
    EXPECT_EQ(log_lines()[1].file, "event.c");
    log_clear();
    EXPECT_EQ(log_lines().size(), 0U);
}

TEST_F(Agent, HasAHandMovedClock)
{
    EXPECT_EQ(timer_ticks2ms(timer_get_ticks()), 0U);
    set_now(0xffffffff);
    advance(2);
    EXPECT_EQ(static_cast<uint32_t>(timer_ticks2ms(timer_get_ticks())), 1U);
}

TEST_F(Agent, AnswersFromTheIniInMemory)
{
    EXPECT_EQ(orx_ini_file_load("/a.ini"), nullptr);
    set_ini({{{"fmon", "max_events"}, "42"}});
    void *ini = orx_ini_file_load("/b.ini");
    ASSERT_NE(ini, nullptr);
    EXPECT_STREQ(orx_ini_file_get(ini, "fmon", "max_events"), "42");
    EXPECT_EQ(orx_ini_file_get(ini, "fmon", "other"), nullptr);
    EXPECT_EQ(ini_open(), 1);
    orx_ini_file_free(ini);
    EXPECT_EQ(ini_open(), 0);
    EXPECT_EQ(ini_loads(), (std::vector<std::string>{"/a.ini", "/b.ini"}));
}

TEST_F(Agent, CountsItsMutexes)
{
    void *mutex = th_mutex_init();
    EXPECT_EQ(mutex_live(), 1);
    EXPECT_EQ(th_mutex_lock(mutex), 0);
    EXPECT_TRUE(mutex_locked());
    std::thread([] { EXPECT_FALSE(mutex_locked()); }).join();
    EXPECT_EQ(th_mutex_unlock(mutex), 0);
    EXPECT_FALSE(mutex_locked());
    EXPECT_EQ(mutex_lock_calls(), 1);
    th_mutex_destroy(mutex);
    EXPECT_EQ(mutex_live(), 0);
    fail_mutex_init(true);
    EXPECT_EQ(th_mutex_init(), nullptr);
}

std::vector<std::string> expand(const char *pattern)
{
    list_head found = {&found, &found};
    EXPECT_EQ(orx_wildcard_path_expand(pattern, &found), 0);
    std::vector<std::string> paths;
    for (list_head *node = found.next; node != &found;) {
        auto *entry = reinterpret_cast<orx_path_entry *>(node);
        node = node->next;
        paths.push_back(entry->path);
        free(entry->path);
        free(entry);
    }
    return paths;
}

TEST_F(Agent, ExpandsPatterns)
{
    TempTree tree;
    std::string a = tree.file("a.log"), b = tree.file("b.log");
    EXPECT_EQ(expand(tree.path("*.log").c_str()), (std::vector<std::string>{a, b}));
    EXPECT_EQ(expand(tree.path("*.txt").c_str()), (std::vector<std::string>{}));
    set_wildcard_matches({"/x", "/y"});
    EXPECT_EQ(expand("/*"), (std::vector<std::string>{"/x", "/y"}));
}

TEST_F(Agent, TransformsPaths)
{
    char out[16];
    EXPECT_EQ(orx_dirutils_path_transform("@/../config", out, sizeof out), -1);
    EXPECT_STREQ(out, "/agent/bin/../c");
    set_program_dir("/p");
    EXPECT_EQ(orx_dirutils_path_transform("@/../x", out, sizeof out), 0);
    EXPECT_STREQ(out, "/p/../x");
    EXPECT_EQ(orx_dirutils_path_transform("/plain", out, sizeof out), 0);
    EXPECT_STREQ(out, "/plain");
}

TEST_F(Agent, BoundsItsTexts)
{
    char out[4] = "zzz";
    EXPECT_EQ(orx_str_strlcpy(out, "abcdef", sizeof out), 6U);
    EXPECT_STREQ(out, "abc");
    orx_strncpy(out, "xyzw", sizeof out);
    EXPECT_EQ(memcmp(out, "xyzw", 4), 0);
    orx_strncpy(out, "x", sizeof out);
    EXPECT_EQ(memcmp(out, "x\0\0\0", 4), 0);
    orx_str_snprintf(out, sizeof out, "%d", 12345);
    EXPECT_STREQ(out, "123");
}

int ran;
int thread_body(void *arg)
{
    ran = *static_cast<int *>(arg);
    return 0;
}

TEST_F(Agent, StartsThreadsAsTold)
{
    void *handle = nullptr;
    int arg = 5;
    ran = 0;
    EXPECT_EQ(cl_ev_create_isolated_thread(&handle, nullptr, thread_body, &arg), 0);
    join_threads();
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(last_thread_fn(), thread_body);
    set_thread_mode(ThreadMode::start);
    EXPECT_EQ(cl_ev_create_isolated_thread(&handle, nullptr, thread_body, &arg), 0);
    join_threads();
    EXPECT_EQ(ran, 5);
    set_thread_mode(ThreadMode::fail);
    EXPECT_LT(cl_ev_create_isolated_thread(&handle, nullptr, thread_body, &arg), 0);
    EXPECT_EQ(threads_created(), 2);
}

TEST_F(Agent, CountsLoopAndLogCalls)
{
    cl_ev_loop_nowait(1);
    cl_event_loop_once();
    cl_event_loop();
    EXPECT_EQ(loop_nowait_calls() + loop_once_calls() + loop_calls(), 3);
    autolog_init("/log", 5);
    autolog_deinit();
    EXPECT_EQ(autolog_inits(), (std::vector<std::pair<std::string, int>>{{"/log", 5}}));
    EXPECT_EQ(autolog_deinits(), 1);
}

TEST_F(Agent, BuildsJsonObjects)
{
    cJSON *object = json_object();
    cJSON_AddItemToObject(object, "id", cJSON_CreateString2("abc"));
    cJSON_AddItemToObject(object, "pid", cJSON_CreateNumber2(12));
    EXPECT_EQ(json_text(object), "{\"id\":\"abc\",\"pid\":12}");
    json_free(object);
}

/* ---- trees ---- */

TEST(Tree, IsMadeAndRemoved)
{
    std::string root;
    {
        TempTree tree;
        root = tree.root();
        EXPECT_EQ(tree.file("a/b/c", "text"), root + "/a/b/c");
        tree.link("l", "a");
        struct stat st;
        EXPECT_EQ(stat(tree.path("l/b/c").c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 4);
        tree.remove("a");
        EXPECT_NE(stat(tree.path("a").c_str(), &st), 0);
    }
    struct stat st;
    EXPECT_NE(stat(root.c_str(), &st), 0);
}

TEST(Tree, CountsDescriptors)
{
    int before = open_fds();
    int fd = dup(0);
    EXPECT_EQ(open_fds(), before + 1);
    close(fd);
    EXPECT_EQ(open_fds(), before);
}

/* ---- the backend ---- */

TEST(Backend, RecordsCallsAndPutsTheOldTableBack)
{
    struct fmon_method_t before = fmon_method;
    {
        FakeBackend backend;
        backend.rate_result = -5;
        EXPECT_EQ(fmon_method.rate_ctrl(10, 200, 0), -5);
        EXPECT_EQ(fmon_method.add_global(8), 0);
        char path[] = "/a/b";
        EXPECT_EQ(fmon_method.punish_unexpected_watch(5, path), 0);
        EXPECT_EQ(backend.calls,
                  (std::vector<std::string>{"rate_ctrl(10,200,0)", "add_global(0x8)", "punish(5,/a/b)"}));
        EXPECT_EQ(backend.count("add_global(0x8)"), 1);
        backend.drop_optional();
        EXPECT_EQ(fmon_method.dump, nullptr);
    }
    EXPECT_EQ(memcmp(&before, &fmon_method, sizeof before), 0);
}

TEST(Backend, HandsOutDescriptorsAndTimeouts)
{
    FakeBackend backend;
    backend.fds = {5, -1, -2};
    backend.lower_timeout = 30;
    int32_t *fds = nullptr;
    uint32_t timeout = 1000;
    EXPECT_EQ(fmon_method.get_selectable_fds(&fds, &timeout), 3);
    EXPECT_EQ(fds[2], -2);
    EXPECT_EQ(timeout, 30U);
}

TEST(Backend, LinksWatchesToDentries)
{
    Monitor monitor;
    int id = fmon_create_instance("testlib");
    ASSERT_EQ(id, 0);
    ASSERT_EQ(fmon_add_watch(id, "/proc", FMON_CREATE, FMON_DIR, 0, 0), 0);
    EXPECT_EQ(monitor.backend.count("add_watch(/proc)"), 1);
    EXPECT_NE(dcache_find(&fmon.dcache, "/proc"), nullptr);
    EXPECT_EQ(fmon_del_watch(id, "/proc"), 0);
    EXPECT_EQ(monitor.backend.count("del_watch(/proc)"), 1);
}

TEST(Backend, MonitorsFollowOneAnother)
{
    for (int i = 0; i < 3; i++) {
        Monitor monitor;
        EXPECT_EQ(fmon_create_instance("again"), 0);
    }
    EXPECT_EQ(fmon.inited, 0U);
}

/* ---- the main function of the test programs ---- */

/* What it is tried with: disabled, and run in a process of its own. */
TEST(DISABLED_Outcome, Passes) { SUCCEED(); }
TEST(DISABLED_Outcome, IsSkipped) { GTEST_SKIP() << "cannot run anywhere"; }
TEST(DISABLED_Outcome, Fails) { FAIL() << "as it should"; }
TEST(DISABLED_Outcome, FailsAndIsSkipped)
{
    ADD_FAILURE() << "as it should";
    GTEST_SKIP() << "too late";
}
TEST(DISABLED_Outcome, NeedsMore) { NEED(false, "cannot run anywhere"); }

/* The exit status of this program when it runs these cases; -1 when it did not end in order. */
int status_of(const std::string &filter, const char *ci = nullptr)
{
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        dup2(STDOUT_FILENO, STDERR_FILENO);
        if (ci)
            setenv("CI", ci, 1);
        else
            unsetenv("CI");
        const std::string chosen = "--gtest_filter=" + filter;
        execl("/proc/self/exe", "again", "--gtest_also_run_disabled_tests", chosen.c_str(), nullptr);
        _exit(127);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(TestMain, AllPassed) { EXPECT_EQ(0, status_of("*Outcome.Passes")); }

TEST(TestMain, SomeWereSkipped)
{
    EXPECT_EQ(77, status_of("*Outcome.IsSkipped"));
    EXPECT_EQ(77, status_of("*Outcome.Passes:*Outcome.IsSkipped"));
}

TEST(TestMain, AFailureStaysOne)
{
    EXPECT_EQ(1, status_of("*Outcome.Fails"));
    EXPECT_EQ(1, status_of("*Outcome.Fails:*Outcome.IsSkipped"));
    EXPECT_EQ(1, status_of("*Outcome.FailsAndIsSkipped"));
}

TEST(TestMain, NothingWasSelected) { EXPECT_EQ(1, status_of("*Outcome.Unknown")); }

TEST(TestMain, WhatIsMissingFailsInCiOnly)
{
    EXPECT_EQ(77, status_of("*Outcome.NeedsMore"));
    EXPECT_EQ(1, status_of("*Outcome.NeedsMore", "true"));
}

}  // namespace
