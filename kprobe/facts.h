/*
 * facts.h: what the running kernel is like, as far as probes depend on it: found by looking, not by its version.
 */
#ifndef KPROBE_FACTS_H
#define KPROBE_FACTS_H

#include <cstdint>
#include <set>
#include <string>

namespace kprobe
{

class Btf;
class Tracefs;

inline constexpr int kUnknown = -1;

// Offsets in bytes.
struct DentryLayout {
    int parent = kUnknown, name = kUnknown, inode = kUnknown, super = kUnknown, inline_name = kUnknown;
    int s_dev = kUnknown;                     // in the super block
    int i_mode = kUnknown, i_ino = kUnknown;  // in the inode
    bool complete() const { return lacking().empty(); }
    // What is not known and must be, in words for a person.
    std::string lacking() const;
};

// From an inotify mark to the watched inode.
struct MarkLayout {
    int wd = kUnknown, connector = kUnknown, object = kUnknown;
    int inode_back = kUnknown;  // from what `object` points to back to the beginning of the inode
    int group = kUnknown;       // the inotify instance that the mark belongs to
    int file_group = kUnknown;  // the same in the open file of an inotify descriptor
    bool complete() const
    {
        return wd >= 0 && connector >= 0 && object >= 0 && inode_back >= 0 && group >= 0 && file_group >= 0;
    }
};

struct Facts {
    bool is_64 = true;
    uint8_t major = 0, minor = 0, patch = 0;
    bool arrays = true;                            // a fetch argument may be an array
    bool new_parent = true;                        // __fsnotify_parent begins with the entry (earlier: with its path)
    bool faults_are_misses = false;                // calibrate.h's counts_failed_fetches(); not gathered here
    std::set<std::string, std::less<>> functions;  // of those that matter, the ones that are there
    DentryLayout dentry;
    MarkLayout mark;

    // Whether a probe may be deleted while one of its control files is open: before, the kernel may crash.
    bool deletes_safely() const { return major > 6 || (major == 6 && minor >= 7); }
    size_t word() const { return is_64 ? 8 : 4; }
    bool has(std::string_view function) const { return functions.find(function) != functions.end(); }
};

// MAJOR.MINOR[.PATCH] and anything behind it. False: another text. Numbers beyond a byte become 255.
bool parse_release(const char *release, Facts &out);

// Offsets and functions from the kernel's type information.
void facts_from_btf(const Btf &btf, Facts &out);

// The functions that matter, from lines "ADDRESS TYPE NAME[ MODULE]"; a module's do not count.
void functions_from_symbols(std::string_view lines, Facts &out);

// All of it. False with a reason in words for a person.
bool gather_facts(const Tracefs &tracefs, Facts &out, std::string &why);

}  // namespace kprobe

#endif
