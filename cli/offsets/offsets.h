/*
 * offsets.h: the section of fmon.ini from which the monitor knows where a kernel's structures keep its mounts.
 */
#ifndef CLI_OFFSETS_H
#define CLI_OFFSETS_H

#include <string>
#include <string_view>

namespace cli
{

/* The keys of a section, in bytes. */
struct Offsets {
    int s_mounts = 0; /* in a super block: its mounts */
    int mnt_id = 0;   /* from what that leads to: the mount's id */
    bool operator==(const Offsets &) const = default;
};

/* Machines that the monitor has probes for, by the name that uname -m gives. */
bool is_known_machine(std::string_view machine);

/* "6.1.0-37-x86_64", as the monitor names its section for the kernel; empty: it understands the release or the machine
 * not at all. Like it, a number that is too large for its place is cut off. */
std::string section_name(const std::string &release, std::string_view machine);

/* From `types`, the kernel's description of them. `machine` becomes x86_64 or i686, by their width. False: `error` is a
 * part of a sentence. */
bool find_offsets(std::string types, Offsets &out, std::string &machine, std::string &error);

/* Three lines for fmon.ini. */
std::string section_text(const std::string &name, const Offsets &offsets);

/* The description of the kernel that runs. */
inline constexpr char kRunningBtf[] = "/sys/kernel/btf/vmlinux";

}  // namespace cli

#endif
