/*
 * The monitor lock, and the gate before it: while the core is being made or taken down there is no lock that could
 * protect it, so calls are turned away, and those that are inside are awaited first.
 */
#include <pthread.h>
#include <sched.h>

#include "fmon_shell.h"
#include "orx_base.h"

namespace
{

/* Of the table's rows where there may be no lock; opening the gate takes turns with who holds this. */
pthread_mutex_t rows_mutex = PTHREAD_MUTEX_INITIALIZER;

/* A long call is waited for at the lock that it holds. */
void await_calls()
{
    while (fmon_shell.inside != 0) {
        void *lock = fmon_shell.lock;
        if (lock && th_mutex_lock(lock) == 0)
            th_mutex_unlock(lock);
        sched_yield();
    }
}

}  // namespace

ShellLock::ShellLock()
{
    fmon_shell.inside++; /* before the look: who closes the gate then looks for calls inside */
    open_ = !fmon_shell.closed;
    held_ = open_ ? fmon_shell.lock.load() : nullptr;
    /* A lock that was refused (a callback that calls back) is not ours to release. */
    if (held_ && th_mutex_lock(held_) != 0)
        held_ = nullptr;
}

ShellLock::~ShellLock()
{
    if (held_)
        th_mutex_unlock(held_);
    fmon_shell.inside--;
}

ShellClosed::ShellClosed()
{
    fmon_shell.closed = true;
    await_calls();
}

ShellClosed::~ShellClosed()
{
    pthread_mutex_lock(&rows_mutex);
    fmon_shell.closed = false;
    pthread_mutex_unlock(&rows_mutex);
}

ShellRows::ShellRows()
{
    pthread_mutex_lock(&rows_mutex);
    closed_ = fmon_shell.closed;
}

ShellRows::~ShellRows() { pthread_mutex_unlock(&rows_mutex); }

void shell_lock_destroy(void)
{
    void *lock = fmon_shell.lock.exchange(nullptr);
    if (!lock)
        return;
    th_mutex_lock(lock); /* a client that is inside finishes first */
    th_mutex_unlock(lock);
    th_mutex_destroy(lock);
}
