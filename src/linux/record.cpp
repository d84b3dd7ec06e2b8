#include "linux/record.h"

#include <cstring>

bool inotify_record_at(const char *buffer, size_t size, size_t at, struct raw_inotify *out)
{
    if (at > size || size - at < INOTIFY_HEADER)
        return false;
    const char *record = buffer + at;
    memcpy(&out->wd, record, sizeof(out->wd));
    memcpy(&out->mask, record + 4, sizeof(out->mask));
    memcpy(&out->cookie, record + 8, sizeof(out->cookie));
    memcpy(&out->len, record + 12, sizeof(out->len));
    if (out->len > size - at - INOTIFY_HEADER)
        return false;
    out->name = record + INOTIFY_HEADER;
    out->size = INOTIFY_HEADER + static_cast<size_t>(out->len);
    return true;
}

bool fanotify_record_at(const char *buffer, size_t size, size_t at, struct raw_fanotify *out)
{
    if (at > size || size - at < FANOTIFY_HEADER)
        return false;
    memcpy(out, buffer + at, sizeof(*out));
    return out->event_len >= FANOTIFY_HEADER && out->event_len <= size - at;
}
