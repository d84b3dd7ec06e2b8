/* The monitor thread's loop. Most cases run its body on the test's own thread and end it by failing a wait. */
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>

#include "testlib/records.h"
#include "thread_fixture.h"

namespace
{

using testlib::Fault;
using testlib::logged;
using testlib::Pipe;

/* ---- start and end ---- */

TEST_F(Thread, SetsItselfUp)
{
    char before[16] = "", name[16] = "";
    prctl(PR_GET_NAME, before);
    turns(0);
    prctl(PR_GET_NAME, name);
    prctl(PR_SET_NAME, before);
    EXPECT_STREQ("fmon", name);
    EXPECT_EQ((std::vector<std::pair<std::string, int>>{{"/agent/bin/../var/log/agent/fmon", 5}}),
              testlib::autolog_inits());
}

TEST_F(Thread, EndsInOrder)
{
    turns(0);
    const std::string tid = std::to_string(gettid()), no_library = "load kprobe thread module failed, errno: ";
    LevelLines said = level_lines();
    ASSERT_LT(1u, said.size());
    EXPECT_EQ(no_library, said[1].second.substr(0, no_library.size()));
    said[1].second = no_library; /* the number is whatever the loader left */
    EXPECT_EQ((LevelLines{{3, "fmon tid = " + tid},
                          {1, no_library},
                          {2, "get os_info failed!"},
                          {2, "calculate kprobe cmd failed !"},
                          {2, "register inotify event failed!"},
                          {1, "select failed: Bad file descriptor\n"},
                          {3, "orx_fmon close"}}),
              said);
    EXPECT_EQ(0, testlib::mutex_live());
    EXPECT_EQ(nullptr, fmon_shell.lock.load());
    EXPECT_EQ(0u, fmon.inited);
    EXPECT_EQ(1, backend.count("deinit()"));
    EXPECT_EQ(1, testlib::loop_calls());
    EXPECT_EQ(1, testlib::autolog_deinits());
    EXPECT_EQ(FMON_STOPPED, fmon_shell.run_state);
}

TEST_F(Thread, EndsWithoutALock)
{
    shell_lock_destroy();
    turns(1);
    EXPECT_EQ(FMON_STOPPED, fmon_shell.run_state);
}

TEST_F(Thread, TheReasonIsSelectsOwn)
{
    Fault invalid("select", 1, EINVAL);
    EXPECT_EQ(0, fmon_thread(nullptr));
    EXPECT_TRUE(logged(1, "select failed: Invalid argument\n"));
}

TEST_F(Thread, AClosedDescriptorEndsTheLoop)
{
    Pipe pipe;
    const int fd = pipe.take_read();
    close(fd);
    backend.fds = {fd};
    EXPECT_EQ(0, fmon_thread(nullptr));
    EXPECT_TRUE(logged(1, "select failed: Bad file descriptor\n"));
}

TEST_F(Thread, GoesOnWhenItCannotBeNamed)
{
    Fault refused("prctl", 1, EPERM);
    turns(1);
    EXPECT_TRUE(refused.hit());
    EXPECT_EQ(1, backend.count("read_event(0)"));
}

/* ---- turns ---- */

TEST_F(Thread, ASignalDoesNotEndIt)
{
    testlib::set_now(42);
    Fault signal("select", 1, EINTR, 3), last("select", 5, EBADF);
    EXPECT_EQ(0, fmon_thread(nullptr));
    EXPECT_EQ(5, backend.count("get_selectable_fds()"));
    EXPECT_EQ(1, backend.count("read_event(42)")); /* an interrupted turn starts over */
    EXPECT_EQ(1, testlib::log_count_containing("select failed"));
}

TEST_F(Thread, AReadyDescriptorIsMarkedAtItsPosition)
{
    Pipe full, empty;
    full.put("x");
    backend.fds = {-2, empty.read_fd(), -1, full.read_fd(), -2};
    expect_array_at_read({-2, empty.read_fd(), -1, -1, -2});
    turns(1);
    EXPECT_TRUE(logged(4, "fds[3] is ready"));
    EXPECT_EQ(1, testlib::log_count_containing("is ready"));
}

TEST_F(Thread, NothingReadyMarksNothing)
{
    Pipe empty;
    backend.fds = {empty.read_fd()};
    expect_array_at_read({empty.read_fd()});
    turns(2);
    EXPECT_EQ(0, testlib::log_count_containing("is ready"));
}

TEST_F(Thread, AClosedPipeIsReady)
{
    Pipe pipe;
    pipe.close_write();
    backend.fds = {pipe.read_fd()};
    expect_array_at_read({-1});
    turns(1);
}

/* With the agent's standard input closed, descriptor 0 would end the loop. */
TEST_F(Thread, DescriptorZeroIsNotOurs)
{
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    close(0);
    backend.fds = {0, 0};
    expect_array_at_read({0, 0});
    Fault last("select", 3, EIO);
    EXPECT_EQ(0, fmon_thread(nullptr));
    EXPECT_TRUE(logged(1, "select failed: Input/output error\n")) << testlib::log_text();
    EXPECT_EQ(-1, fcntl(0, F_GETFD)); /* still free */
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
}

/* With a readable standard input it would spin. */
TEST_F(Thread, AReadableStandardInputIsLeftAlone)
{
    Pipe full;
    full.put("x");
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 10);
    ASSERT_EQ(0, dup2(full.read_fd(), 0));
    backend.fds = {0};
    expect_array_at_read({0});
    turns(2);
    EXPECT_EQ(0, testlib::log_count_containing("is ready"));
    close(0);
    if (saved >= 0) {
        dup2(saved, 0);
        close(saved);
    }
}

