/*
 * signals.h: SIGINT, SIGTERM and SIGHUP ask the command to end; they wake it wherever it waits.
 */
#ifndef CLI_SIGNALS_H
#define CLI_SIGNALS_H

#include <csignal>

namespace cli
{

/* Catches the three, and ignores SIGPIPE: a closed pipe is seen where it is written to. `wake_fd`, an eventfd, becomes
 * readable when one comes. System calls are interrupted. SIGHUP stays ignored when it was
 * (nohup). */
void catch_signals(int wake_fd);
bool stop_requested();

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

}  // namespace cli

#endif
