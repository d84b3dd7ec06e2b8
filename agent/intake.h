/*
 * intake.h: the client callbacks of the command's instances.
 *
 * They run on the monitor thread with the monitor's lock held, so they do the least that keeps an event: drop what
 * nobody wants, name the process, copy the record into the queue. When the queue is full they ask the monitor to pause
 * the instance, which keeps the event and, in the end, the kernel's queue: nothing is dropped here. They never sleep:
 * a directory is marked, and a process looked at, only as soon as the monitor gets to the record, and what was made in
 * the directory before, and a process that has ended before, are never reported. Events gather behind the queue
 * instead.
 */
#ifndef AGENT_INTAKE_H
#define AGENT_INTAKE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "orx_fmon.h"
#include "processes.h"
#include "queue.h"

namespace agent
{

class Intake
{
public:
    /* With processes of its own, or with those of the whole program. */
    explicit Intake(EventQueue &queue) : queue_(queue), own_(std::make_unique<Processes>()), processes_(*own_) {}
    Intake(EventQueue &queue, Processes &processes) : queue_(queue), processes_(processes) {}
    ~Intake(); /* its instances are gone */
    Intake(const Intake &) = delete;
    Intake &operator=(const Intake &) = delete;

    Processes &processes() { return processes_; }

    /* Asks the module what more it knows of each event; without, nothing more is. Before the first instance exists. */
    void ask(decltype(&_orx_fmon_event_details) details) { details_ = details; }

    /* To be called before the instance exists. `wanted`: kinds that the session wants to see of it. Returns its
     * callback; there are kMaxSources of them, and as many in the program as the monitor has instances. Null: all are
     * taken. */
    fmon_client_cb add_source(uint32_t wanted);

    /* What a callback does; 0, or the pause in milliseconds. */
    int32_t accept(uint32_t source, const struct event &event);

    /* While it is on, events stay in the monitor: callbacks ask for a pause, as those of a slow client do. Any thread.
     * Once it is off they come within a second. */
    void hold(bool on) { held_.store(on, std::memory_order_relaxed); }

    static constexpr size_t kMaxSources = 5;
    static constexpr int32_t kPauseMs = 20;

private:
    EventQueue &queue_;
    const std::unique_ptr<Processes> own_; /* null: they are shared */
    Processes &processes_;
    decltype(&_orx_fmon_event_details) details_ = nullptr;
    uint32_t wanted_[kMaxSources] = {};
    size_t sources_ = 0;
    std::atomic<bool> held_ = false;
    const uint32_t self_ = own_pid(); /* the command's own doings are not shown */

    static uint32_t own_pid();
    bool is_own(uint32_t pid) const;
};

}  // namespace agent

#endif
