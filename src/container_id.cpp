/*
 * The id of a process's container, which engines make part of the name of its control group.
 */
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "container_tool_utils.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "container_tool_utils";
constexpr char kHost[] = "host";
constexpr char kHexDigits[] = "0123456789abcdefABCDEF";

/* A longer line is read in pieces, each of which counts as a line. */
enum { LINE_SIZE = 256, MAX_LINES = 5, ID_LENGTH = 64 };

/* How a control group's name holds the id: right after the last prefix, and ended by the last suffix. An empty text
 * stands for the end of the name. The first row that fits wins. */
constexpr struct {
    const char *prefix, *suffix;
} kPatterns[] = {
    {"/", ""},
    {"/docker-", ".scope"},
    {"/cri-containerd-", ".scope"},
    {"cri-containerd:", ""},
};

const char *find_last(const char *text, const char *part)
{
    const char *end = text + strlen(text);
    if (!*part)
        return end;
    const char *last = nullptr;
    for (const char *found = text; (found = strstr(found, part)); found++)
        last = found;
    return last;
}

/* Null: no row fits. */
const char *find_id(const char *group)
{
    for (const auto &pattern : kPatterns) {
        const char *prefix = find_last(group, pattern.prefix), *end = find_last(group, pattern.suffix);
        if (!prefix || !end)
            continue;
        const char *id = prefix + strlen(pattern.prefix);
        if (end - id == ID_LENGTH && strspn(id, kHexDigits) >= ID_LENGTH)
            return id;
    }
    return nullptr;
}

/* The third field of a "number:controllers:group" line; null: it has none. */
const char *group_of(const char *line)
{
    const char *colon = strchr(line, ':');
    colon = colon ? strchr(colon + 1, ':') : nullptr;
    return colon ? colon + 1 : nullptr;
}

/* The last byte goes whether it is a newline or not: what ends a file without one loses a digit, and names no
 * container. The kernel's lines always end in one. */
void cut_last_byte(char *line)
{
    const size_t length = strlen(line);
    if (length > 0)
        line[length - 1] = '\0';
}

/* Leaves `out` alone when there is no id. `size` is not 0. */
void read_id(FILE *groups, char *out, size_t size)
{
    char line[LINE_SIZE];
    for (int i = 0; i < MAX_LINES && fgets(line, sizeof(line), groups); i++) {
        cut_last_byte(line);
        const char *group = group_of(line);
        const char *id = group ? find_id(group) : nullptr;
        if (!id)
            continue;
        const size_t length = std::min<size_t>(size - 1, ID_LENGTH);
        memcpy(out, id, length);
        out[length] = '\0';
        return;
    }
}

}  // namespace

int read_container_id(int pid, char *out, int out_size)
{
    const size_t size = out && out_size > 0 ? static_cast<size_t>(out_size) : 0;
    if (size > 0)
        out[0] = '\0';
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task/%d/cgroup", pid, pid);
    FILE *groups = fopen(path, "re");
    if (!groups) {
        FMON_LOG(1, kFile, "open cgroup: %d failed, path:%s\n", pid, path);
        return -1;
    }
    if (size > 0)
        read_id(groups, out, size);
    fclose(groups);
    if (size >= sizeof(kHost) && !out[0]) {
        FMON_LOG(4, kFile, "read_container_id  is null, set container_id is host");
        memcpy(out, kHost, sizeof(kHost));
    }
    return 0;
}
