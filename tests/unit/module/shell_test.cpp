/* Entry and configuration of the plug-in. */
#include "shell_fixture.h"
#include "testlib/in_child.h"

namespace
{

using testlib::logged;

/* One key of fmon.ini, section "fmon". */
void set_key(const std::string &key, const std::string &value) { testlib::set_ini({{{"fmon", key}, value}}); }

class Entry : public ShellTest
{
};

TEST_F(Entry, StartsWithTheBuiltInValues)
{
    EXPECT_EQ(0, orx_fmon_init(0xffffffff, &backend));
    EXPECT_EQ(1u, fmon.inited);
    EXPECT_EQ(10000, fmon.max_events);
    EXPECT_EQ(8000, fmon.dcache.max_entries);
    EXPECT_EQ(30000u, fmon.tbd_interval);
    EXPECT_EQ((std::vector<std::string>{"init()", "rate_ctrl(10,200,0)"}), backend.calls);
    EXPECT_EQ(FMON_RUNNING, fmon_shell.run_state);
    EXPECT_EQ(1, testlib::mutex_live());
    EXPECT_EQ(1, testlib::threads_created());
    EXPECT_EQ(fmon_thread, testlib::last_thread_fn());
}

TEST_F(Entry, SaysWhatItDoesInOrder)
{
    start();
    LevelLines own;
    for (const testlib::LogLine &line : testlib::log_lines()) {
        if (line.file == "container_tool_utils") {
            EXPECT_TRUE(own.empty()) << "host or container is asked first";
            continue;
        }
        own.emplace_back(line.level, line.file + ": " + line.text);
    }
    EXPECT_EQ((LevelLines{{3, "fmon_shell.c: orx_fmon plugin init"},
                          {3, "fmon.c: init fmon: max events 10000, max dentries 8000\n"}}),
              own);
}

TEST_F(Entry, ASecondCallFindsItRunning)
{
    start();
    testlib::log_clear();
    EXPECT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(4, "orx_fmon thread already runing.")) << testlib::log_text();
    EXPECT_EQ(1, testlib::threads_created());
    EXPECT_EQ(1, testlib::mutex_live());
    EXPECT_EQ(1, backend.count("init()"));
}

TEST_F(Entry, DisablesItselfWithoutALock)
{
    testlib::fail_mutex_init(true);
    EXPECT_EQ(-1, orx_fmon_init(0, nullptr));
    EXPECT_EQ("orx_fmon plugin init", level_lines().back().second); /* no message of its own */
    EXPECT_EQ(FMON_DISABLED, fmon_shell.run_state);
    EXPECT_EQ(0u, fmon.inited);

    testlib::fail_mutex_init(false);
    EXPECT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(2, "maybe not support inotify"));
    EXPECT_EQ(0, testlib::threads_created());
}

TEST_F(Entry, DisablesItselfForGoodWhenTheCoreDoesNotStart)
{
    backend.init_result = -105;
    EXPECT_EQ(-1, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(1, "fmon init failed\n"));
    EXPECT_EQ(0, testlib::mutex_live());
    EXPECT_EQ(nullptr, fmon_shell.lock.load());
    EXPECT_EQ(0, backend.count("rate_ctrl(10,200,0)"));

    backend.init_result = 0;
    for (int i = 0; i < 2; i++) {
        testlib::log_clear();
        EXPECT_EQ(0, orx_fmon_init(0, nullptr));
        EXPECT_EQ(1, testlib::log_count(2, "maybe not support inotify"));
    }
    EXPECT_EQ(0, testlib::threads_created());
    EXPECT_EQ(0u, fmon.inited);
}

TEST_F(Entry, GoesOnWithoutRateControl)
{
    backend.rate_result = -1;
    EXPECT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(1, "fmon rate ctrl fail\n"));
    EXPECT_EQ(1, testlib::threads_created());
}

TEST_F(Entry, StaysRunningWithoutAThread)
{
    testlib::set_thread_mode(testlib::ThreadMode::kFail);
    EXPECT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(1, "create file monitor thread failed\n"));
    EXPECT_EQ(FMON_RUNNING, fmon_shell.run_state);
    EXPECT_EQ(1u, fmon.inited);
    EXPECT_EQ(1, testlib::mutex_live());
    EXPECT_EQ(0, _orx_fmon_create_instance("client", nullptr)); /* served, without events */

    EXPECT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(4, "orx_fmon thread already runing."));
}

