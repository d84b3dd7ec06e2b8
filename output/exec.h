/*
 * exec.h: one command a time for each event (--exec).
 */
#ifndef OUTPUT_EXEC_H
#define OUTPUT_EXEC_H

#include <functional>
#include <string>

#include "agent/queue.h"

namespace output
{

class Executor
{
public:
    explicit Executor(std::string command) : command_(std::move(command)) {}

    /* Milliseconds that a command may still take; -1: as long as it likes. Asked when a signal interrupts the wait. */
    using Patience = std::function<int()>;

    /* Runs `sh -c COMMAND` with FMON_EVENTS, FMON_PATH and FMON_PID in the environment, and waits for it. Nothing of
     * the event is put into the command's text, so a file name cannot become a part of it. A command that still runs
     * when the patience is over is sent SIGTERM, and not waited for any more. False when no process could be started;
     * `trouble` is one line then, and when the command failed. */
    bool run(const agent::Event &event, const Patience &patience, std::string &trouble) const;

private:
    std::string command_;
};

}  // namespace output

#endif
