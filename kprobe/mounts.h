/*
 * mounts.h: the mount table, as far as it ties mount ids to devices.
 *
 * Probes see a file's super block, and of that only the device is the same on every kernel and in every mount name
 * space; the monitor speaks of mount ids. Pure functions over the text of /proc/self/mountinfo.
 */
#ifndef KPROBE_MOUNTS_H
#define KPROBE_MOUNTS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kprobe
{

struct Mount {
    int32_t id = 0;
    uint32_t device = 0;  // as the kernel keeps it: major << 20 | minor
    bool whole = false;   // shows its file system from its root
    std::string point;
};

std::vector<Mount> parse_mounts(std::string_view text);
std::vector<Mount> read_mounts();

// Which mount id stands for a device in the monitor's eyes.
class MountMap
{
public:
    // Forgets nothing of an earlier table: the monitor keeps the id of a mount point that was mounted anew.
    void refresh(std::vector<Mount> mounts);

    // 0: the id belongs to no mount, now or before.
    uint32_t device_of(int32_t id) const;

    // The lowest of the wanted ids with that device, else the lowest id of a whole mount, else the lowest. 0: none.
    int32_t id_of(uint32_t device) const;

    // From now on these ids are preferred.
    void want(const std::vector<int32_t> &ids);

    // A place where the device is mounted; null: none.
    const char *point_of(uint32_t device) const;

private:
    struct Wanted {
        int32_t id;
        uint32_t device;
    };
    std::vector<Mount> now_, before_;
    std::vector<Wanted> wanted_;
};

}  // namespace kprobe

#endif