class HighDescriptors : public Thread
{
protected:
    HighDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &old_);
        struct rlimit limit = old_;
        limit.rlim_cur = limit.rlim_max < 3000 ? limit.rlim_max : 3000;
        setrlimit(RLIMIT_NOFILE, &limit);
        full_.put("x");
        low = fcntl(full_.read_fd(), F_DUPFD, 3);
        high = fcntl(full_.read_fd(), F_DUPFD, 2000);
    }
    ~HighDescriptors() override
    {
        close(low);
        close(high);
        setrlimit(RLIMIT_NOFILE, &old_);
    }
    int low, high;

private:
    Pipe full_;
    struct rlimit old_;
};

TEST_F(HighDescriptors, AreWaitedForLikeOthers)
{
    NEED(high >= 2000, "needs a hard limit of more than 2000 descriptors");
    backend.fds = {high, low};
    expect_array_at_read({-1, -1});
    turns(1);
}

TEST_F(HighDescriptors, AreLeftOutForATurnWithoutMemory)
{
    NEED(high >= 2000, "needs a hard limit of more than 2000 descriptors");
    int turn = 0;
    Fault full("calloc");
    backend.on_read = [&](struct fmon *, uint32_t, fmon_event_cb) {
        EXPECT_EQ(turn++ == 0 ? (std::vector<int32_t>{high, -1}) : (std::vector<int32_t>{-1, -1}), backend.fds);
        backend.fds = {high, low};
        return 0;
    };
    backend.fds = {high, low};
    turns(2);
    EXPECT_TRUE(full.hit());
    EXPECT_EQ(2, turn);
}

TEST_F(Thread, ACoreThatIsNotStartedOffersNoDescriptors)
{
    fmon_deinit();
    backend.calls.clear();
    turns(0);
    EXPECT_EQ(0, backend.count("get_selectable_fds()"));
}

TEST_F(Thread, AFullTableIsWaitedOutWithoutDescriptors)
{
    client("a", [](struct event *) -> int32_t { return 1000; });
    fmon.max_events = 1;
    happens("a", "1");
    Fault last("select", 1, EBADF);
    EXPECT_EQ(0, fmon_thread(nullptr));
    EXPECT_EQ(0, backend.count("get_selectable_fds()"));
}

