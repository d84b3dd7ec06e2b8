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
    ASSERT_EQ(thread.start(&handle), 0);
    thread.wait();
    EXPECT_EQ(name, "orx-isolated");
    EXPECT_EQ(handle, reinterpret_cast<void *>(self));
    Isolated named;
    named.body = [&] { given = thread_name(); };
    ASSERT_EQ(named.start(nullptr, "a name that is too long"), 0);
    named.wait();
    EXPECT_EQ(given, "a name that is ");
}

TEST_F(EventLoop, LetsIsolatedThreadsTakeNoSignals)
{
    Isolated thread;
    sigset_t inside, outside;
    thread.body = [&] { pthread_sigmask(SIG_BLOCK, nullptr, &inside); };
    ASSERT_EQ(thread.start(), 0);
    thread.wait();
    pthread_sigmask(SIG_BLOCK, nullptr, &outside);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(sigismember(&inside, signal), 1) << signal;
        EXPECT_EQ(sigismember(&outside, signal), 0) << signal;
    }
    EXPECT_EQ(sigismember(&inside, SIGSEGV), 0);
}

TEST_F(EventLoop, TellsWhenAThreadCannotBeMade)
{
    EXPECT_EQ(cl_ev_create_isolated_thread(nullptr, nullptr, nullptr, nullptr), -EINVAL);
    pthread_attr_t before, huge; /* a stack that no address space holds */
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    huge = before;
    ASSERT_EQ(pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3 & ~size_t{0xffff}), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    Isolated thread;
    int result = thread.start();
    ASSERT_EQ(pthread_setattr_default_np(&before), 0);
    EXPECT_LT(result, 0);
}

TEST_F(EventLoop, ReturnsAtOnceWithNothingToWaitFor)
{
    int result = -1, all = -1;
    double spent = seconds_of([&] {
        result = cl_event_loop_once();
        all = cl_event_loop();
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(all, 0);
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
    EXPECT_EQ(timer.fired, 1);
    EXPECT_EQ(active, 0);
    EXPECT_GE(spent, 0.095);
    double cpu = static_cast<double>(cpu_after.tv_sec - cpu_before.tv_sec) +
                 static_cast<double>(cpu_after.tv_nsec - cpu_before.tv_nsec) / 1e9;
    EXPECT_LT(cpu, 0.05);
}

TEST_F(EventLoop, DoesNotWaitWhenToldSo)
{
    Timer timer(60000);
    EXPECT_EQ(cl_ev_loop_nowait(1), 0);
    int active = -1;
    EXPECT_LT(seconds_of([&] { active = cl_event_loop_once(); }), 1.0);
    EXPECT_EQ(active, 1);
    EXPECT_EQ(timer.fired, 0);
}

TEST_F(EventLoop, ServesWhatIsReadyWithoutWaiting)
{
    Timer timer(0), later(60000);
    cl_ev_loop_nowait(5);
    EXPECT_EQ(cl_event_loop_once(), 1);
    EXPECT_EQ(timer.fired, 1);
    EXPECT_EQ(later.fired, 0);
}

TEST_F(EventLoop, RunsUntilNothingIsLeft)
{
    Timer first(10), second(60);
    cl_ev_loop_nowait(1);
    EXPECT_EQ(cl_event_loop(), 0);
    EXPECT_EQ(first.fired + second.fired, 2);
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
    EXPECT_EQ(result, 0) << "this thread's timer is not the other's";
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
            EXPECT_EQ(cl_event_loop_once(), 1);
        }).join();
    EXPECT_EQ(host_test::open_descriptors(), before);
}

TEST_F(EventLoop, TellsWhenALoopCannotBeMade)
{
    CapturedStderr err;
    struct rlimit before, tight;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    int once = 0, all = 0, later = -1;
    std::thread([&] {
        tight = before;
        tight.rlim_cur = 4;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
        once = cl_event_loop_once();
        all = cl_event_loop();
        EXPECT_EQ(cl_ev_loop_nowait(1), 0);
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
        later = cl_event_loop_once();
    }).join();
    EXPECT_EQ(once, -1);
    EXPECT_EQ(all, -1);
    EXPECT_EQ(later, 0);
    EXPECT_NE(err.text().find("event loop not made"), std::string::npos);
}

}  // namespace
