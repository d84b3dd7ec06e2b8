/*
 * processes.h: the process of an event, by its pid: from what the kernel reports of processes, and where it does not,
 * from /proc as soon as the event is there.
 *
 * A thread of its own takes the kernel's messages as they come, and reads of each program that is executed what would
 * be gone with it. Whoever asks takes what has come until then first: the message of a process is there before the
 * event that it causes.
 */
#ifndef AGENT_PROCESSES_H
#define AGENT_PROCESSES_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "common/fd.h"
#include "common/mutex.h"
#include "process_connector.h"
#include "process_info.h"
#include "process_table.h"

namespace agent
{

class Processes
{
public:
    explicit Processes(std::string proc = "/proc", const ConnectorCalls &calls = kConnectorCalls);
    ~Processes();
    Processes(const Processes &) = delete;
    Processes &operator=(const Processes &) = delete;

    /* To be called before the first find(), or not at all. False, with the reason in `error`: processes are read from
     * /proc when they are asked for. `ancestors`: they are to be looked for in that case, too. */
    bool start(bool ancestors, std::string &error);
    void stop();

    /* See ProcessCache. One thread's. */
    ProcessPtr find(uint32_t pid, uint64_t turn, uint64_t now_ms);

    /* How often the kernel's queue of messages overflowed. Any thread. */
    uint64_t losses() const { return losses_.load(std::memory_order_relaxed); }

private:
    struct Slot {
        uint32_t pid = 0;
        uint64_t turn = 0;
        ProcessPtr process;
    };
    ProcessPtr look_up(uint32_t pid, uint64_t turn, uint64_t now_ms);
    ProcessPtr from_table(uint32_t pid, uint64_t time_ns);
    void listen();
    bool take_all() REQUIRES(lock_);
    void mend() REQUIRES(lock_);

    ProcessCache cache_;
    std::vector<Slot> slots_; /* by the low bits of the pid: what was reported in this turn */
    uint64_t turn_ = UINT64_MAX, turn_ns_ = 0;
    common::UrgentMutex lock_; /* the reader must not wait for a thread that does not get to run */
    ProcessConnector connector_ GUARDED_BY(lock_);
    ProcessTable table_ GUARDED_BY(lock_);
    uint64_t surveyed_ns_ GUARDED_BY(lock_) = 0;
    uint64_t lost_ns_ GUARDED_BY(lock_) = 0; /* when events were lost last, since the survey; 0: none were */
    std::atomic<uint64_t> losses_ = 0;
    std::atomic<bool> listens_ = false;
    common::Fd stop_;
    int fd_ = -1;
    std::thread reader_;
};

}  // namespace agent

#endif
