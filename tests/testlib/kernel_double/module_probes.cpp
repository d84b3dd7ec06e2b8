#include "testlib/kernel_double/module_probes.h"

#include <cstring>

#include "linux/probe/fetch_text.h"
#include "linux/probe/inotify_probe.h"

namespace testlib
{

namespace
{

struct Row {
    const char *name, *point, *dentry64, *dentry32, *more64, *more32;
};
constexpr Row kRows[] = {
    {"Kc", "security_inode_create", "%si", "%dx", "", ""},
    {"Ku", "vfs_unlink", "%si", "%dx", "", ""},
    {"Km", "__fsnotify_parent", "%si", "%dx", " m=%dx:u32 f=+0(+48(%si)):u16", " m=%cx:u32 f=+0(+36(%dx)):u16"},
    {"Krf", "vfs_rename", "%si", "%dx", "", ""},
    {"Krt", "vfs_rename", "%cx", "+4(%sp)", "", ""},
    {"Kl", "vfs_link", "%di", "%ax", "", ""},
};

}  // namespace

kp_probe_def ModuleProbe::record() const
{
    kp_probe_def def = {};
    def.c0 = '0';
    def.kind = 'p';
    def.fetch.u = reinterpret_cast<uintptr_t>(fetch.c_str());
    def.filter.u = reinterpret_cast<uintptr_t>(filter.c_str());
    strncpy(def.point, point.c_str(), sizeof(def.point) - 1);
    strncpy(def.name, name.c_str(), sizeof(def.name) - 1);
    return def;
}

std::vector<ModuleProbe> file_probes(bool is_64, const std::string &filter, bool before_4_9)
{
    std::vector<ModuleProbe> probes;
    for (const Row &row : kRows) {
        char text[FETCH_TEXT_SIZE];
        fetch_text_make(is_64, is_64 ? 172 : 88, is_64 ? 192 : 108, is_64 ? row.dentry64 : row.dentry32, text);
        const bool old = before_4_9 && strcmp(row.name, "Kc") == 0;
        probes.push_back(
            {old ? "vfs_create" : row.point, row.name, std::string(text) + (is_64 ? row.more64 : row.more32), filter});
    }
    return probes;
}

ModuleProbe file_probe(bool is_64, const std::string &name, const std::string &filter)
{
    for (ModuleProbe &probe : file_probes(is_64, filter))
        if (probe.name == name)
            return probe;
    return {};
}

ModuleProbe inotify_probe_of(bool is_64, int major, int minor, const std::string &filter)
{
    kp_os_info kernel = {};
    kernel.major = static_cast<uint8_t>(major);
    kernel.minor = static_cast<uint8_t>(minor);
    kernel.arch = is_64 ? KP_ARCH_X86_64 : KP_ARCH_X86_32;
    int mode;
    const struct inotify_probe probe = inotify_probe_choose(&kernel, &mode);
    char text[INOTIFY_FETCH_SIZE];
    inotify_probe_fetch(&probe, mode, text);
    return {probe.point, "Ki", text, filter};
}

}  // namespace testlib
