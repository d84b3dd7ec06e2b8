#include "activity.h"

#include "orx_fmon.h"

namespace output
{

namespace
{

constexpr Activity kActivities[] = {
    {FMON_DELETE, "delete", "deletion", 4, "Delete"},
    {FMON_DELETE_SELF, "delete_self", "deletion", 4, "Delete"},
    {FMON_MOVED_TO, "moved_to", "change", 5, "Rename"},
    {FMON_MOVED_FROM, "moved_from", "change", 5, "Rename"},
    {FMON_MOVE_SELF, "move_self", "change", 5, "Rename"},
    {FMON_CREATE, "create", "creation", 1, "Create"},
    {FMON_LINK, "link", "creation", 1, "Create"},
    {FMON_MODIFY, "modify", "change", 3, "Update"},
    {FMON_CLOSE_WRITE, "close_write", "change", 3, "Update"},
    {FMON_ATTRIB, "attrib", "change", 6, "Set Attributes"},
    {FMON_ACCESS, "access", "access", 2, "Read"},
    {FMON_OPEN, "open", "access", 14, "Open"},
    {FMON_CLOSE_NOWRITE, "close_nowrite", "access", 99, "Other"},
};

constexpr Activity kUnknown = {0, "unknown", "info", 0, "Unknown"};

}  // namespace

const Activity &main_activity(uint32_t mask)
{
    for (const Activity &row : kActivities)
        if (mask & row.kind)
            return row;
    return kUnknown;
}

}  // namespace output
