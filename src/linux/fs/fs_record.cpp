#include "linux/fs/fs_record.h"

#include <climits>

#include "linux/record.h"

namespace
{

/* Types of information, the kernel's numbers. */
enum { INFO_OBJECT = 1, INFO_ENTRY = 2, INFO_DIRECTORY = 3, INFO_OLD_ENTRY = 10, INFO_NEW_ENTRY = 12 };

enum {
    INFO_HEADER = 4,
    INFO_FSID = 8,
    INFO_HANDLE_HEADER = 8,
    INFO_FIXED = INFO_HEADER + INFO_FSID + INFO_HANDLE_HEADER
};

struct info {
    uint8_t type;
    const char *bytes;
    uint32_t size;
};

/* The part of information at `at` of a record that ends at `end`. */
bool info_at(const char *record, uint32_t at, uint32_t end, struct info *out)
{
    if (end - at < INFO_HEADER)
        return false;
    uint16_t size;
    memcpy(&size, record + at + 2, sizeof(size));
    if (size < INFO_HEADER || size > end - at)
        return false;
    *out = {static_cast<uint8_t>(record[at]), record + at, size};
    return true;
}

bool read_key(const struct info *info, struct fs_key *out)
{
    if (info->size < INFO_FIXED)
        return false;
    memcpy(out->fsid, info->bytes + INFO_HEADER, sizeof(out->fsid));
    memcpy(&out->len, info->bytes + INFO_HEADER + INFO_FSID, sizeof(out->len));
    memcpy(&out->type, info->bytes + INFO_HEADER + INFO_FSID + 4, sizeof(out->type));
    out->bytes = info->bytes + INFO_FIXED;
    return out->len <= FS_HANDLE_MAX && out->len <= info->size - INFO_FIXED;
}

bool is_name(const char *name, size_t len)
{
    return len > 0 && len <= NAME_MAX && !memchr(name, '/', len) && !(len == 2 && memcmp(name, "..", 2) == 0);
}

/* The name ends with a NUL inside of the part. "." is the directory itself. */
bool read_entry(const struct info *info, struct fs_entry *out)
{
    if (!read_key(info, &out->dir) || out->dir.len == 0)
        return false;
    const char *name = out->dir.bytes + out->dir.len;
    const size_t room = static_cast<size_t>(info->bytes + info->size - name);
    const size_t len = strnlen(name, room);
    if (len == room || !is_name(name, len))
        return false;
    const bool itself = len == 1 && name[0] == '.';
    out->name = name;
    out->name_len = itself ? 0 : static_cast<uint32_t>(len);
    return true;
}

bool read_directory(const struct info *info, struct fs_entry *out)
{
    out->name = info->bytes;
    out->name_len = 0;
    return read_key(info, &out->dir) && out->dir.len > 0;
}

bool read_info(const struct info *info, struct fs_record *out)
{
    switch (info->type) {
        case INFO_OBJECT:
            return read_key(info, &out->object);
        case INFO_ENTRY:
        case INFO_OLD_ENTRY:
            return read_entry(info, &out->entry);
        case INFO_DIRECTORY:
            return read_directory(info, &out->entry);
        case INFO_NEW_ENTRY:
            return read_entry(info, &out->to);
        default:
            return true;
    }
}

bool read_all_info(const char *record, uint32_t at, uint32_t end, struct fs_record *out)
{
    struct info info;
    for (; at < end; at += info.size)
        if (!info_at(record, at, end, &info) || !read_info(&info, out))
            return false;
    return true;
}

/* All that one record names lies on one file system. */
bool agrees(const struct fs_record *record)
{
    const struct fs_key *first = record->entry.dir.len ? &record->entry.dir : &record->to.dir;
    return (!first->len || !record->object.len || fs_same_fsid(first->fsid, record->object.fsid)) &&
           (!record->to.dir.len || fs_same_fsid(first->fsid, record->to.dir.fsid));
}

}  // namespace

enum fs_cut fs_record_at(const char *buffer, size_t size, size_t at, struct fs_record *out)
{
    struct raw_fanotify raw;
    if (!fanotify_record_at(buffer, size, at, &raw))
        return FS_CUT_END;
    *out = {};
    out->mask = raw.mask;
    out->size = raw.event_len;
    out->pid = raw.pid;
    if (raw.vers != FANOTIFY_VERSION || raw.metadata_len < FANOTIFY_HEADER || raw.metadata_len > raw.event_len)
        return FS_CUT_SKIP;
    return read_all_info(buffer + at, raw.metadata_len, raw.event_len, out) && agrees(out) ? FS_CUT_RECORD
                                                                                           : FS_CUT_SKIP;
}
