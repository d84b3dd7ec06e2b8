/*
 * waiter.h: the one place in which a session sleeps.
 */
#ifndef AGENT_WAITER_H
#define AGENT_WAITER_H

#include "common/fd.h"
#include "queue.h"
#include "session.h"

namespace agent
{

class Waiter
{
public:
    /* From now on changes of mounts are noticed. Without the mount table the regular looks must do. */
    explicit Waiter(const EventQueue &queue);

    /* What else is waited for: see Watched::new_directories_fd() and Report::output_fd(); -1: nothing. */
    void listen(int new_directories_fd, int output_fd);

    /* Until something of what the pause is for has happened, its time is over, or the command is told to end. */
    Inputs wait(const Pause &pause) const;

private:
    void sleep(Inputs &inputs, uint64_t ms) const;
    void gather(Inputs &inputs, uint64_t ms) const;

    const EventQueue &queue_;
    common::Fd mount_table_; /* readable, in poll's sense, when mounts have changed */
    int new_directories_fd_ = -1, output_fd_ = -1;
};

}  // namespace agent

#endif
