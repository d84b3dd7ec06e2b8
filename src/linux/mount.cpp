#include "linux/mount.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "checked.h"
#include "linux/fmon_linux.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "linux/mount.c";
constexpr char kSeparators[] = " \t";

enum { LINE_SIZE = 512, OPTION_READ_ONLY = 0x1, DEVICE_MODE = 0x6000 };

/* Mount options that an entry remembers, with the kernel's MS_* bits. */
const struct {
    const char *name;
    uint32_t flag;
} opt_map[8] = {
    {"ro", OPTION_READ_ONLY}, {"nosuid", 0x2},       {"nodev", 0x4},         {"noexec", 0x8},
    {"noatime", 0x400},       {"nodiratime", 0x800}, {"relatime", 0x200000}, {"lazytime", 0x2000000},
};

/* The list read last and how many entries it holds. */
list_head *mounts;
int32_t mount_count;

/* The fields of one line that matter; they point into the line. */
struct mount_line {
    const char *id, *root, *mount, *fs, *dev;
    uint32_t flags;
};

struct mount_entry *entry_of(list_head *node) { return FMON_RECORD(node, struct mount_entry, link); }

/* ---- one line ---- */

/* The field behind `skip` others, cut out of the line; null at its end. The cursor moves behind it. */
char *next_field(char **cursor, int skip)
{
    char *at = *cursor + strspn(*cursor, kSeparators);
    for (; skip > 0; skip--) {
        at += strcspn(at, kSeparators);
        at += strspn(at, kSeparators);
    }
    char *end = at + strcspn(at, kSeparators);
    *cursor = *end ? end + 1 : end;
    *end = '\0';
    return *at ? at : nullptr;
}

uint32_t option_flag(const char *name)
{
    for (const auto &row : opt_map) {
        if (strcmp(row.name, name) == 0)
            return row.flag;
    }
    return 0;
}

uint32_t options_flags(char *options)
{
    uint32_t flags = 0;
    while (char *name = strsep(&options, ","))
        flags |= option_flag(name);
    return flags;
}

/* Optional fields lie before the separator, in any number. */
bool skip_optional_fields(char **cursor)
{
    while (const char *field = next_field(cursor, 0)) {
        if (strcmp(field, "-") == 0)
            return true;
    }
    return false;
}

bool split_line(char *text, struct mount_line *line)
{
    line->id = next_field(&text, 0);
    line->root = next_field(&text, 2);
    line->mount = next_field(&text, 0);
    char *options = next_field(&text, 0);
    if (!options)
        return false;
    line->flags = options_flags(options);
    if (!skip_optional_fields(&text))
        return false;
    line->fs = next_field(&text, 0);
    line->dev = next_field(&text, 0);
    return line->fs && line->dev;
}

/* The two mode bits are set for block and character devices, and for directories and sockets too; sources of that kind
 * are accepted as devices. */
bool is_device(const char *source)
{
    struct stat st;
    return source[0] == '/' && stat(source, &st) == 0 && (st.st_mode & DEVICE_MODE) != 0;
}

/* Bind mounts of a subdirectory have another root, pseudo file systems have no device. */
bool is_wanted(const struct mount_line &line)
{
    return strcmp(line.root, "/") == 0 && !(line.flags & OPTION_READ_ONLY) && is_device(line.dev);
}

/* ---- entries ---- */

/* An entry stands for a mount point or a mount id: a mount that was replaced keeps its entry with the id first seen,
 * because marks and watches hang on it. */
struct mount_entry *find_entry(list_head *list, const char *mount, int32_t mnt_id)
{
    FMON_LIST_EACH (node, list) {
        struct mount_entry *entry = entry_of(node);
        if (entry->mnt_id == mnt_id || strcmp(entry->mount, mount) == 0)
            return entry;
    }
    return nullptr;
}

char *copy_text(const char *text)
{
    const size_t size = strlen(text) + 1;
    char *copy = static_cast<char *>(malloc(size));
    return copy ? static_cast<char *>(memcpy(copy, text, size)) : nullptr;
}

void free_links(list_head *watches)
{
    FMON_LIST_EACH_SAFE (node, watches) {
        list_unlink(node);
        free(FMON_RECORD(node, struct mount_link, link));
    }
}

void free_entry(struct mount_entry *entry)
{
    free_links(&entry->watches);
    free(entry->fs);
    free(entry->dev);
    free(entry->mount);
    free(entry);
}

