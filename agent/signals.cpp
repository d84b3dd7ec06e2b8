#include "signals.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <system_error>
#include <thread>

#include "message.h"

namespace agent
{

namespace
{

constexpr int kInterrupt = SIGURG; /* to the main thread; does no harm elsewhere */
constexpr int kTickMs = 5;
constexpr int kGraceMs = 80, kStepMs = 60, kLongestMs = 2000; /* patience: at first, after progress, in all */
constexpr int kOrderMs = 60;                                  /* for the main thread to end when that is over */

std::atomic<int64_t> g_stopped_ms = 0; /* when the signal came; 0: not yet */
std::atomic<int64_t> g_patient_ms = 0; /* until when there is patience */
std::atomic<bool> g_at_once = false;

int64_t clock_ms()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000 + 1;  // never 0
}

struct Listener {
    sigset_t wanted;
    pthread_t main;
    int wake_fd;
    std::function<void()> last_words;

    [[noreturn]] void run() const;
    void press() const;
};

// A call that begins just after an interruption is met by the next.
void Listener::press() const
{
    while (clock_ms() < g_patient_ms + kOrderMs) {
        pthread_kill(main, kInterrupt);
        const struct timespec pause = {0, long{kTickMs} * 1000000};
        nanosleep(&pause, nullptr);
    }
}

void Listener::run() const
{
    prctl(PR_SET_NAME, "fmon-signals");
    int number;
    while (sigwait(&wanted, &number) != 0)
        continue;
    const int64_t now = clock_ms();
    g_patient_ms = now + kGraceMs;
    g_stopped_ms = now;
    if (g_at_once)
        _exit(kDone);
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wake_fd, &one, sizeof one);
    press();
    last_words();
    _exit(kDone);
}

bool is_ignored(int number)
{
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

// A shell starts background commands with SIGINT ignored; one that is sent all the same is meant.
sigset_t taken_signals()
{
    sigset_t wanted;
    sigemptyset(&wanted);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        if (number != SIGHUP || !is_ignored(number)) {
            signal(number, SIG_DFL);
            sigaddset(&wanted, number);
        }
    return wanted;
}

// Does nothing, but a system call that waits returns.
void catch_interrupt()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(kInterrupt, &action, nullptr);
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, kInterrupt);
    pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
}

}  // namespace

bool catch_signals(int wake_fd, std::function<void()> last_words)
{
    const Listener listener = {taken_signals(), pthread_self(), wake_fd, std::move(last_words)};
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);  // ignored, it would keep how a command of --exec ended from us
    catch_interrupt();
    pthread_sigmask(SIG_BLOCK, &listener.wanted, nullptr);
    const SignalsBlocked blocked;
    try {
        std::thread([listener] { listener.run(); }).detach();
    } catch (const std::system_error &) {
        return false;
    }
    return true;
}

int patience_ms(bool progress)
{
    const int64_t stopped = g_stopped_ms, now = clock_ms();
    if (stopped == 0)
        return -1;
    if (progress)
        g_patient_ms = std::max<int64_t>(g_patient_ms, std::min(now + kStepMs, stopped + kLongestMs));
    return static_cast<int>(std::max<int64_t>(g_patient_ms - now, 0));
}

// A signal that came just before has found the way of an orderly end.
StopAtOnce::StopAtOnce()
{
    g_at_once = true;
    if (g_stopped_ms != 0)
        _exit(kDone);
}

StopAtOnce::~StopAtOnce() { g_at_once = false; }

SignalsBlocked::SignalsBlocked()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
}

SignalsBlocked::~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

}  // namespace agent
