/*
 * signals.h: SIGINT, SIGTERM and SIGHUP ask the command to end.
 *
 * A thread of their own takes them, so that they are heard whatever the others wait for: a pipe that nobody reads, the
 * monitor's lock, a walk over a big tree.
 */
#ifndef AGENT_SIGNALS_H
#define AGENT_SIGNALS_H

#include <csignal>
#include <functional>

namespace agent
{

/* Takes the three from now on, in this thread and in all that are started later, and ignores SIGPIPE: a closed pipe is
 * seen where it is written to. SIGHUP stays ignored when it was (nohup). To be called once, by the main thread. False:
 * no thread could be made.
 *
 * When one comes, `wake_fd`, an eventfd, becomes readable, and system calls of the main thread are interrupted again
 * and again. When the main thread has not ended the process some time after the end of all patience, `last_words` is
 * called, on the thread of the signals, and the process ends with status 0: 140 ms after the signal when nothing went
 * on meanwhile. */
bool catch_signals(int wake_fd, std::function<void()> last_words);

/* Milliseconds for which somebody may still be waited for: 80 after the signal; -1: the command is not to end.
 * `progress`: a part of what is left to do is done, so that the rest may be, too. That prolongs the time by little, and
 * to two seconds at most. */
int patience_ms(bool progress = false);
inline bool stop_requested() { return patience_ms() >= 0; }

/* While it lives, the signals end the process at once, with status 0: for long calls that cannot be interrupted, and
 * before there is anything to flush. */
class StopAtOnce
{
public:
    StopAtOnce();
    ~StopAtOnce();
    StopAtOnce(const StopAtOnce &) = delete;
    StopAtOnce &operator=(const StopAtOnce &) = delete;
};

/* Blocks all signals while it lives, so that a thread started meanwhile never takes one. */
class SignalsBlocked
{
public:
    SignalsBlocked();
    ~SignalsBlocked();
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t before_;
};

}  // namespace agent

#endif
