/*
 * probe_fixture.h: the module over the test double of the kernel-probe library, opened and called for real.
 *
 * What the module finds in a library stays found for the life of its process, and a library without a symbol changes
 * the reader for good: each case runs in a child of its own.
 */
#ifndef UNIT_PROBE_FIXTURE_H
#define UNIT_PROBE_FIXTURE_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "fmon.h"
#include "fmon_shell.h"
#include "linux/fmon_linux.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/in_child.h"
#include "testlib/probe_double.h"
#include "testlib/records.h"

using Strings = std::vector<std::string>;

/* A machine on which everything that the probes need is as they want it: kernel, configuration, mount table. fanotify
 * is made of paper. Nothing is started. */
class ProbeMachine
{
public:
    static constexpr uint32_t kMount = 23; /* the one mount, on "/" */

    explicit ProbeMachine(const std::string &without = "") : installation_(testlib::probe_double_installation(without))
    {
        testlib::replace_dlopen(nullptr); /* unlike with the paper fanotify alone, libraries are found */
        testlib::replace_uname(kernel);
        set_mounts({"23 /"});
        reset_agent();
    }
    ~ProbeMachine()
    {
        stop();
        testlib::clear_redirects();
        testlib::replace_uname(nullptr);
        testlib::reset_host();
    }
    ProbeMachine(const ProbeMachine &) = delete;
    ProbeMachine &operator=(const ProbeMachine &) = delete;

    /* An agent that has noted nothing yet. */
    void reset_agent()
    {
        testlib::reset_host();
        testlib::set_ini({});
        testlib::set_program_dir(installation_ + "/bin");
        g_container_flag = 0;
    }

    /* "ID MOUNTPOINT" each, on writable devices. */
    void set_mounts(const Strings &mounts)
    {
        std::string text;
        for (const std::string &mount : mounts) {
            const size_t blank = mount.find(' ');
            text +=
                mount.substr(0, blank) + " 1 8:1 / " + mount.substr(blank + 1) + " rw - ext4 " + tree.root() + " rw\n";
        }
        testlib::redirect_path("/proc/self/mountinfo", tree.file("mountinfo", text));
    }

    int start() { return fmon_init(1000, 10000, 1000); }
    /* The same, and what the monitor thread does first; two instances. */
    void start_all()
    {
        ASSERT_EQ(0, start()) << testlib::log_text();
        ASSERT_EQ(0, get_inotify_event()) << testlib::log_text();
        ASSERT_EQ(0, fmon_create_instance("first"));
        ASSERT_EQ(1, fmon_create_instance("second"));
        testlib::log_clear();
        probes.forget_calls();
    }
    static void stop()
    {
        for (int id = 0; fmon.inited && id < FMON_MAX_INSTANCES; id++)
            fmon_destroy_instance(id);
        fmon_deinit();
        kp_inotify_destroy();
        kp_notify_destroy();
    }

    /* One turn of the monitor without waiting: which positions were ready. */
    std::vector<int> turn()
    {
        int32_t *fds = nullptr;
        uint32_t timeout = 0;
        std::vector<int> ready;
        const int n = fmon_get_selectable_fds(&fds, &timeout);
        for (int i = 0; i < n; i++) {
            const bool paper = i == fmlnx.inotify_num || i == fmlnx.inotify_num + 1;
            struct pollfd p = {fds[i], POLLIN, 0};
            if (paper || fds[i] <= 0 || poll(&p, 1, 0) <= 0)
                continue;
            fds[i] = -1;
            ready.push_back(i);
        }
        EXPECT_EQ(0, fmon_run(now_ += 10));
        return ready;
    }

    /* "path:kinds pid" of everything queued for that instance, taken off. */
    static Strings events(int id = 0)
    {
        Strings out;
        while (struct event *ev = fmon_peek_event(id)) {
            out.push_back(std::string(ev->path) + ":" + event_str(ev->mask) + " " + std::to_string(ev->pid));
            fmon_drop_event(id);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    /* A record of a file in /d. */
    void happens(const std::string &event, const std::string &name, uint32_t pid = 7, int index = 0)
    {
        probes.put(event, pid, testlib::file_probe_record(kMount, {"/", "d"}, name), index);
    }
    void happen(int count, const std::string &event = "Kc", int index = 0)
    {
        for (int i = 0; i < count; i++)
            happens(event, "f" + std::to_string(made_++), 7, index);
    }
    void start_with_instance()
    {
        ASSERT_EQ(0, start()) << testlib::log_text();
        ASSERT_EQ(0, fmon_create_instance("first"));
    }
    /* A record of a watched directory. */
    void delivers(const std::string &dir, uint32_t mask, const std::string &name, uint32_t pid = 9)
    {
        struct stat st = {};
        EXPECT_EQ(0, lstat(dir.c_str(), &st)) << dir;
        probes.put("Ki", pid, testlib::inotify_probe_record(st.st_ino, testlib::wd_of(dir), mask, name));
    }

    testlib::TempTree tree;
    testlib::ProbeDouble probes;
    testlib::PaperFanotify fanotify;

private:
    static int kernel(void *out)
    {
        struct utsname *name = static_cast<struct utsname *>(out);
        snprintf(name->machine, sizeof name->machine, "x86_64");
        snprintf(name->release, sizeof name->release, "6.1.0-1-amd64");
        return 0;
    }

    std::string installation_;
    uint32_t now_ = 0;
    int made_ = 0;
};

/* Declares a case whose body runs in a child, over a machine `m`. */
#define PROBE_CASE(suite, name)                         \
    static void body_##suite##_##name(ProbeMachine &m); \
    TEST(suite, name)                                   \
    {                                                   \
        in_child([] {                                   \
            ProbeMachine m;                             \
            body_##suite##_##name(m);                   \
        });                                             \
    }                                                   \
    static void body_##suite##_##name(ProbeMachine &m)

#endif
