/* Messages of the process-event connector, and what a table of processes makes of them. */
#include <cstring>
#include <string>

#include "agent/process_event.h"
#include "agent/process_table.h"
#include "fuzz.h"

namespace
{

uint64_t g_now;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    agent::ProcessLimits limits;
    limits.processes = 200;
    g_now = 1;
    agent::ProcessTable table("/nonexistent", limits, [] { return ++g_now; });
    agent::ProcessMessages messages(data, size);
    size_t count = 0;
    for (agent::ProcessEvent event; messages.next(event); count++) {
        const std::string name(event.name); /* all of it can be read */
        FUZZ_CHECK(name.size() <= 16);
        table.apply(event);
        FUZZ_CHECK(table.size() <= limits.processes);
        const agent::ProcessPtr process = table.find(event.pid, event.time_ns);
        FUZZ_CHECK(!process || !process->parent || process->parent->depth <= agent::kMostAncestors);
        if (event.kind == agent::ProcessEvent::Kind::kFork)
            FUZZ_CHECK(process && process->ppid == event.parent);
    }
    FUZZ_CHECK(count <= size / 56); /* the least that an event takes */
    return 0;
}
