/*
 * mounts.h: the mount table, as far as it ties mount ids to devices.
 *
 * Probes see a file's super block, and of that only the device is the same on every kernel and in every mount name
 * space; the monitor speaks of mount ids. Pure functions over the text of /proc/self/mountinfo.
 */
#ifndef KPROBE_MOUNTS_H
#define KPROBE_MOUNTS_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
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

// Which mount id stands for a device in the monitor's eyes: a table, since each record asks, whatever is mounted.
class MountMap
{
public:
    // Forgets nothing of an earlier table: the monitor keeps the id of a mount point that was mounted anew.
    void refresh(const std::vector<Mount> &mounts);

    // 0: the id belongs to no mount, now or before.
    uint32_t device_of(int32_t id) const;

    // The lowest of the wanted ids with that device, else the lowest id of a whole mount, else the lowest. 0: none.
    int32_t id_of(uint32_t device) const;

    // From now on these ids are preferred.
    void want(const std::vector<int32_t> &ids);

    // A place where the device is mounted; null: none.
    const char *point_of(uint32_t device) const;

private:
    struct Device {
        int32_t any = 0, whole = 0;  // lowest ids
        std::string point;           // of the first
    };
    struct Present {
        uint32_t device;
        std::string point;
    };
    struct Tables {
        std::unordered_map<int32_t, Present> ids;
        std::unordered_map<uint32_t, Device> devices;
        std::unordered_map<std::string, uint32_t> points;  // the device that is on top there
    };
    void remember(const Tables &next);

    Tables now_;
    std::unordered_map<int32_t, std::string> before_;  // where mounts were that are gone
    std::deque<int32_t> went_;                         // their ids, in the order in which they went
    std::vector<int32_t> wanted_;
    std::unordered_map<uint32_t, int32_t> wanted_of_;  // the lowest of each device
};

}  // namespace kprobe

#endif
