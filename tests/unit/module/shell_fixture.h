/*
 * shell_fixture.h: a plug-in shell over a fake backend, as new for each case.
 */
#ifndef UNIT_SHELL_FIXTURE_H
#define UNIT_SHELL_FIXTURE_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "event.h"
#include "fmon_shell.h"
#include "list.h"
#include "testlib/fake_backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"

/* The log as (level, text). */
using LevelLines = std::vector<std::pair<int, std::string>>;
inline LevelLines level_lines()
{
    LevelLines out;
    for (const testlib::LogLine &line : testlib::log_lines())
        out.emplace_back(line.level, line.text);
    return out;
}

inline void *no_library(const char *, int)
{
    errno = ENOENT;
    return nullptr;
}

/* Of the agent's libraries, none is there. */
class ShellTest : public ::testing::Test
{
protected:
    ShellTest()
    {
        testlib::reset_host();
        testlib::replace_dlopen(no_library);
        memset(static_cast<void *>(&fmon), 0, sizeof fmon);
        reset_shell();
    }

    ~ShellTest() override
    {
        release_instances();
        shell_lock_destroy();
        reset_shell();
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }

    static void reset_shell()
    {
        fmon_shell.run_state = FMON_STOPPED;
        fmon_shell.max_events = 10000;
        fmon_shell.max_dentries = 8000;
        fmon_shell.tbd_interval = 30000;
        fmon_shell.rate_limit = 10;
        fmon_shell.rate_interval = 200;
        fmon_shell.rate_log = 0;
        fmon_shell.hardened = 0;
        fmon_shell.fs_events = fmon_shell.fs_memory_kib = fmon_shell.fs_queue = fmon_shell.fs_ignore = 0;
        fmon_shell.fs_directories = 65536;
        fmon_shell.fs_memory = 64;
        fmon_shell.fs_rest = 2;
        fmon_shell.lock = nullptr;
        fmon_shell.row_count = 0;
        memset(fmon_shell.rows, 0, sizeof fmon_shell.rows);
        g_container_flag = 0;
    }

    /* Instances outlive a stopped monitor; only a started one gives them back. */
    static void release_instances()
    {
        if (!fmon.inited && fmon_init(10, 10, 1000) < 0)
            return;
        for (int id = 0; id < FMON_MAX_INSTANCES; id++)
            if (fmon.instances[id].name[0])
                fmon_destroy_instance(id);
        fmon_deinit();
    }

    /* A started core under a lock, without a thread. */
    void start() { ASSERT_EQ(0, orx_fmon_init(0, nullptr)); }

    /* An instance with a watch on a directory of its own, `name`. */
    int client(const std::string &name, fmon_client_cb cb)
    {
        const int id = _orx_fmon_create_instance(name.c_str(), cb);
        EXPECT_EQ(
            0, _orx_fmon_add_watch(static_cast<uint32_t>(id), tree.dir(name).c_str(), FMON_ALL_EVENTS, FMON_DIR, 0, 0));
        return id;
    }

    /* An event in that client's directory. */
    void happens(const std::string &client_name, const std::string &file, uint32_t mask = FMON_CREATE)
    {
        struct dentry *d = dcache_find(&fmon.dcache, tree.path(client_name).c_str());
        ASSERT_NE(nullptr, d);
        ASSERT_EQ(0, event_process(&fmon, d, file.c_str(), mask, 7, 5, nullptr));
    }

    testlib::FakeBackend backend;
    testlib::TempTree tree;
};

#endif
