/* What a process was, one state after the other; process_table.h. */

#include <algorithm>
#include <iterator>

#include "process_table.h"

namespace agent
{

namespace
{

// The kernel puts a program into its place, reads what it needs of it, and says so then.
constexpr uint64_t kExecNs = 1'000'000;

size_t bytes_of(const ProcessInfo &info)
{
    constexpr size_t kAllocations = 96; /* what the heap and the shared pointer add */
    return sizeof info + kAllocations + info.exe.size() + info.cmdline.size() + info.container.size();
}

}  // namespace

ProcessState &Process::at(uint64_t time_ns)
{
    const auto later = std::find_if(states.rbegin(), states.rend(),
                                    [time_ns](const ProcessState &state) { return state.from_ns <= time_ns; });
    return later == states.rend() ? states.front() : *later;
}

ProcessState &Process::become(uint64_t time_ns)
{
    const ProcessState &last = now();
    ProcessState next;
    next.from_ns = time_ns;
    next.name = last.name;
    next.named_ns = last.named_ns;
    next.uid = last.uid;
    next.image = last.image;
    next.own_image = last.own_image;
    if (states.size() >= kMostStates)
        states.erase(states.begin());
    states.push_back(std::move(next));
    return now();
}

void Process::doubt(uint64_t time_ns)
{
    ProcessState &state = now();
    const auto is_too_late = [time_ns](uint64_t read_ns) { return read_ns + kExecNs > time_ns; };
    if (state.image && state.own_image && is_too_late(state.image->read_ns))
        state.image->wrong = true;
    if (state.named_ns == 0 || !is_too_late(state.named_ns))
        return;
    state.name.clear();
    state.info = nullptr;
}

ProcessPtr Process::tell(ProcessState &state) const
{
    const bool without = !state.image || state.image->wrong;
    if (state.info && state.info_without == without)
        return state.info;
    ProcessInfo info = {state.name, {}, {}, state.uid, ppid, start};
    if (!without) {
        info.exe = state.image->exe;
        info.cmdline = state.image->cmdline;
        info.container = state.image->container;
        info.loginuid = state.image->loginuid;
    }
    info.start_ns = wall_clock_of_tick(start);
    info.parent = parent;
    state.info_without = without;
    state.info_bytes = CountedBytes(bytes_of(info));
    state.info = std::make_shared<const ProcessInfo>(std::move(info));
    return state.info;
}

const AncestorPtr &Process::as_ancestor()
{
    ProcessState &state = now();
    if (!state.self)
        state.self = make_ancestor(state.name, pid, wall_clock_of_tick(start), parent);
    return state.self;
}

}  // namespace agent
