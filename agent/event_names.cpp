#include "event_names.h"

#include "orx_fmon.h"

namespace agent
{

const EventName kEventTable[kEventNames] = {
    {"open", FMON_OPEN, "a file or directory was opened"},
    {"access", FMON_ACCESS, "a file was read"},
    {"modify", FMON_MODIFY, "a file was written or truncated"},
    {"create", FMON_CREATE, "an entry was made in a watched directory"},
    {"delete", FMON_DELETE, "an entry of a watched directory was removed"},
    {"moved_from", FMON_MOVED_FROM, "an entry was renamed: its old name"},
    {"moved_to", FMON_MOVED_TO, "an entry was renamed: its new name"},
    {"attrib", FMON_ATTRIB, "mode, owner, times, links or extended attributes changed"},
    {"close_write", FMON_CLOSE_WRITE, "a file open for writing was closed"},
    {"close_nowrite", FMON_CLOSE_NOWRITE, "a file or directory open for reading was closed"},
    {"move_self", FMON_MOVE_SELF, "a watched file or directory itself was renamed"},
    {"delete_self", FMON_DELETE_SELF, "a watched file or directory itself was removed"},
    {"all", FMON_ALL_EVENTS, "every kind above"},
    {"close", FMON_CLOSE, "close_write and close_nowrite"},
    {"move", FMON_MOVED_FROM | FMON_MOVED_TO, "moved_from and moved_to"},
};

static_assert(kProcessEvents == (FMON_OPEN | FMON_ACCESS | FMON_MODIFY | FMON_CLOSE));

namespace
{

const EventName *find_name(std::string_view name)
{
    for (const EventName &row : kEventTable)
        if (name == row.name)
            return &row;
    return nullptr;
}

}  // namespace

bool parse_events(std::string_view list, uint32_t &mask, std::string &unknown)
{
    mask = 0;
    while (!list.empty()) {
        const size_t comma = list.find(',');
        const std::string_view piece = list.substr(0, comma);
        list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
        if (piece.empty())
            continue;
        const EventName *row = find_name(piece);
        if (!row) {
            unknown = piece;
            return false;
        }
        mask |= row->mask;
    }
    return true;
}

void append_events(uint32_t mask, std::string_view separator, std::string &out)
{
    bool first = true;
    for_each_event(mask, [&](std::string_view name) {
        if (!first)
            out.append(separator);
        out.append(name);
        first = false;
    });
}

std::string events_text(uint32_t mask)
{
    std::string text;
    append_events(mask, ",", text);
    return text;
}

}  // namespace agent
