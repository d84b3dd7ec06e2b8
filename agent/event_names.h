/*
 * event_names.h: the names of event kinds, as people write and read them.
 *
 * One table serves parsing, printing, the help text and shell completion. Its rows, names and order are the monitor's
 * own (event_str() and event_mask() of libfmon.so), but for the last, which is the command's; the command has its own
 * copy because it must name kinds before the library is loaded, and outside the callbacks to which the library's
 * functions are confined.
 */
#ifndef AGENT_EVENT_NAMES_H
#define AGENT_EVENT_NAMES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace agent
{

struct EventName {
    const char *name;
    uint32_t mask;
    const char *meaning; /* for the help text */
};

inline constexpr size_t kEventNames = 15;
inline constexpr size_t kSingleEventNames = 12; /* the rows of one kind each come first, in printing order */
extern const EventName kEventTable[kEventNames];

/* What is done with an entry that is there: open, access, modify and both closes. These kinds can be asked of fanotify,
 * which names the causing process; the others, changes of the tree and of attributes, of inotify only. */
inline constexpr uint32_t kProcessEvents = 0x3b;

/* The kinds that can be asked of the whole system: create, delete, the renames and close_write. */
inline constexpr uint32_t kSystemEvents = 0x3c8;

/* The mask of a comma-separated list. False: `unknown` holds the first piece that is no event's name. */
bool parse_events(std::string_view list, uint32_t &mask, std::string &unknown);

/* Appends the names of a mask's kinds, with `separator` between them. A hard link, which has no name to ask for, is
 * printed as "link". */
void append_events(uint32_t mask, std::string_view separator, std::string &out);
std::string events_text(uint32_t mask);

/* Calls fn(name) for each kind in the mask, in printing order. */
template <typename Fn>
void for_each_event(uint32_t mask, Fn fn)
{
    for (size_t i = 0; i < kSingleEventNames; i++)
        if (mask & kEventTable[i].mask)
            fn(std::string_view(kEventTable[i].name));
    if (mask & 0x1000)
        fn(std::string_view("link"));
}

}  // namespace agent

#endif
