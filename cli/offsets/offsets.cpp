#include "offsets.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "kprobe/btf.h"

namespace cli
{

namespace
{

constexpr std::string_view kMachines[] = {"x86_64", "i386", "i686"};
constexpr int kMaxOffset = 4096; /* far beyond both structures */

// Reads a number and the separator behind it (0: none is asked for), as lenient as the monitor does.
bool take_number(const char **pos, char separator, long *out)
{
    char *end;
    *out = strtol(*pos, &end, 10);
    if (end == *pos || (separator && *end != separator))
        return false;
    *pos = separator ? end + 1 : end;
    return true;
}

// Up to 6.17 a super block has a list of its mounts, which leads into their middle; since then a pointer to the first.
bool offsets_of(const kprobe::Btf &btf, Offsets &out)
{
    const auto s_mounts = btf.offset("super_block", "s_mounts"), mnt_id = btf.offset("mount", "mnt_id");
    if (!s_mounts || !mnt_id)
        return false;
    out = {*s_mounts, *mnt_id};
    if (btf.offset("super_block", "s_mounts.next")) {
        const auto link = btf.offset("mount", "mnt_instance");
        if (!link || *link > *mnt_id)
            return false;
        out.mnt_id -= *link;
    } else if (!btf.is_pointer_to("super_block", "s_mounts", "mount")) {
        return false;
    }
    return std::max(out.s_mounts, out.mnt_id) < kMaxOffset;
}

}  // namespace

bool is_known_machine(std::string_view machine)
{
    return std::find(std::begin(kMachines), std::end(kMachines), machine) != std::end(kMachines);
}

std::string section_name(const std::string &release, std::string_view machine)
{
    long major, minor, patch, build;
    const char *pos = release.c_str();
    if (!is_known_machine(machine) || !take_number(&pos, '.', &major) || !take_number(&pos, '.', &minor) ||
        !take_number(&pos, '-', &patch) || !take_number(&pos, '\0', &build))
        return {};
    return std::to_string(static_cast<uint8_t>(major)) + "." + std::to_string(static_cast<uint8_t>(minor)) + "." +
           std::to_string(static_cast<uint8_t>(patch)) + "-" + std::to_string(static_cast<int32_t>(build)) + "-" +
           std::string(machine);
}

bool find_offsets(std::string types, Offsets &out, std::string &machine, std::string &error)
{
    const kprobe::Btf btf(std::move(types));
    if (!btf.valid()) {
        error = "its description of the kernel's types (BTF) is truncated or damaged";
        return false;
    }
    if (!offsets_of(btf, out)) {
        error =
            "its description of types (BTF) is not that of a kernel, or of one whose mounts are kept in another way";
        return false;
    }
    machine = btf.offset("list_head", "prev") == 4 ? "i686" : "x86_64";
    return true;
}

std::string section_text(const std::string &name, const Offsets &offsets)
{
    return "[" + name + "]\ns_mounts_offset = " + std::to_string(offsets.s_mounts) +
           "\nmnt_id_offset = " + std::to_string(offsets.mnt_id) + "\n";
}

}  // namespace cli