TEST_F(Entry, EveryAllocationThatFailsDisablesAndLeavesNothing)
{
    for (const char *name : {"malloc", "calloc", "realloc"}) {
        const int hits = testlib::fail_each(name, ENOMEM, [&](testlib::Fault &fault) {
            const int ret = orx_fmon_init(0, nullptr);
            EXPECT_EQ(fault.hit() ? -1 : 0, ret);
            EXPECT_EQ(fault.hit() ? 0 : 1, testlib::mutex_live());
            if (fmon.inited)
                fmon_deinit();
            shell_lock_destroy();
            reset_shell();
        });
        RecordProperty(name, hits);
    }
}

/* ---- host or container, asked on every call ---- */

int agent_answer = -1;
int agent_type(char *, int) { return agent_answer; }
void *some_library(const char *, int) { return &agent_answer; }
void *agent_type_entry(void *, const char *) { return reinterpret_cast<void *>(agent_type); }

TEST_F(Entry, AsksForTheContainerOnEveryCall)
{
    in_child([] {
        testlib::replace_dlopen(some_library);
        testlib::replace_dlsym(agent_type_entry);
        agent_answer = 3;
        EXPECT_EQ(0, orx_fmon_init(0, nullptr));
        EXPECT_EQ(1, g_container_flag);
        EXPECT_TRUE(logged(3, "current env is container!"));

        agent_answer = -1;
        EXPECT_EQ(0, orx_fmon_init(0, nullptr)); /* running */
        EXPECT_EQ(0, g_container_flag);

        agent_answer = 0;
        fmon_shell.run_state = FMON_DISABLED;
        EXPECT_EQ(0, orx_fmon_init(0, nullptr));
        EXPECT_EQ(1, g_container_flag);
    });
}

/* ---- configuration ---- */

class Config : public ShellTest
{
protected:
    Config() { testlib::set_thread_mode(testlib::ThreadMode::kRecord); }

    /* Reads fmon.ini without starting: an interval of 1 ms is refused before anything is made. */
    void read(testlib::Ini ini)
    {
        ini[{"fmon", "tbd_interval"}] = "1";
        testlib::set_ini(ini);
        EXPECT_EQ(-1, orx_fmon_init(0, nullptr));
        EXPECT_EQ(1, fmon_shell.tbd_interval);
    }
    int32_t max_events_from(const std::string &text)
    {
        reset_shell();
        read({{{"fmon", "max_events"}, text}});
        return fmon_shell.max_events;
    }
    uint32_t rate_limit_from(const std::string &text)
    {
        reset_shell();
        read({{{"fmon", "rate_limit"}, text}});
        return fmon_shell.rate_limit;
    }
};

TEST_F(Config, IsReadFromTheInstallationAndReleased)
{
    testlib::set_ini({});
    start();
    EXPECT_EQ(std::vector<std::string>{"/agent/bin/../config/fmon.ini"}, testlib::ini_loads());
    EXPECT_EQ(0, testlib::ini_open());
}

TEST_F(Config, AMissingFileKeepsAllDefaults)
{
    start();
    EXPECT_EQ(10000, fmon_shell.max_events);
    EXPECT_EQ(8000, fmon_shell.max_dentries);
    EXPECT_EQ(30000, fmon_shell.tbd_interval);
}

TEST_F(Config, EveryKeyReachesTheCore)
{
    testlib::set_ini({{{"fmon", "max_events"}, "123"},
                      {{"fmon", "max_dentries"}, "456"},
                      {{"fmon", "tbd_interval"}, "7890"},
                      {{"fmon", "rate_limit"}, "11"},
                      {{"fmon", "rate_interval"}, "12"},
                      {{"fmon", "rate_log"}, "1"}});
    start();
    EXPECT_EQ(123, fmon.max_events);
    EXPECT_EQ(456, fmon.dcache.max_entries);
    EXPECT_EQ(7890u, fmon.tbd_interval);
    EXPECT_EQ(1, backend.count("rate_ctrl(11,12,1)"));
}

TEST_F(Config, AnotherSectionIsNotLookedAt)
{
    testlib::set_ini({{{"", "max_events"}, "5"}, {{"Fmon", "max_events"}, "6"}});
    start();
    EXPECT_EQ(10000, fmon.max_events);
}

TEST_F(Config, ValuesOfZeroOrBelowKeepTheCurrentOne)
{
    EXPECT_EQ(10000, max_events_from("0"));
    EXPECT_EQ(10000, max_events_from("-1"));
    EXPECT_EQ(10000, max_events_from("-2147483648"));
    EXPECT_EQ(1, max_events_from("1"));
    EXPECT_EQ(2147483647, max_events_from("2147483647"));
}

