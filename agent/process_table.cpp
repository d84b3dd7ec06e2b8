#include "process_table.h"

#include <algorithm>
#include <utility>

namespace agent
{

ProcessTable::ProcessTable(std::string proc, const ProcessLimits &limits, uint64_t (*now_ns)())
    : proc_(std::move(proc)), limits_(limits), now_ns_(now_ns)
{
}

void ProcessTable::apply(const ProcessEvent &event)
{
    switch (event.kind) {
        case ProcessEvent::Kind::kAnswer:
            break;
        case ProcessEvent::Kind::kFork:
            make_room();
            made(event);
            break;
        case ProcessEvent::Kind::kExec:
            make_room();
            executed(event);
            break;
        case ProcessEvent::Kind::kUid:
            changed_user(event);
            break;
        case ProcessEvent::Kind::kName:
            renamed(event);
            break;
        case ProcessEvent::Kind::kExit:
            ended(event);
            break;
    }
}

void ProcessTable::made(const ProcessEvent &event)
{
    if (was_taken_in(event.pid, event.time_ns))
        return;
    Process &child = add(event.pid, event.time_ns);
    child.ppid = event.parent;
    child.start = tick_of(event.time_ns);
    if (Process *const parent = known_or_read(event.parent))
        inherit(child, *parent);
    if (!event.by_thread && !child.now().name.empty())
        return;
    child.now().name = read_name(proc_, event.pid);
    child.now().named_ns = now_ns_();
}

// The survey met it before the message of its making was read.
bool ProcessTable::was_taken_in(uint32_t pid, uint64_t made_ns)
{
    Process *const process = known(pid);
    if (!process || process->ended_ns || process->made_ns || process->states.front().named_ns < made_ns)
        return false;
    process->made_ns = made_ns;
    return true;
}

void ProcessTable::inherit(Process &child, Process &parent) const
{
    if (!parent.ended_ns && !parent.now().image)
        read_program(parent);
    if (!parent.ended_ns && !parent.exact_start)
        settle_start(parent);
    child.parent = parent.as_ancestor();
    child.now().name = parent.now().name;
    child.now().uid = parent.now().uid;
    child.now().image = parent.now().image;
}

// By the time at which a process was heard of it may be known a tick late, and another event may have to say it, too.
void ProcessTable::settle_start(Process &process) const
{
    ProcessStat stat;
    if (!read_stat(proc_, process.pid, stat))
        return;
    process.start = stat.start;
    process.exact_start = true;
}

void ProcessTable::executed(const ProcessEvent &event)
{
    Process *process = known_or_read(event.pid);
    if (!process)
        process = &add(event.pid, 0);
    if (process->ended_ns) { /* its first thread had ended, and another one took its place */
        process->ended_ns = 0;
        running_.splice(running_.end(), ended_, index_[event.pid]);
    }
    process->doubt(event.time_ns);
    ProcessState &state = process->become(event.time_ns);
    state.name.clear();
    state.image = nullptr;
    read_program(*process);
}

// Its end may be near: what goes first is read first.
void ProcessTable::read_program(Process &process) const
{
    const ProcessFiles files(proc_, process.pid);
    ProcessState &state = process.now();
    ProcessStat stat;
    if (!files)
        return;
    state.image = read_image(files, now_ns_);
    state.own_image = true;
    if (!state.uid)
        state.uid = files.uid();
    if (!files.stat(stat))
        return;
    state.name = std::move(stat.name);
    state.named_ns = now_ns_();
    process.start = stat.start;
    process.exact_start = true;
    state.info = nullptr;
}

void ProcessTable::renamed(const ProcessEvent &event)
{
    Process *const process = known(event.pid);
    if (!process || process->now().name == event.name)
        return;
    ProcessState &state = process->become(event.time_ns);
    state.name = event.name;
    state.named_ns = 0;
}

void ProcessTable::changed_user(const ProcessEvent &event)
{
    Process *const process = known(event.pid);
    if (process && process->now().uid != event.uid)
        process->become(event.time_ns).uid = event.uid;
}

void ProcessTable::ended(const ProcessEvent &event)
{
    const auto found = index_.find(event.pid);
    if (found != index_.end() && !found->second->ended_ns)
        mark_ended(found->second, event.time_ns);
}

void ProcessTable::mark_ended(Place place, uint64_t time_ns)
{
    place->ended_ns = std::max<uint64_t>(time_ns, 1);
    ended_.splice(ended_.end(), running_, place);
}

ProcessPtr ProcessTable::find(uint32_t pid, uint64_t time_ns)
{
    Process *const process = at(pid, time_ns);
    return process ? process->tell(process->at(time_ns)) : nullptr;
}

std::optional<ProcessReading> ProcessTable::read(uint32_t pid, uint64_t time_ns)
{
    Process *const process = at(pid, time_ns);
    if (!process || process->ended_ns || &process->at(time_ns) != &process->now())
        return {};
    const ProcessState &state = process->now();
    if (state.own_image && state.image && now_ns_() - state.image->read_ns < limits_.refresh_ns)
        return {};
    const ProcessFiles files(proc_, pid);
    ProcessReading reading = {pid, state.from_ns, {}, nullptr, state.uid};
    if (!files.stat(reading.stat))
        return {};
    reading.image = read_image(files, now_ns_);
    if (!reading.uid)
        reading.uid = files.uid();
    return reading;
}

// What it has become, or the end that it has come to, in the time of the reading shows in the table by now.
void ProcessTable::refresh(const ProcessReading &reading)
{
    Process *const process = known(reading.pid);
    const bool other = !process || process->now().from_ns != reading.state_ns ||
                       (process->exact_start && process->start != reading.stat.start);
    if (other || reading.image->wrong || (process->ended_ns && process->now().image))
        return;
    ProcessState &state = process->now();
    const bool same = state.image && !state.image->wrong && *state.image == *reading.image && !state.name.empty() &&
                      state.uid == reading.uid && process->start == reading.stat.start;
    state.image = reading.image;
    state.own_image = true;
    if (same)
        return;
    state.uid = reading.uid;
    state.info = nullptr;
    process->start = reading.stat.start;
    process->exact_start = true;
    if (state.name.empty())
        state.name = reading.stat.name;
}

}  // namespace agent
