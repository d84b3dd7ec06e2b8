/* Who is in the table of processes, and for how long; process_table.h. */

#include <charconv>
#include <cstring>
#include <utility>

#include "process_table.h"

namespace agent
{

namespace
{

constexpr int kMostTakenIn = 64;    /* ancestors of a process that was not heard of */
constexpr size_t kSpare = 128;      /* room for them, and for itself */
constexpr size_t kPerProcess = 512; /* bytes, beside what is counted */

// 0: the name is no number.
uint32_t pid_of(const char *name)
{
    uint32_t pid = 0;
    const char *const end = name + strlen(name);
    return std::from_chars(name, end, pid).ptr == end ? pid : 0;
}

}  // namespace

Process *ProcessTable::known(uint32_t pid)
{
    const auto found = index_.find(pid);
    return found == index_.end() ? nullptr : &*found->second;
}

bool ProcessTable::runs(uint32_t pid) const
{
    const auto found = index_.find(pid);
    return found != index_.end() && !found->second->ended_ns;
}

Process *ProcessTable::at(uint32_t pid, uint64_t time_ns)
{
    Process *const process = known(pid);
    return process && process->before && time_ns < process->made_ns ? process->before.get() : process;
}

Process *ProcessTable::known_or_read(uint32_t pid, int depth)
{
    if (Process *const process = known(pid))
        return process;
    ProcessStat stat;
    if (pid == 0 || depth >= kMostTakenIn || !read_stat(proc_, pid, stat))
        return nullptr;
    return &take_in(pid, std::move(stat), depth);
}

Process &ProcessTable::take_in(uint32_t pid, ProcessStat stat, int depth)
{
    Process &process = add(pid, 0);
    process.ppid = stat.ppid;
    process.start = stat.start;
    process.exact_start = true;
    process.now().name = std::move(stat.name);
    process.now().named_ns = now_ns_();
    if (Process *const parent = known_or_read(process.ppid, depth + 1))
        process.parent = parent->as_ancestor();
    return process;
}

// Whoever had the pid stays for a while, for events of his time. `time_ns` 0: it was not heard when it was made.
Process &ProcessTable::add(uint32_t pid, uint64_t time_ns)
{
    Process &process = running_.emplace_back();
    process.pid = pid;
    const auto found = index_.find(pid);
    if (found != index_.end()) {
        if (time_ns == 0)
            time_ns = found->second->ended_ns ? found->second->ended_ns + 1 : now_ns_();
        found->second->doubt(time_ns);
        found->second->before = nullptr;
        process.before = std::make_unique<Process>(std::move(*found->second));
        drop(found->second);
    }
    process.made_ns = time_ns;
    process.states.emplace_back().from_ns = time_ns;
    index_[pid] = std::prev(running_.end());
    return process;
}

// In the order of pids most are taken in after what made them, which is then not read a second time.
void ProcessTable::survey(uint64_t lost_ns)
{
    const common::Dir list(opendir(proc_.c_str()));
    if (!list)
        return;
    std::map<uint32_t, ProcessStat> all;
    while (const struct dirent *const entry = readdir(list.get())) {
        const uint32_t pid = pid_of(entry->d_name);
        ProcessStat stat;
        if (pid != 0 && read_stat(proc_, pid, stat))
            all.emplace(pid, std::move(stat));
    }
    for (const auto &[pid, stat] : all)
        look_again(pid, stat, lost_ns);
    for (const auto &[pid, stat] : all) {
        make_room();
        if (!known(pid))
            take_in(pid, stat, 0);
    }
    end_unseen(all, lost_ns);
}

// What was heard of it stays for events of that time.
void ProcessTable::look_again(uint32_t pid, const ProcessStat &stat, uint64_t lost_ns)
{
    Process *const process = known(pid);
    if (!process || process->now().from_ns > lost_ns)
        return;
    if (process->exact_start ? stat.start != process->start : stat.start > process->start) {
        take_in(pid, stat, 0);
        return;
    }
    if (process->ended_ns)
        return;
    ProcessState &state = process->become(now_ns_());
    state.name = stat.name;
    state.named_ns = now_ns_();
    state.uid.reset();
    state.image = nullptr;
}

// What they had become before they ended is not known.
void ProcessTable::end_unseen(const std::map<uint32_t, ProcessStat> &seen, uint64_t lost_ns)
{
    for (auto each = running_.begin(); each != running_.end();) {
        const Place place = each++;
        if (seen.count(place->pid) || place->now().from_ns > lost_ns)
            continue;
        ProcessState &state = place->now();
        state.name.clear();
        state.image = nullptr;
        state.info = nullptr;
        mark_ended(place, now_ns_());
    }
}

void ProcessTable::make_room()
{
    forget_ended(now_ns_());
    while (is_full() && index_.size() > 1)
        drop(ended_.empty() ? running_.begin() : ended_.begin());
}

bool ProcessTable::is_full() const
{
    return index_.size() + kSpare > limits_.processes ||
           index_.size() * kPerProcess + CountedBytes::sum() > limits_.bytes;
}

// The end that the kernel reports is that of the first thread: others may go on, and so does the process.
void ProcessTable::forget_ended(uint64_t now_ns)
{
    while (!ended_.empty() && ended_.front().ended_ns + limits_.keep_ns < now_ns) {
        const Place place = ended_.begin();
        place->before = nullptr;
        if (!ProcessFiles(proc_, place->pid)) {
            drop(place);
            continue;
        }
        place->ended_ns = now_ns;
        ended_.splice(ended_.end(), ended_, place);
    }
}

void ProcessTable::drop(Place place)
{
    index_.erase(place->pid);
    (place->ended_ns ? ended_ : running_).erase(place);
}

}  // namespace agent
