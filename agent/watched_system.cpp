#include "watched_system.h"

#include <string>

#include "event_names.h"

namespace agent
{

bool WatchedSystem::place(Intake &intake)
{
    std::string error;
    const bool placed = watch_.place(kinds_, intake.add_source(kinds_), error);
    if (!placed)
        report_.warning(error);
    return placed;
}

void WatchedSystem::report_start()
{
    const bool marks = watch_.by_file_systems();
    report_.established({{}, {}, 0, marks ? "filesystem" : "probes", watch_.left_out()});
    report_.flush();
    if (watch_.left_out())
        report_.warning(watch_.left_out_words());
    if (!report_.has_records())
        report_.note("watching the whole system for " + events_text(kinds_) +
                     (marks ? " (marks of file systems)" : ""));
    watch_.follow_mounts();
}

Watched::LeftOut WatchedSystem::report_left_out(uint64_t count)
{
    if (count)
        report_.loss("watches", count, "");
    return {count, ""};
}

}  // namespace agent
