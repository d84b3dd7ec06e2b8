#include "signals.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace cli
{

namespace
{

volatile sig_atomic_t g_stop;
volatile sig_atomic_t g_at_once;
volatile sig_atomic_t g_wake_fd = -1;

extern "C" void on_signal(int)
{
    if (g_at_once)
        _exit(0);
    const int saved = errno;
    const uint64_t one = 1;
    g_stop = 1;
    [[maybe_unused]] const ssize_t n = write(g_wake_fd, &one, sizeof one);
    errno = saved;
}

bool is_ignored(int number)
{
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

void catch_signal(int number)
{
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigaction(number, &action, nullptr);
}

}  // namespace

void catch_signals(int wake_fd)
{
    g_wake_fd = wake_fd;
    // A shell starts background commands with SIGINT ignored; one that is sent all the same is meant.
    catch_signal(SIGINT);
    catch_signal(SIGTERM);
    if (!is_ignored(SIGHUP))
        catch_signal(SIGHUP);
    signal(SIGPIPE, SIG_IGN);
}

bool stop_requested() { return g_stop != 0; }

StopAtOnce::StopAtOnce() { g_at_once = 1; }

StopAtOnce::~StopAtOnce() { g_at_once = 0; }

SignalsBlocked::SignalsBlocked()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsBlocked::~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

}  // namespace cli
