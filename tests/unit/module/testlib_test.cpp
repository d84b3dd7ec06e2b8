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
    ASSERT_EQ(32U, record.size());
    memcpy(&ev, record.data(), sizeof ev);
    EXPECT_EQ(7, ev.wd);
    EXPECT_EQ(static_cast<uint32_t>(IN_CREATE | IN_ISDIR), ev.mask);
    EXPECT_EQ(99U, ev.cookie);
    EXPECT_EQ(16U, ev.len);
    EXPECT_STREQ("name", record.c_str() + offsetof(struct inotify_event, name));
    EXPECT_EQ(16U, inotify_record(1, IN_IGNORED).size());
    EXPECT_EQ(32U, inotify_record(1, IN_CREATE, std::string(15, 'n')).size());
    EXPECT_EQ(48U, inotify_record(1, IN_CREATE, std::string(16, 'n')).size()); /* the NUL does not fit in 16 */
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
    ASSERT_EQ(sizeof ev, record.size());
    memcpy(&ev, record.data(), sizeof ev);
    EXPECT_EQ(FAN_EVENT_METADATA_LEN, ev.event_len);
    EXPECT_EQ(FANOTIFY_METADATA_VERSION, ev.vers);
    EXPECT_EQ(FAN_EVENT_METADATA_LEN, ev.metadata_len);
    EXPECT_EQ(static_cast<uint64_t>(FAN_CLOSE_WRITE), ev.mask);
    EXPECT_EQ(5, ev.fd);
    EXPECT_EQ(1234, ev.pid);
}

TEST(Records, PipesCarryThem)
{
    Pipe pipe;
    pipe.put(inotify_record(1, IN_DELETE, "a"));
    char buffer[64];
    EXPECT_EQ(32, read(pipe.read_fd(), buffer, sizeof buffer));
    pipe.close_write();
    EXPECT_EQ(0, read(pipe.read_fd(), buffer, sizeof buffer));
    int taken = pipe.take_read();
    EXPECT_EQ(0, close(taken));
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
    EXPECT_EQ(1, log_count(4, "no newline"));
    EXPECT_EQ(1, log_count_containing("p"));
    EXPECT_EQ("event.c", log_lines()[1].file);
    log_clear();
    EXPECT_EQ(0U, log_lines().size());
}

TEST_F(Agent, HasAHandMovedClock)
{
    EXPECT_EQ(0U, timer_ticks2ms(timer_get_ticks()));
    set_now(0xffffffff);
    advance(2);
    EXPECT_EQ(1U, static_cast<uint32_t>(timer_ticks2ms(timer_get_ticks())));
}

TEST_F(Agent, AnswersFromTheIniInMemory)
{
    EXPECT_EQ(nullptr, orx_ini_file_load("/a.ini"));
    set_ini({{{"fmon", "max_events"}, "42"}});
    void *ini = orx_ini_file_load("/b.ini");
    ASSERT_NE(nullptr, ini);
    EXPECT_STREQ("42", orx_ini_file_get(ini, "fmon", "max_events"));
    EXPECT_EQ(nullptr, orx_ini_file_get(ini, "fmon", "other"));
    EXPECT_EQ(1, ini_open());
    orx_ini_file_free(ini);
    EXPECT_EQ(0, ini_open());
    EXPECT_EQ((std::vector<std::string>{"/a.ini", "/b.ini"}), ini_loads());
}

TEST_F(Agent, CountsItsMutexes)
{
    void *mutex = th_mutex_init();
    EXPECT_EQ(1, mutex_live());
    EXPECT_EQ(0, th_mutex_lock(mutex));
    EXPECT_TRUE(mutex_locked());
    std::thread([] { EXPECT_FALSE(mutex_locked()); }).join();
    EXPECT_EQ(0, th_mutex_unlock(mutex));
    EXPECT_FALSE(mutex_locked());
    EXPECT_EQ(1, mutex_lock_calls());
    th_mutex_destroy(mutex);
    EXPECT_EQ(0, mutex_live());
    fail_mutex_init(true);
    EXPECT_EQ(nullptr, th_mutex_init());
}

std::vector<std::string> expand(const char *pattern)
{
    list_head found = {&found, &found};
    EXPECT_EQ(0, orx_wildcard_path_expand(pattern, &found));
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
    EXPECT_EQ((std::vector<std::string>{}), expand(tree.path("*.txt").c_str()));
    set_wildcard_matches({"/x", "/y"});
    EXPECT_EQ(expand("/*"), (std::vector<std::string>{"/x", "/y"}));
}

TEST_F(Agent, TransformsPaths)
{
    char out[16];
    EXPECT_EQ(-1, orx_dirutils_path_transform("@/../config", out, sizeof out));
    EXPECT_STREQ("/agent/bin/../c", out);
    set_program_dir("/p");
    EXPECT_EQ(0, orx_dirutils_path_transform("@/../x", out, sizeof out));
    EXPECT_STREQ("/p/../x", out);
    EXPECT_EQ(0, orx_dirutils_path_transform("/plain", out, sizeof out));
    EXPECT_STREQ("/plain", out);
}

