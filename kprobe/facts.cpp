#include "facts.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "btf.h"
#include "calibrate.h"
#include "log.h"
#include "tracefs.h"

namespace kprobe
{

namespace
{

// Functions whose presence decides how a probe is placed.
constexpr std::string_view kFunctions[] = {
    "security_inode_create",
    "security_inode_unlink",
    "security_inode_rename",
    "security_inode_link",
    "security_inode_getattr",
    "d_move",
    "vfs_create",
    "vfs_unlink",
    "vfs_rename",
    "vfs_link",
    "__fsnotify_parent",
    "inotify_handle_event",
    "fsnotify_add_event",
    "fsnotify_add_notify_event",
    "inotify_handle_inode_event",
};

bool matters(std::string_view function)
{
    return std::find(std::begin(kFunctions), std::end(kFunctions), function) != std::end(kFunctions);
}

int offset_or_unknown(const Btf &btf, const char *structure, const char *member)
{
    return btf.offset(structure, member).value_or(kUnknown);
}

DentryLayout dentry_layout(const Btf &btf)
{
    DentryLayout at;
    at.parent = offset_or_unknown(btf, "dentry", "d_parent");
    at.name = offset_or_unknown(btf, "dentry", "d_name.name");
    at.inode = offset_or_unknown(btf, "dentry", "d_inode");
    at.super = offset_or_unknown(btf, "dentry", "d_sb");
    at.inline_name = offset_or_unknown(btf, "dentry", "d_iname");
    if (at.inline_name < 0)
        at.inline_name = offset_or_unknown(btf, "dentry", "d_shortname");  // its name since 6.12.? kernels
    at.s_dev = offset_or_unknown(btf, "super_block", "s_dev");
    at.i_mode = offset_or_unknown(btf, "inode", "i_mode");
    at.i_ino = offset_or_unknown(btf, "inode", "i_ino");
    return at;
}

MarkLayout mark_layout(const Btf &btf)
{
    MarkLayout at;
    at.wd = offset_or_unknown(btf, "inotify_inode_mark", "wd");
    at.connector = offset_or_unknown(btf, "fsnotify_mark", "connector");
    at.object = offset_or_unknown(btf, "fsnotify_mark_connector", "obj");
    at.group = offset_or_unknown(btf, "fsnotify_mark", "group");
    at.file_group = offset_or_unknown(btf, "file", "private_data");
    // Either the object itself or the place in it where the object points back to the connector.
    at.inode_back =
        btf.is_void_pointer("fsnotify_mark_connector", "obj") ? 0 : offset_or_unknown(btf, "inode", "i_fsnotify_marks");
    return at;
}

uint8_t clamp(unsigned long n) { return static_cast<uint8_t>(std::min(n, 255UL)); }

}  // namespace

std::string DentryLayout::lacking() const
{
    const struct {
        int offset;
        const char *what;
    } rows[] = {{parent, "an entry's directory"}, {name, "an entry's name"},  {inline_name, "short names"},
                {inode, "an entry's inode"},      {super, "its file system"}, {s_dev, "a file system's device"},
                {i_mode, "an inode's file type"}};
    std::string text;
    for (const auto &row : rows)
        if (row.offset < 0)
            text += (text.empty() ? "" : ", ") + std::string(row.what);
    return text;
}

bool parse_release(const char *release, Facts &out)
{
    char *end;
    out.major = clamp(strtoul(release, &end, 10));
    if (end == release || *end != '.')
        return false;
    const char *minor = end + 1;
    out.minor = clamp(strtoul(minor, &end, 10));
    if (end == minor)
        return false;
    out.patch = *end == '.' ? clamp(strtoul(end + 1, nullptr, 10)) : 0;
    return true;
}

void facts_from_btf(const Btf &btf, Facts &out)
{
    btf.each_function([&](std::string_view name) {
        if (matters(name))
            out.functions.emplace(name);
    });
    out.dentry = dentry_layout(btf);
    out.mark = mark_layout(btf);
    out.new_parent = btf.argument_of_type("__fsnotify_parent", "dentry") == 1;
}

void functions_from_symbols(std::string_view lines, Facts &out)
{
    while (!lines.empty()) {
        const size_t end = std::min(lines.find('\n'), lines.size());
        const std::string_view line = lines.substr(0, end), name = line.substr(line.rfind(' ') + 1);
        if (matters(name))  // a module's line ends with the module's name
            out.functions.emplace(name);
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
}

bool gather_facts(const Tracefs &tracefs, Facts &out, std::string &why)
{
    utsname name;
    if (uname(&name) < 0 || !parse_release(name.release, out)) {
        why = "the kernel's release cannot be read";
        return false;
    }
    out.is_64 = strcmp(name.machine, "x86_64") == 0;
    const bool is_32 = name.machine[0] == 'i' && strcmp(name.machine + 2, "86") == 0;
    if (!out.is_64 && !is_32) {
        why = std::string("kernel probes are known for x86 only, not for ") + name.machine;
        return false;
    }
    out.arrays = tracefs.knows_arrays();
    const Btf btf(read_file("/sys/kernel/btf/vmlinux"));
    if (btf.valid()) {
        facts_from_btf(btf, out);
        return true;
    }
    functions_from_symbols(read_file("/proc/kallsyms"), out);
    out.new_parent = out.has("inotify_handle_inode_event");  // both came with the same kernel
    calibrate(tracefs, out);
    return true;
}

}  // namespace kprobe
