/*
 * thread_fixture.h: the monitor thread's loop, run on the test's own thread and ended by a wait that fails.
 */
#ifndef TESTS_THREAD_FIXTURE_H
#define TESTS_THREAD_FIXTURE_H

#include <cerrno>
#include <vector>

#include "shell_fixture.h"
#include "testlib/fault.h"

class Thread : public ShellTest
{
protected:
    Thread()
    {
        start();
        backend.lower_timeout = 1;
        testlib::log_clear();
    }

    /* Runs the loop until its nth wait fails with EBADF: n - 1 whole turns. */
    void turns(int n)
    {
        testlib::Fault last("select", n + 1, EBADF);
        EXPECT_EQ(0, fmon_thread(nullptr));
        EXPECT_TRUE(last.hit());
    }
    /* What the backend finds in the array at its nth read. */
    void expect_array_at_read(const std::vector<int32_t> &expected)
    {
        backend.on_read = [this, expected](struct fmon *, uint32_t, fmon_event_cb) {
            EXPECT_EQ(expected, backend.fds);
            return 0;
        };
    }
};

#endif
