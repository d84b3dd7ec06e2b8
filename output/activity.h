/*
 * activity.h: event kinds as other schemas have them: a row each, the one that says most of what happened first.
 */
#ifndef OUTPUT_ACTIVITY_H
#define OUTPUT_ACTIVITY_H

#include <cstdint>

namespace output
{

/* In the order in which a row reads. */
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Activity {
    uint32_t kind;
    const char *action;   /* the kind's name */
    const char *ecs_type; /* event.type of the Elastic Common Schema */
    int ocsf_id;          /* activity_id of OCSF's class File System Activity */
    const char *ocsf_name;
};

/* Of the kinds in an event's mask the one that says most: a file that is made, written and closed was created. */
const Activity &main_activity(uint32_t mask);

}  // namespace output

#endif