TEST_F(Config, GarbageKeepsTheCurrentValue)
{
    for (const char *text : {"", " ", "many", "x12", "-", "+", "0x10", "\x80\xff"})
        EXPECT_EQ(10000, max_events_from(text)) << text;
}

TEST_F(Config, DigitsCountUpToTheFirstOtherCharacter)
{
    EXPECT_EQ(12, max_events_from("12 events"));
    EXPECT_EQ(12, max_events_from(" \t12"));
    EXPECT_EQ(12, max_events_from("+12"));
    EXPECT_EQ(1, max_events_from("1e6"));
}

/* As the C library's atoi: beyond its range a long is cut off to 32 bits. */
TEST_F(Config, HugeValuesLoseTheirUpperBits)
{
    const bool wide = sizeof(long) == 8;
    EXPECT_EQ(wide ? 10000 : 2147483647, max_events_from("2147483648"));
    EXPECT_EQ(wide ? 10000 : 2147483647, max_events_from("4294967296"));
    EXPECT_EQ(wide ? 5 : 2147483647, max_events_from("4294967301"));
    EXPECT_EQ(wide ? 10000 : 2147483647, max_events_from("99999999999999999999999999")); /* LONG_MAX: -1 */
}

TEST_F(Config, TheOtherKeysFollowTheSameRule)
{
    read({{{"fmon", "max_dentries"}, "-8"}});
    EXPECT_EQ(8000, fmon_shell.max_dentries);
    reset_shell();
    set_key("tbd_interval", "0");
    start();
    EXPECT_EQ(30000, fmon_shell.tbd_interval);
}

TEST_F(Config, RatesMayBeZero)
{
    testlib::set_ini({{{"fmon", "rate_limit"}, "0"}, {{"fmon", "rate_interval"}, "0"}, {{"fmon", "rate_log"}, "0"}});
    start();
    EXPECT_EQ(1, backend.count("rate_ctrl(0,0,0)"));
}

TEST_F(Config, HardenedWhenItIsSaid)
{
    testlib::set_ini({{{"fmon", "hardened"}, "1"}});
    start();
    EXPECT_EQ(1u, fmon.hardened);
}

TEST_F(Config, NotHardenedWithoutTheKey)
{
    fmon.hardened = 1;
    start();
    EXPECT_EQ(0u, fmon.hardened);
}

TEST_F(Config, KeysOfTheSourceOfFileSystems)
{
    testlib::set_ini({{{"fmon", "fs_events"}, "1"},
                      {{"fmon", "fs_directories"}, "500"},
                      {{"fmon", "fs_memory"}, "3"},
                      {{"fmon", "fs_queue"}, "1"},
                      {{"fmon", "fs_rest"}, "20"},
                      {{"fmon", "fs_ignore"}, "64"}});
    start();
    EXPECT_EQ(1u, fmon.fs_keys.events);
    EXPECT_EQ(500u, fmon.fs_keys.directories);
    EXPECT_EQ(3072u, fmon.fs_keys.memory_kib);
    EXPECT_EQ(1u, fmon.fs_keys.queue);
    EXPECT_EQ(20u, fmon.fs_keys.rest_ms);
    EXPECT_EQ(64u, fmon.fs_keys.ignored);
}

TEST_F(Config, TheSourceOfFileSystemsIsNotUsedWithoutItsKey)
{
    fmon.fs_keys = {1, 1, 1, 1, 1, 1};
    start();
    EXPECT_EQ(0u, fmon.fs_keys.events);
    EXPECT_EQ(65536u, fmon.fs_keys.directories);
    EXPECT_EQ(65536u, fmon.fs_keys.memory_kib);
    EXPECT_EQ(0u, fmon.fs_keys.queue);
    EXPECT_EQ(2u, fmon.fs_keys.rest_ms);
    EXPECT_EQ(0u, fmon.fs_keys.ignored);
}

TEST_F(Config, TheRestOfTheSourceHasALimit)
{
    testlib::set_ini({{{"fmon", "fs_rest"}, "1000000"}});
    start();
    EXPECT_EQ(100u, fmon.fs_keys.rest_ms);
}

TEST_F(Config, IgnoredDirectoriesHaveALimit)
{
    testlib::set_ini({{{"fmon", "fs_ignore"}, "1000000"}});
    start();
    EXPECT_EQ(1024u, fmon.fs_keys.ignored);
}

