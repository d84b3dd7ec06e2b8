/*
 * mounts.h: the mount table, as far as `--mount` and the end of a watch need it.
 */
#ifndef AGENT_MOUNTS_H
#define AGENT_MOUNTS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace agent
{

struct Mount {
    uint64_t id = 0;
    std::string point; /* where it is mounted, "\040" and the like resolved */
    std::string type;
    bool whole_device = false; /* writable, from a device, from its root: what the monitor can mark */
    uint32_t device = 0;       /* the kernel's own number: major << 20 | minor */
};

/* One line of /proc/self/mountinfo; false when it is not one. */
bool parse_mount(std::string_view line, Mount &out);

/* All mounts, in the kernel's order; empty when the table cannot be read. */
std::vector<Mount> read_mounts(const char *table = "/proc/self/mountinfo");

/* Mount points below `path` (without itself) that can be marked. */
std::vector<std::string> markable_mounts_below(const std::vector<Mount> &mounts, const std::string &path);

}  // namespace agent

#endif
