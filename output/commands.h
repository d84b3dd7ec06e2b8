/*
 * commands.h: the commands that --exec runs for events, and the report of those that fail.
 */
#ifndef OUTPUT_COMMANDS_H
#define OUTPUT_COMMANDS_H

#include <cstdint>
#include <memory>
#include <string>

#include "agent/queue.h"
#include "exec.h"

namespace output
{

class Commands
{
public:
    /* Empty: none are run. */
    explicit Commands(const std::string &command);

    explicit operator bool() const { return executor_ != nullptr; }

    /* Runs the command and waits for it as long as there is patience; says on stderr when it failed, once a second.
     * False: no process could be started, which was said. */
    bool run(const agent::Event &event);
    /* At the end: failures that were not reported yet. */
    void report_failures() const;

private:
    void report(const std::string &trouble);

    std::unique_ptr<Executor> executor_;
    uint64_t failures_ = 0;    /* since the last report */
    uint64_t reported_ms_ = 0; /* when that was; 0: there was none */
};

}  // namespace output

#endif
