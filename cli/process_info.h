/*
 * process_info.h: who caused an event: name, program, command line, user and parent of a process, read from /proc when
 * the pid is first seen and remembered for a while, so that a process which has just ended still has a name.
 */
#ifndef CLI_PROCESS_INFO_H
#define CLI_PROCESS_INFO_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cli
{

struct ProcessInfo {
    std::string name;    /* at most 15 bytes, as the kernel has it */
    std::string exe;     /* empty for kernel threads, or without permission */
    std::string cmdline; /* arguments joined by blanks */
    uint32_t uid = 0;    /* effective user */
    uint32_t ppid = 0;
    uint64_t start = 0;      /* clock ticks after boot: tells two processes of one pid apart */
    std::string container{}; /* the outermost one that it is in, as the container library tells it; empty: none */

    bool operator==(const ProcessInfo &) const = default;
};

using ProcessPtr = std::shared_ptr<const ProcessInfo>;

/* Reads one process below `proc` ("/proc"). False when it is gone. */
bool read_process(const char *proc, uint32_t pid, ProcessInfo &out);

/* Not for more than one thread at a time; what it returns may be handed to any. */
class ProcessCache
{
public:
    explicit ProcessCache(std::string proc = "/proc");

    /* The process of that pid, or null when it was gone at first sight. /proc is read again when what is known is
     * older than kRefreshMs (a process may have executed another program); what was known is kept for kKeepMs when the
     * process has ended meanwhile. `now_ms` is any clock that does not run backwards. */
    ProcessPtr find(uint32_t pid, uint64_t now_ms);

    static constexpr uint64_t kRefreshMs = 2000;
    static constexpr uint64_t kKeepMs = 60000;
    static constexpr uint32_t kSlots = 4096; /* a power of two */

private:
    struct Slot {
        uint32_t pid = 0;
        uint64_t read_ms = 0, alive_ms = 0;
        ProcessPtr info;
    };
    void refresh(Slot &slot, uint64_t now_ms) const;

    std::string proc_;
    std::vector<Slot> slots_; /* by the low bits of the pid: pids are given out in sequence */
};

}  // namespace cli

#endif
