/* Tests of the event loops of orx_event_loop.h: a loop for each thread, threads of their own, what is awaited. */

#include "event_loop.h"

#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <thread>

#include "host_support.h"
#include "orx_base.h"
#include "orx_event_loop.h"

namespace
{

using Clock = std::chrono::steady_clock;
using host_test::CapturedStderr;

double seconds_of(const std::function<void()> &work)
{
    auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/* Runs `body` on an isolated thread and waits for its end. */
struct Isolated {
    std::function<void()> body;
    std::promise<void> done{};

    static int run(void *arg)
    {
        auto *self = static_cast<Isolated *>(arg);
        self->body();
        self->done.set_value();
        return 0;
    }
    int start(void **handle = nullptr, const char *name = nullptr)
    {
        return cl_ev_create_isolated_thread(handle, const_cast<char *>(name), run, this);
    }
    void wait() { done.get_future().wait(); }
};

std::string thread_name()
{
    char name[64] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

/* A timer in the calling thread's loop that counts how often it fired. */
struct Timer {
    uv_timer_t handle;
    int fired = 0;

    explicit Timer(uint64_t ms)
    {
        uv_timer_init(host::thread_loop(), &handle);
        handle.data = this;
        uv_timer_start(
            &handle, [](uv_timer_t *timer) { ++static_cast<Timer *>(timer->data)->fired; }, ms, 0);
    }
    ~Timer()
    {
        uv_close(reinterpret_cast<uv_handle_t *>(&handle), nullptr);
        uv_run(host::thread_loop(), UV_RUN_NOWAIT);
    }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
};

class EventLoop : public testing::Test
{
protected:
    void TearDown() override { cl_ev_loop_nowait(0); }
};

TEST_F(EventLoop, RunsAFunctionOnAThreadOfItsOwn)
{
    Isolated thread;
    std::string name, given;
    void *handle = nullptr;
    pthread_t self = {};
    thread.body = [&] {
        name = thread_name();
        self = pthread_self();
    };
    ASSERT_EQ(0, thread.start(&handle));
    thread.wait();
    EXPECT_EQ("orx-isolated", name);
    EXPECT_EQ(handle, reinterpret_cast<void *>(self));
    Isolated named;
    named.body = [&] { given = thread_name(); };
    ASSERT_EQ(0, named.start(nullptr, "a name that is too long"));
    named.wait();
    EXPECT_EQ("a name that is ", given);
}

TEST_F(EventLoop, LetsIsolatedThreadsTakeNoSignals)
{
    Isolated thread;
    sigset_t inside, outside;
    thread.body = [&] { pthread_sigmask(SIG_BLOCK, nullptr, &inside); };
    ASSERT_EQ(0, thread.start());
    thread.wait();
    pthread_sigmask(SIG_BLOCK, nullptr, &outside);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(1, sigismember(&inside, signal)) << signal;
        EXPECT_EQ(0, sigismember(&outside, signal)) << signal;
    }
    EXPECT_EQ(0, sigismember(&inside, SIGSEGV));
}

TEST_F(EventLoop, ReportsAThreadThatCannotBeMade)
{
    EXPECT_EQ(-EINVAL, cl_ev_create_isolated_thread(nullptr, nullptr, nullptr, nullptr));
    pthread_attr_t before, huge; /* a stack that no address space holds */
    ASSERT_EQ(0, pthread_getattr_default_np(&before));
    huge = before;
    ASSERT_EQ(0, pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3 & ~size_t{0xffff}));
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    Isolated thread;
    int result = thread.start();
    ASSERT_EQ(0, pthread_setattr_default_np(&before));
    EXPECT_LT(result, 0);
}

TEST_F(EventLoop, ReturnsAtOnceWithNothingToWaitFor)
{
    int result = -1, all = -1;
    double spent = seconds_of([&] {
        result = cl_event_loop_once();
        all = cl_event_loop();
    });
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, all);
    EXPECT_LT(spent, 1.0);
}

TEST_F(EventLoop, WaitsForTheNextEventWithoutSpinning)
{
    Timer timer(100);
    struct timespec cpu_before, cpu_after;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_before);
    int active = -1;
    double spent = seconds_of([&] { active = cl_event_loop_once(); });
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu_after);
    EXPECT_EQ(1, timer.fired);
    EXPECT_EQ(0, active);
    EXPECT_GE(spent, 0.095);
    double cpu = static_cast<double>(cpu_after.tv_sec - cpu_before.tv_sec) +
                 static_cast<double>(cpu_after.tv_nsec - cpu_before.tv_nsec) / 1e9;
    EXPECT_LT(cpu, 0.05);
}

TEST_F(EventLoop, DoesNotWaitWhenToldSo)
{
    Timer timer(60000);
    EXPECT_EQ(0, cl_ev_loop_nowait(1));
    int active = -1;
    EXPECT_LT(seconds_of([&] { active = cl_event_loop_once(); }), 1.0);
    EXPECT_EQ(1, active);
    EXPECT_EQ(0, timer.fired);
}

TEST_F(EventLoop, ServesWhatIsReadyWithoutWaiting)
{
    Timer timer(0), later(60000);
    cl_ev_loop_nowait(5);
    EXPECT_EQ(1, cl_event_loop_once());
    EXPECT_EQ(1, timer.fired);
    EXPECT_EQ(0, later.fired);
}

TEST_F(EventLoop, RunsUntilNothingIsLeft)
{
    Timer first(10), second(60);
    cl_ev_loop_nowait(1);
    EXPECT_EQ(0, cl_event_loop());
    EXPECT_EQ(2, first.fired + second.fired);
}

TEST_F(EventLoop, IsEachThreadsOwn)
{
    Timer timer(60000);
    uv_loop_t *mine = host::thread_loop(), *theirs = nullptr;
    int result = -1;
    std::thread([&] {
        result = cl_event_loop_once();
        theirs = host::thread_loop();
    }).join();
    EXPECT_EQ(0, result) << "this thread's timer is not the other's";
    EXPECT_NE(mine, theirs);
    EXPECT_EQ(mine, host::thread_loop());
}

TEST_F(EventLoop, EndsWithItsThread)
{
    std::thread([] { cl_event_loop_once(); }).join();
    int before = host_test::open_descriptors();
    static uv_timer_t left; /* outlives the thread that leaves it in its loop */
    for (int i = 0; i < 10; i++)
        std::thread([] {
            cl_ev_loop_nowait(1);
            uv_timer_init(host::thread_loop(), &left);
            uv_timer_start(
                &left, [](uv_timer_t *) {}, 60000, 0);
            EXPECT_EQ(1, cl_event_loop_once());
        }).join();
    EXPECT_EQ(host_test::open_descriptors(), before);
}

TEST_F(EventLoop, ReportsALoopThatCannotBeMade)
{
    CapturedStderr err;
    struct rlimit before, tight;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    int once = 0, all = 0, later = -1;
    std::thread([&] {
        tight = before;
        tight.rlim_cur = 4;
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
        once = cl_event_loop_once();
        all = cl_event_loop();
        EXPECT_EQ(0, cl_ev_loop_nowait(1));
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
        later = cl_event_loop_once();
    }).join();
    EXPECT_EQ(-1, once);
    EXPECT_EQ(-1, all);
    EXPECT_EQ(0, later);
    EXPECT_NE(err.text().find("event loop not made"), std::string::npos);
}

}  // namespace
