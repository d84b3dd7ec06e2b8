#include "process_info.h"

#include <sys/stat.h>

#include <utility>

#include "boot_time.h"
#include "process_files.h"

namespace agent
{

namespace
{

constexpr int kReadings = 3; /* of a process that does not keep still */

// The start comes last: a process that was there then was there all the time.
bool print_of(const ProcessFiles &files, ProcessPrint &out)
{
    struct stat st;
    ProcessStat stat;
    if (!files || fstat(files.fd(), &st) != 0)
        return false;
    out.owner = st.st_uid;
    out.exe = files.exe();
    if (!files.stat(stat))
        return false;
    out.name = std::move(stat.name);
    out.image = std::move(stat.image);
    out.ppid = stat.ppid;
    out.start = stat.start;
    return true;
}

}  // namespace

bool read_print(const std::string &proc, uint32_t pid, ProcessPrint &out)
{
    return print_of(ProcessFiles(proc, pid), out);
}

bool read_process(const std::string &proc, uint32_t pid, ProcessPrint &print, ProcessInfo &out)
{
    ProcessPrint again;
    bool seen = false;
    for (int i = 0; i < kReadings && read_print(proc, pid, print); i++) {
        const ProcessFiles files(proc, pid);
        seen = true;
        out = {print.name, print.exe, {}, {}, print.ppid, print.start, {}};
        out.uid = files.uid();
        out.loginuid = files.loginuid();
        out.start_ns = wall_clock_of_tick(print.start);
        out.cmdline = files.cmdline().value_or("");
        out.container = files.container();
        if (!read_print(proc, pid, again))
            break;
        if (again == print)
            return true;
    }
    out = {print.name, {}, {}, {}, print.ppid, print.start, {}};
    out.start_ns = seen ? wall_clock_of_tick(print.start) : 0;
    print.exe.clear(); /* no proof */
    return seen;
}

AncestorPtr read_ancestors(const std::string &proc, uint32_t ppid)
{
    std::vector<std::pair<uint32_t, ProcessStat>> chain; /* the nearest first */
    ProcessStat stat;
    while (ppid != 0 && chain.size() < kMostAncestors && ProcessFiles(proc, ppid).stat(stat)) {
        chain.emplace_back(ppid, stat);
        ppid = stat.ppid;
    }
    AncestorPtr list;
    for (auto each = chain.rbegin(); each != chain.rend(); ++each)
        list = make_ancestor(each->second.name, each->first, wall_clock_of_tick(each->second.start), list);
    return list;
}

ProcessCache::ProcessCache(std::string proc) : proc_(std::move(proc)), slots_(kSlots) {}

ProcessPtr ProcessCache::find(uint32_t pid, uint64_t turn, uint64_t now_ms)
{
    if (pid == 0)
        return nullptr;
    Slot &slot = slots_[pid & (kSlots - 1)];
    if (slot.pid != pid)
        slot = Slot{pid, turn + 1, 0, nullptr};
    if (slot.turn != turn && !still_holds(slot, now_ms))
        read(slot, now_ms);
    slot.turn = turn;
    return slot.known ? ProcessPtr(slot.known, &slot.known->info) : nullptr;
}

// A process that may not be looked at could have become anything.
bool ProcessCache::still_holds(const Slot &slot, uint64_t now_ms) const
{
    if (!slot.known || slot.known->print.exe.empty() || now_ms - slot.read_ms >= kRefreshMs)
        return false;
    ProcessPrint print;
    return read_print(proc_, slot.pid, print) && print == slot.known->print;
}

void ProcessCache::read(Slot &slot, uint64_t now_ms) const
{
    Known fresh;
    slot.read_ms = now_ms;
    if (!read_process(proc_, slot.pid, fresh.print, fresh.info))
        slot.known = nullptr;
    else if (!slot.known || !(fresh.info == slot.known->info) || !(fresh.print == slot.known->print)) {
        if (ancestors_)
            fresh.info.parent = read_ancestors(proc_, fresh.info.ppid);
        slot.known = std::make_shared<const Known>(std::move(fresh));
    }
}

}  // namespace agent