TEST_F(Config, MemoryOfTheSourceInKibGoesBeforeThatInMib)
{
    testlib::set_ini({{{"fmon", "fs_memory"}, "3"}, {{"fmon", "fs_memory_kib"}, "64"}});
    start();
    EXPECT_EQ(64u, fmon.fs_keys.memory_kib);
}

TEST_F(Config, MemoryOfTheSourceHasALimit)
{
    testlib::set_ini({{{"fmon", "fs_memory"}, "1000000000"}});
    start();
    EXPECT_EQ(2048u * 1024, fmon.fs_keys.memory_kib);
}

TEST_F(Config, MemoryOfTheSourceInKibHasTheSameLimit)
{
    testlib::set_ini({{{"fmon", "fs_memory_kib"}, "1000000000"}});
    start();
    EXPECT_EQ(2048u * 1024, fmon.fs_keys.memory_kib);
}

/* Zero switches throttling off, so it must be meant. */
TEST_F(Config, ARateThatIsNoNumberKeepsTheCurrentOne)
{
    for (const char *text : {"", " ", "off", "-1", "+3", "3x", "3 4", "0x3", "1e3"})
        EXPECT_EQ(10u, rate_limit_from(text)) << text;
    EXPECT_EQ(3u, rate_limit_from(" 3\t"));
    EXPECT_EQ(8u, rate_limit_from("008"));
}

TEST_F(Config, ARateThatRateControlCannotComputeKeepsTheCurrentOne)
{
    EXPECT_EQ(1000000000u, rate_limit_from("1000000000"));
    for (const char *text : {"1000000001", "2147483647", "4294967295", "4294967297", "99999999999999999999999999"})
        EXPECT_EQ(10u, rate_limit_from(text)) << text;
}

TEST_F(Config, AnIntervalBelowASecondDisablesThePlugIn)
{
    set_key("tbd_interval", "999");
    EXPECT_EQ(-1, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(3, "event set error"));
    EXPECT_TRUE(logged(1, "fmon init failed\n"));
    set_key("tbd_interval", "1000");
    EXPECT_EQ(0, orx_fmon_init(0, nullptr));
    EXPECT_TRUE(logged(2, "maybe not support inotify"));
    EXPECT_EQ(0u, fmon.inited);
}

/* Runs the monitor thread's body up to its end on the first wait. */
void run_to_the_end()
{
    testlib::Fault broken("select", 1, EBADF);
    EXPECT_EQ(0, fmon_thread(nullptr));
}

TEST_F(Config, ValuesReadOnceStayInForce)
{
    testlib::set_ini({{{"fmon", "max_events"}, "77"}, {{"fmon", "rate_limit"}, "5"}});
    start();
    run_to_the_end();
    testlib::clear_ini();
    start();
    EXPECT_EQ(77, fmon.max_events);
    EXPECT_EQ(2, backend.count("rate_ctrl(5,200,0)"));
}

TEST_F(Entry, StartsAgainAfterTheThreadEnded)
{
    start();
    EXPECT_EQ(0, _orx_fmon_create_instance("first", nullptr));
    run_to_the_end();
    EXPECT_EQ(FMON_STOPPED, fmon_shell.run_state);
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_create_instance("second", nullptr));

    start();
    EXPECT_EQ(1, testlib::mutex_live());
    EXPECT_EQ(2, testlib::threads_created());
    EXPECT_EQ(1, _orx_fmon_create_instance("second", nullptr)); /* the first is still there */
    EXPECT_EQ(2, fmon_shell.row_count);
}

/* Nobody is left who would take its events. */
TEST_F(Entry, AnInstanceDeletedWhileStoppedIsNotThereAfterTheRestart)
{
    start();
    EXPECT_EQ(0, client("gone", nullptr));
    EXPECT_EQ(1, client("stays", nullptr));
    happens("gone", "1");
    happens("stays", "1");
    run_to_the_end();
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_del_instance(0));
    start();
    EXPECT_EQ(2u, fmon.inst_mask);
    EXPECT_STREQ("", fmon.instances[0].name);
    EXPECT_STREQ("stays", fmon.instances[1].name);
    EXPECT_EQ(1, fmon.event_count);
    EXPECT_EQ(0, _orx_fmon_create_instance("new", nullptr));
}

TEST_F(Entry, CallsWaitForNothingAfterAFailedStart)
{
    backend.init_result = -1;
    EXPECT_EQ(-1, orx_fmon_init(0, nullptr));
    EXPECT_FALSE(fmon_shell.closed);
    EXPECT_EQ(0u, fmon_shell.inside);
    EXPECT_EQ(FMON_ENOTINIT, _orx_fmon_create_instance("a", nullptr));
}

}  // namespace