/* Null when memory runs out. */
struct mount_entry *make_entry(const struct mount_line &line, int32_t mnt_id)
{
    auto *entry = static_cast<struct mount_entry *>(calloc(1, sizeof(struct mount_entry)));
    if (!entry)
        return nullptr;
    list_init(&entry->watches);
    entry->fs = copy_text(line.fs);
    entry->dev = copy_text(line.dev);
    entry->mount = copy_text(line.mount);
    entry->flags = line.flags;
    entry->block_dev = 1;
    entry->mnt_id = mnt_id;
    if (entry->fs && entry->dev && entry->mount)
        return entry;
    free_entry(entry);
    return nullptr;
}

void append_entry(list_head *list, const struct mount_line &line, int32_t mnt_id)
{
    struct mount_entry *entry = make_entry(line, mnt_id);
    if (!entry)
        return;
    FMON_LOG(3, kFile, "parse_mnt fs:%s, dev:%s, mount:%s, flags:%d, block_dev:%d, mnt_id:%d", entry->fs, entry->dev,
             entry->mount, static_cast<int>(entry->flags), static_cast<int>(entry->block_dev), entry->mnt_id);
    mount_count = checked_add(mount_count, 1);
    list_add_tail(&entry->link, list);
}

/* ---- the list ---- */

/* Counting again here keeps the number true to the list whatever happened to it between two reads. */
void remember(list_head *list)
{
    if (!list->next)
        list_init(list);
    mounts = list;
    mount_count = 0;
    FMON_LIST_EACH (node, list) {
        entry_of(node)->stale = 1;
        mount_count = checked_add(mount_count, 1);
    }
}

void remove_stale(list_head *list)
{
    FMON_LIST_EACH_SAFE (node, list) {
        struct mount_entry *entry = entry_of(node);
        if (!entry->stale)
            continue;
        list_unlink(node);
        free_entry(entry);
        mount_count = checked_sub(mount_count, 1);
    }
}

/* Writes at most `room` ids and returns how many. */
int32_t collect_ids(int32_t *ids, int32_t room)
{
    int32_t written = 0;
    FMON_LIST_EACH (node, &fmlnx.mounts) {
        if (written == room)
            break;
        ids[written] = entry_of(node)->mnt_id;
        written = checked_add(written, 1);
    }
    return written;
}

}  // namespace

void mount_parse_line(char *text, list_head *list)
{
    struct mount_line line;
    if (!split_line(text, &line) || !is_wanted(line))
        return;
    const auto mnt_id = static_cast<int32_t>(strtol(line.id, nullptr, 0));
    if (struct mount_entry *known = find_entry(list, line.mount, mnt_id))
        known->stale = 0;
    else
        append_entry(list, line, mnt_id);
}

int get_mountinfo(list_head *list)
{
    remember(list);
    FILE *file = fopen("/proc/self/mountinfo", "re");
    if (!file)
        return -1;
    /* A line that does not fit is parsed in pieces; a piece that looks like a line of its own counts as one. */
    char line[LINE_SIZE];
    while (fgets(line, sizeof(line), file))
        mount_parse_line(line, list);
    fclose(file);
    remove_stale(list);
    return 0;
}

int get_global_mnt(int32_t **out)
{
    get_mountinfo(&fmlnx.mounts);
    if (!out)
        return 0;
    *out = nullptr;
    if (mount_count == 0)
        return 0;
    const int bytes = checked_mul(mount_count, static_cast<int>(sizeof(int32_t)));
    auto *ids = static_cast<int32_t *>(malloc(static_cast<size_t>(bytes)));
    if (!ids) {
        FMON_LOG(1, kFile, "get_global_mnt malloc failed, s_mnt_num:%d", mount_count);
        return 0;
    }
    *out = ids;
    return collect_ids(ids, mount_count);
}

const char *search_mnt(int32_t mnt_id)
{
    if (mnt_id < 1 || !mounts)
        return nullptr;
    FMON_LIST_EACH (node, mounts) {
        if (entry_of(node)->mnt_id == mnt_id)
            return entry_of(node)->mount;
    }
    return nullptr;
}

void mount_release(list_head *list)
{
    FMON_LIST_EACH_SAFE (node, list) {
        list_unlink(node);
        free_entry(entry_of(node));
    }
    list_init(list);
    if (mounts == list) {
        mounts = nullptr;
        mount_count = 0;
    }
}
