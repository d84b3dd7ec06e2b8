/*
 * process_table.h: processes that run and those that ended a while ago, as the kernel's events report them.
 *
 * A process has states, one after the other: what it is made as, what it becomes with each program, user and name.
 * Which of them is meant is told by a time, and so is whether a pid is that of a process or of the one that had it
 * before. Where the files of /proc were read after the state that they were read for had ended, nothing is known of it.
 *
 * process_table.cpp has what events do, process_states.cpp the states, process_survey.cpp who is in the table and for
 * how long. One thread at a time; what find() returns may be handed to any.
 */
#ifndef AGENT_PROCESS_TABLE_H
#define AGENT_PROCESS_TABLE_H

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ancestors.h"
#include "boot_time.h"
#include "process_event.h"
#include "process_image.h"
#include "process_info.h"

namespace agent
{

/* What a process was from one time on. */
struct ProcessState {
    uint64_t from_ns = 0;  /* monotonic clock */
    std::string name{};    /* empty: not known */
    uint64_t named_ns = 0; /* when the name was read; 0: the kernel's event said it */
    std::optional<uint32_t> uid{};
    ImagePtr image{};          /* null: not read yet */
    bool own_image = false;    /* read of this process, not of the one that made it */
    AncestorPtr self{};        /* as it stands in its children's lists; null: it has made none */
    ProcessPtr info{};         /* what was reported of it; null: not asked for yet */
    bool info_without = false; /* it was reported without a program */
    CountedBytes info_bytes{};
};

struct Process {
    uint32_t pid = 0, ppid = 0;
    uint64_t made_ns = 0;     /* monotonic clock; 0: before it was heard of */
    uint64_t start = 0;       /* clock ticks after boot */
    bool exact_start = false; /* as /proc has it; else by the time at which it was heard of */
    uint64_t ended_ns = 0;    /* 0: it runs */
    AncestorPtr parent{};
    std::vector<ProcessState> states{}; /* by time; never empty */
    std::unique_ptr<Process> before{};  /* had the pid until a moment ago */

    ProcessState &now() { return states.back(); }
    ProcessState &at(uint64_t time_ns); /* the first one where that is too early */
    /* A new state, which differs in what the caller changes. The oldest goes beyond kMostStates. */
    ProcessState &become(uint64_t time_ns);
    /* From then on it had another program: what was read later is not of the state that it has now. */
    void doubt(uint64_t time_ns);
    ProcessPtr tell(ProcessState &state) const;
    const AncestorPtr &as_ancestor();

    static constexpr size_t kMostStates = 4;
};

/* What the files of a running process say. */
struct ProcessReading {
    uint32_t pid;
    uint64_t state_ns; /* the state that it was in when the reading began */
    ProcessStat stat;
    ImagePtr image;
    std::optional<uint32_t> uid;
};

struct ProcessLimits {
    size_t processes = 16384;
    size_t bytes = 12 << 20;
    uint64_t keep_ns = 10'000'000'000;   /* after the end */
    uint64_t refresh_ns = 1'000'000'000; /* what changes without an event (group, arguments) is read again after that */
};

class ProcessTable
{
public:
    explicit ProcessTable(std::string proc = "/proc", const ProcessLimits &limits = {},
                          uint64_t (*now_ns)() = monotonic_ns);

    /* In the order of the kernel's messages. */
    void apply(const ProcessEvent &event);

    /* The process that had the pid then; null: not known here. */
    ProcessPtr find(uint32_t pid, uint64_t time_ns);

    /* What /proc says of it, where that is to be asked because it was not or may have changed without an event. To be
     * given to refresh() when what the kernel has sent by then has been applied: only so is it known what was read. */
    std::optional<ProcessReading> read(uint32_t pid, uint64_t time_ns);
    void refresh(const ProcessReading &reading);

    /* Takes in what runs, at the beginning and after events were lost: who is gone has ended, and of others what they
     * are now is read anew, unless it was heard after `lost_ns`: from then on all was heard. */
    void survey(uint64_t lost_ns);

    bool runs(uint32_t pid) const; /* as far as is known here */
    size_t size() const { return index_.size(); }

private:
    using Place = std::list<Process>::iterator;

    void made(const ProcessEvent &event);
    void executed(const ProcessEvent &event);
    void renamed(const ProcessEvent &event);
    void changed_user(const ProcessEvent &event);
    void ended(const ProcessEvent &event);

    Process *known(uint32_t pid);
    Process *at(uint32_t pid, uint64_t time_ns);
    Process *known_or_read(uint32_t pid, int depth = 0);
    Process &take_in(uint32_t pid, ProcessStat stat, int depth);
    Process &add(uint32_t pid, uint64_t time_ns);
    bool was_taken_in(uint32_t pid, uint64_t made_ns);
    void inherit(Process &child, Process &parent) const;
    void read_program(Process &process) const;
    void settle_start(Process &process) const;
    void look_again(uint32_t pid, const ProcessStat &stat, uint64_t lost_ns);
    void end_unseen(const std::map<uint32_t, ProcessStat> &seen, uint64_t lost_ns);
    void mark_ended(Place place, uint64_t time_ns);
    void make_room();
    bool is_full() const;
    void forget_ended(uint64_t now_ns);
    void drop(Place place);

    const std::string proc_;
    const ProcessLimits limits_;
    uint64_t (*const now_ns_)();
    std::list<Process> running_, ended_; /* those longest in the table first; those that ended first first */
    std::unordered_map<uint32_t, Place> index_;
};

}  // namespace agent

#endif