TEST_F(Thread, TheBackendMayShortenTheWait)
{
    Pipe empty;
    backend.fds = {empty.read_fd()};
    const auto begin = std::chrono::steady_clock::now();
    turns(3);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
    EXPECT_EQ(3, backend.count("read_event(0)"));
}

TEST_F(Thread, TheTimeIsTheTimersInThirtyTwoBits)
{
    testlib::set_now(0x100000005);
    turns(1);
    EXPECT_EQ(1, backend.count("read_event(5)"));
}

TEST_F(Thread, AFailedRunIsLoggedAndTheLoopGoesOn)
{
    backend.read_result = -7;
    turns(2);
    EXPECT_EQ(2, testlib::log_count(1, "fmon run failed: -7\n"));
    testlib::log_clear();
}

TEST_F(Thread, APositiveResultOfARunIsLoggedToo)
{
    backend.read_result = 3;
    turns(1);
    EXPECT_TRUE(logged(1, "fmon run failed: 3\n"));
}

TEST_F(Thread, RunsAndDeliversUnderTheLock)
{
    static bool called_locked;
    called_locked = false;
    client("a", [](struct event *) -> int32_t {
        called_locked = testlib::mutex_locked();
        return 0;
    });
    happens("a", "1");
    bool read_locked = false;
    backend.on_read = [&](struct fmon *, uint32_t, fmon_event_cb) {
        read_locked = testlib::mutex_locked();
        return 0;
    };
    const int before = testlib::mutex_lock_calls();
    turns(1);
    EXPECT_TRUE(read_locked);
    EXPECT_TRUE(called_locked);
    EXPECT_EQ(before + 4,
              testlib::mutex_lock_calls()); /* two a turn, one before the wait that failed, one at the end */
    EXPECT_FALSE(testlib::mutex_locked());
}

TEST_F(Thread, EventsReadInATurnAreDeliveredInIt)
{
    static int delivered;
    delivered = 0;
    client("a", [](struct event *) -> int32_t {
        delivered++;
        return 0;
    });
    backend.on_read = [&](struct fmon *monitor, uint32_t, fmon_event_cb cb) {
        return cb(monitor, dcache_find(&monitor->dcache, tree.path("a").c_str()), "x", FMON_CREATE, 0, 5, nullptr);
    };
    turns(1);
    EXPECT_EQ(1, delivered);
}

/* ---- the agent's own event loop ---- */

class Pump : public Thread
{
protected:
    /* The loop's turns at these times; how often the agent's loop got one. */
    int pumps_at(const std::vector<uint64_t> &times)
    {
        testlib::set_now(times.front());
        size_t next = 1;
        backend.on_read = [&](struct fmon *, uint32_t, fmon_event_cb) {
            if (next < times.size())
                testlib::set_now(times[next++]);
            return 0;
        };
        turns(static_cast<int>(times.size()));
        EXPECT_EQ(testlib::loop_once_calls(), testlib::loop_nowait_calls());
        return testlib::loop_once_calls();
    }
};

TEST_F(Pump, NotInTheFirstSecond) { EXPECT_EQ(0, pumps_at({0, 1, 999, 1000})); }
TEST_F(Pump, AfterMoreThanASecond) { EXPECT_EQ(1, pumps_at({1001})); }
TEST_F(Pump, OnceASecond) { EXPECT_EQ(2, pumps_at({5000, 5000, 5999, 6000, 6001, 7000, 7001})); }
TEST_F(Pump, WhenTimeGoesBack) { EXPECT_EQ(2, pumps_at({5000, 4999, 5000})); }
TEST_F(Pump, AcrossTheWrap) { EXPECT_EQ(2, pumps_at({0xffffff00, 0x100000005, 0x100000006})); }

}  // namespace
