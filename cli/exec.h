/*
 * exec.h: one command a time for each event (--exec).
 */
#ifndef CLI_EXEC_H
#define CLI_EXEC_H

#include <functional>
#include <string>

#include "queue.h"

namespace cli
{

class Executor
{
public:
    explicit Executor(std::string command) : command_(std::move(command)) {}

    /* Runs `sh -c COMMAND` with FMON_EVENTS, FMON_PATH and FMON_PID in the environment, and waits for it. Nothing of
     * the event is put into the command's text, so a file name cannot become a part of it. When `stop` turns true while
     * the command runs, it is sent SIGTERM. False when no process could be started (`error`). */
    bool run(const Event &event, const std::function<bool()> &stop, std::string &error) const;

private:
    std::string command_;
};

}  // namespace cli

#endif