TEST_F(Agent, BoundsItsTexts)
{
    char out[4] = "zzz";
    EXPECT_EQ(6U, orx_str_strlcpy(out, "abcdef", sizeof out));
    EXPECT_STREQ("abc", out);
    orx_strncpy(out, "xyzw", sizeof out);
    EXPECT_EQ(0, memcmp(out, "xyzw", 4));
    orx_strncpy(out, "x", sizeof out);
    EXPECT_EQ(0, memcmp(out, "x\0\0\0", 4));
    orx_str_snprintf(out, sizeof out, "%d", 12345);
    EXPECT_STREQ("123", out);
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
    EXPECT_EQ(0, cl_ev_create_isolated_thread(&handle, nullptr, thread_body, &arg));
    join_threads();
    EXPECT_EQ(0, ran);
    EXPECT_EQ(last_thread_fn(), thread_body);
    set_thread_mode(ThreadMode::kStart);
    EXPECT_EQ(0, cl_ev_create_isolated_thread(&handle, nullptr, thread_body, &arg));
    join_threads();
    EXPECT_EQ(5, ran);
    set_thread_mode(ThreadMode::kFail);
    EXPECT_LT(cl_ev_create_isolated_thread(&handle, nullptr, thread_body, &arg), 0);
    EXPECT_EQ(2, threads_created());
}

TEST_F(Agent, CountsLoopAndLogCalls)
{
    cl_ev_loop_nowait(1);
    cl_event_loop_once();
    cl_event_loop();
    EXPECT_EQ(3, loop_nowait_calls() + loop_once_calls() + loop_calls());
    autolog_init("/log", 5);
    autolog_deinit();
    EXPECT_EQ((std::vector<std::pair<std::string, int>>{{"/log", 5}}), autolog_inits());
    EXPECT_EQ(1, autolog_deinits());
}

TEST_F(Agent, BuildsJsonObjects)
{
    cJSON *object = json_object();
    cJSON_AddItemToObject(object, "id", cJSON_CreateString2("abc"));
    cJSON_AddItemToObject(object, "pid", cJSON_CreateNumber2(12));
    EXPECT_EQ("{\"id\":\"abc\",\"pid\":12}", json_text(object));
    json_free(object);
}

/* ---- trees ---- */

TEST(TempTree, IsMadeAndRemoved)
{
    std::string root;
    {
        TempTree tree;
        root = tree.root();
        EXPECT_EQ(tree.file("a/b/c", "text"), root + "/a/b/c");
        tree.link("l", "a");
        struct stat st;
        EXPECT_EQ(0, stat(tree.path("l/b/c").c_str(), &st));
        EXPECT_EQ(4, st.st_size);
        tree.remove("a");
        EXPECT_NE(0, stat(tree.path("a").c_str(), &st));
    }
    struct stat st;
    EXPECT_NE(0, stat(root.c_str(), &st));
}

TEST(TempTree, CountsDescriptors)
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
        EXPECT_EQ(-5, fmon_method.rate_ctrl(10, 200, 0));
        EXPECT_EQ(0, fmon_method.add_global(8));
        char path[] = "/a/b";
        EXPECT_EQ(0, fmon_method.punish_unexpected_watch(5, path));
        EXPECT_EQ((std::vector<std::string>{"rate_ctrl(10,200,0)", "add_global(0x8)", "punish(5,/a/b)"}),
                  backend.calls);
        EXPECT_EQ(1, backend.count("add_global(0x8)"));
        backend.drop_optional();
        EXPECT_EQ(nullptr, fmon_method.dump);
    }
    EXPECT_EQ(0, memcmp(&before, &fmon_method, sizeof before));
}

TEST(Backend, HandsOutDescriptorsAndTimeouts)
{
    FakeBackend backend;
    backend.fds = {5, -1, -2};
    backend.lower_timeout = 30;
    int32_t *fds = nullptr;
    uint32_t timeout = 1000;
    EXPECT_EQ(3, fmon_method.get_selectable_fds(&fds, &timeout));
    EXPECT_EQ(-2, fds[2]);
    EXPECT_EQ(30U, timeout);
}

TEST(Backend, LinksWatchesToDentries)
{
    Monitor monitor;
    int id = fmon_create_instance("testlib");
    ASSERT_EQ(0, id);
    ASSERT_EQ(0, fmon_add_watch(id, "/proc", FMON_CREATE, FMON_DIR, 0, 0));
    EXPECT_EQ(1, monitor.backend.count("add_watch(/proc)"));
    EXPECT_NE(nullptr, dcache_find(&fmon.dcache, "/proc"));
    EXPECT_EQ(0, fmon_del_watch(id, "/proc"));
    EXPECT_EQ(1, monitor.backend.count("del_watch(/proc)"));
}

TEST(Backend, MonitorsFollowOneAnother)
{
    for (int i = 0; i < 3; i++) {
        Monitor monitor;
        EXPECT_EQ(0, fmon_create_instance("again"));
    }
    EXPECT_EQ(0U, fmon.inited);
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
