#include "event_loop.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/fd.h"
#include "orx_base.h"
#include "orx_event_loop.h"

namespace
{

constexpr char kFile[] = "event_loop.c";
constexpr char kThreadName[] = "orx-isolated";
constexpr size_t kThreadNameSize = 16; /* the kernel's limit, with the NUL */

/* Making a loop ends the process when there is no descriptor left for a pipe that the library shares among its loops.
 * So there must be enough for everything that it opens. 0 or the negative error number. */
int look_for_descriptors()
{
    constexpr size_t kOfLoop = 6; /* with the shared pipe */
    common::Fd taken[kOfLoop];
    for (common::Fd &fd : taken)
        if (fd.reset(eventfd(0, EFD_CLOEXEC)); !fd)
            return -errno;
    return 0;
}

/* A thread's loop. It costs three descriptors, so threads that never ask have none. */
class ThreadLoop
{
public:
    ThreadLoop() = default;
    ~ThreadLoop()
    {
        if (!made_)
            return;
        uv_walk(
            &loop_,
            [](uv_handle_t *handle, void *) {
                if (!uv_is_closing(handle))
                    uv_close(handle, nullptr);
            },
            nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT); /* handles leave the loop in a turn, not in uv_close */
        uv_loop_close(&loop_);
    }
    ThreadLoop(const ThreadLoop &) = delete;
    ThreadLoop &operator=(const ThreadLoop &) = delete;

    uv_loop_t *get()
    {
        if (made_)
            return &loop_;
        int result = look_for_descriptors();
        if (result == 0)
            result = uv_loop_init(&loop_);
        made_ = result == 0;
        if (!made_)
            error_output(ORX_LOG_ERROR, kFile, __LINE__, "event loop not made: %s", uv_strerror(result));
        return made_ ? &loop_ : nullptr;
    }

    bool nowait = false;

private:
    uv_loop_t loop_ = {};
    bool made_ = false;
};

thread_local ThreadLoop this_thread;

int active_handles(uv_loop_t *loop)
{
    int count = 0;
    uv_walk(
        loop,
        [](uv_handle_t *handle, void *counter) {
            if (uv_is_active(handle) && uv_has_ref(handle))
                ++*static_cast<int *>(counter);
        },
        &count);
    return count;
}

struct ThreadStart {
    int (*fn)(void *);
    void *arg;
    char name[kThreadNameSize];
};

struct Free {
    void operator()(void *block) const { free(block); }
};

void *thread_main(void *arg)
{
    std::unique_ptr<ThreadStart, Free> start(static_cast<ThreadStart *>(arg));
    pthread_setname_np(pthread_self(), start->name);
    start->fn(start->arg);
    return nullptr;
}

/* While it lives the thread takes no signals, and a thread that it starts takes none ever: they are for the agent's own
 * threads, which wait for them. Those that a thread raises by its own fault cannot be put off. */
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t set;
        sigfillset(&set);
        for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGPROF})
            sigdelset(&set, fault);
        pthread_sigmask(SIG_BLOCK, &set, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t before_;
};

/* 0 or an error number. */
int start_detached(pthread_t *thread, ThreadStart *start)
{
    pthread_attr_t attr;
    int error = pthread_attr_init(&attr);
    if (error != 0)
        return error;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    SignalsBlocked blocked;
    error = pthread_create(thread, &attr, thread_main, start);
    pthread_attr_destroy(&attr);
    return error;
}

}  // namespace

uv_loop_t *host::thread_loop() { return this_thread.get(); }

/* `attr` is the thread's name here. The handle is the thread's pthread_t, good for comparisons while it runs. */
int cl_ev_create_isolated_thread(void **handle, void *attr, int (*fn)(void *), void *arg)
{
    if (!fn)
        return -EINVAL;
    std::unique_ptr<ThreadStart, Free> start(static_cast<ThreadStart *>(malloc(sizeof(ThreadStart))));
    if (!start)
        return -ENOMEM;
    start->fn = fn;
    start->arg = arg;
    orx_str_strlcpy(start->name, attr ? static_cast<const char *>(attr) : kThreadName, sizeof start->name);
    pthread_t thread;
    int error = start_detached(&thread, start.get());
    if (error != 0)
        return -error;
    (void)start.release(); /* the thread's own now */
    static_assert(sizeof(pthread_t) == sizeof(void *));
    if (handle)
        *handle = reinterpret_cast<void *>(thread);
    return 0;
}

int cl_ev_loop_nowait(int n)
{
    this_thread.nowait = n != 0;
    return 0;
}

int cl_event_loop_once(void)
{
    uv_loop_t *loop = this_thread.get();
    if (!loop)
        return -1;
    uv_run(loop, this_thread.nowait ? UV_RUN_NOWAIT : UV_RUN_ONCE);
    return active_handles(loop);
}

/* Waits between turns whatever cl_ev_loop_nowait said: turning without waiting until nothing is left would be a spin.
 */
int cl_event_loop(void)
{
    uv_loop_t *loop = this_thread.get();
    if (!loop)
        return -1;
    uv_run(loop, UV_RUN_DEFAULT);
    return 0;
}
