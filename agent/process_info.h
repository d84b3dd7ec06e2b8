/*
 * process_info.h: who caused an event: name, program, command line, user and parent of a process, read from /proc.
 *
 * A pid is no identity: the process may have executed another program or changed its user since it was read, or ended,
 * with its pid given to another. So what is remembered is looked at again in each turn of the monitor, and forgotten as
 * soon as the process itself does not show that it still holds. What is reported is what the process was when its event
 * was taken from the monitor; what it was when it acted is the kernel's knowledge alone.
 */
#ifndef AGENT_PROCESS_INFO_H
#define AGENT_PROCESS_INFO_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "ancestors.h"

namespace agent
{

struct ProcessInfo {
    std::string name;    /* at most 15 bytes, as the kernel has it */
    std::string exe;     /* empty: not known, as that of kernel threads, of ended processes, or without permission */
    std::string cmdline; /* arguments joined by blanks; empty: none, or not known */
    std::optional<uint32_t> uid{}; /* effective user */
    uint32_t ppid = 0;
    uint64_t start = 0;      /* clock ticks after boot: tells two processes of one pid apart */
    std::string container{}; /* the outermost one that it is in, as the container library reports it; empty: none */
    std::optional<uint32_t> loginuid{}; /* the user who logged in, whatever became of it since */
    uint64_t start_ns = 0;              /* since 1970, to a clock tick; 0: not known */
    AncestorPtr parent{};               /* what made it, and so on; null: not known, or not asked for */

    /* But for `start_ns`, which is another form of `start`, and for who its ancestors are. */
    bool operator==(const ProcessInfo &other) const
    {
        const auto all = [](const ProcessInfo &i) {
            return std::tie(i.name, i.exe, i.cmdline, i.uid, i.ppid, i.start, i.container, i.loginuid);
        };
        return all(*this) == all(other);
    }
};

using ProcessPtr = std::shared_ptr<const ProcessInfo>;

/* What no process keeps when it executes a program or changes its user, and no two processes of one pid share. Where
 * its program may not be seen, the rest is no proof. */
struct ProcessPrint {
    std::string name, exe,
        image; /* image: where the kernel put the program's parts, its arguments and its environment */
    uint32_t owner = 0, ppid = 0;
    uint64_t start = 0;

    bool operator==(const ProcessPrint &) const = default;
};

/* One process below `proc` ("/proc"). False when it is gone. */
bool read_print(const std::string &proc, uint32_t pid, ProcessPrint &out);

/* Reads it between two prints, which must be the same: all is of one reading. A process that ends or goes on to another
 * program meanwhile has a name, a parent and a start only, which come in one piece. False when it is gone. */
bool read_process(const std::string &proc, uint32_t pid, ProcessPrint &print, ProcessInfo &out);

/* The ancestors of a process, as /proc says at the moment. */
AncestorPtr read_ancestors(const std::string &proc, uint32_t ppid);

/* Not for more than one thread at a time; what it returns may be handed to any. */
class ProcessCache
{
public:
    explicit ProcessCache(std::string proc = "/proc");

    /* The process of that pid, or null when it is gone. `turn` is the number of the monitor's turn: within one turn,
     * whose events had all been read before the first was handed on, a process is looked at once. `now_ms` is any clock
     * that does not run backwards: what a process may change without a trace (its group, its command line) is read
     * again after kRefreshMs. */
    ProcessPtr find(uint32_t pid, uint64_t turn, uint64_t now_ms);

    /* From now on those that are read have their ancestors, which costs a reading each. */
    void want_ancestors(bool wanted) { ancestors_ = wanted; }

    static constexpr uint64_t kRefreshMs = 1000;
    static constexpr uint32_t kSlots = 4096; /* a power of two */

private:
    struct Known {
        ProcessInfo info;
        ProcessPrint print;
    };
    struct Slot {
        uint32_t pid = 0;
        uint64_t turn = 0, read_ms = 0;
        std::shared_ptr<const Known> known;
    };
    bool still_holds(const Slot &slot, uint64_t now_ms) const;
    void read(Slot &slot, uint64_t now_ms) const;

    std::string proc_;
    bool ancestors_ = false;
    std::vector<Slot> slots_; /* by the low bits of the pid: pids are given out in sequence */
};

}  // namespace agent

#endif
