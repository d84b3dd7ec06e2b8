/*
 * The vocabulary of event kinds and watch flags. One table for each serves both directions; the text forms appear in
 * every log line and in what clients configure.
 */
#include <cstring>

#include "checked.h"
#include "event.h"
#include "orx_base.h"

/* Single kinds come before their combinations, so that a mask is spelled out and "all" and "close" are only read. */
const struct bits_row event_map[EVENT_MAP_ROWS] = {
    {"open", FMON_OPEN},
    {"access", FMON_ACCESS},
    {"modify", FMON_MODIFY},
    {"create", FMON_CREATE},
    {"delete", FMON_DELETE},
    {"moved_from", FMON_MOVED_FROM},
    {"moved_to", FMON_MOVED_TO},
    {"attrib", FMON_ATTRIB},
    {"close_write", FMON_CLOSE_WRITE},
    {"close_nowrite", FMON_CLOSE_NOWRITE},
    {"move_self", FMON_MOVE_SELF},
    {"delete_self", FMON_DELETE_SELF},
    {"all", FMON_ALL_EVENTS},
    {"close", FMON_CLOSE},
};

const struct bits_row flags_map[FLAGS_MAP_ROWS] = {
    {"file", FMON_FILE},   {"dir", FMON_DIR},         {"mount", FMON_MOUNT},       {"recursive", FMON_RECURSIVE},
    {"delay", FMON_DELAY}, {"pid", FMON_PID},         {"symbolic", FMON_SYMBOLIC}, {"deleted", FMON_DELETED},
    {"sync", FMON_SYNC},   {"dynamic", FMON_DYNAMIC}, {"asterisk", FMON_ASTERISK},
};

namespace
{

constexpr int kNamesSize = 256;

/* Appends a name at `at` and returns the new end; agents' formatters differ in what they return, so it is clamped. */
int append_name(char *buf, int size, int at, const char *name)
{
    int room = checked_sub(size, at);
    int added = orx_str_snprintf(buf + at, static_cast<size_t>(room), at == 0 ? "%s" : ",%s", name);
    if (added < 0)
        return at;
    return checked_add(at, added < room ? added : room - 1);
}

}  // namespace

char *bits_str(uint32_t mask, char *buf, int size, const struct bits_row *table, int rows)
{
    if (size < 1)
        return buf;
    buf[0] = '\0';
    int written = 0;
    for (int i = 0; i < rows; i++) {
        if ((mask & table[i].mask) != table[i].mask)
            continue;
        mask &= ~table[i].mask;
        written = append_name(buf, size, written, table[i].name);
    }
    return buf;
}

uint32_t bits_mask(char *text, const struct bits_row *table, int rows)
{
    uint32_t mask = 0;
    char *rest = nullptr;
    for (char *piece = strtok_r(text, ",", &rest); piece; piece = strtok_r(nullptr, ",", &rest))
        for (int i = 0; i < rows; i++)
            if (strcmp(piece, table[i].name) == 0)
                mask |= table[i].mask;
    return mask;
}

/* Two buffers, so that one log line can show an old and a new mask. */
char *event_str(uint32_t mask)
{
    static char names[kNamesSize];
    return bits_str(mask, names, kNamesSize, event_map, EVENT_MAP_ROWS);
}

char *event_str2(uint32_t mask)
{
    static char names[kNamesSize];
    return bits_str(mask, names, kNamesSize, event_map, EVENT_MAP_ROWS);
}

char *flags_str(uint32_t flags)
{
    static char names[kNamesSize];
    return bits_str(flags, names, kNamesSize, flags_map, FLAGS_MAP_ROWS);
}

uint32_t event_mask(char *text) { return bits_mask(text, event_map, EVENT_MAP_ROWS); }

uint32_t flags_mask(char *text) { return bits_mask(text, flags_map, FLAGS_MAP_ROWS); }
