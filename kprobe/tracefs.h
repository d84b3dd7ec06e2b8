/*
 * tracefs.h: the kernel's control files for dynamic probes.
 *
 * Definitions live in the kernel until they are deleted, whoever made them. Ours stand in groups whose names hold their
 * process, so that those of a process that died can be found, see owner_of_group().
 */
#ifndef KPROBE_TRACEFS_H
#define KPROBE_TRACEFS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kprobe
{

// Who made a group of definitions: process id and its start time, since ids are used again.
struct Owner {
    int pid = 0;
    uint64_t started = 0;  // clock ticks after boot; 0: not known
};

Owner current_owner();
bool is_alive(const Owner &owner);

// "orx_PID_START_SERIAL_NAME", with what is no letter or digit of the name replaced.
std::string group_name(const Owner &owner, unsigned serial, std::string_view name);
// False: not one of our groups.
bool owner_of_group(std::string_view group, Owner &out);

// One argument's bytes in the raw record.
struct RawField {
    std::string name;
    uint32_t offset = 0, size = 0;
};
// The arguments that a format file names, without the fields that every record has.
std::vector<RawField> parse_format(std::string_view text);

// The last reason in the kernel's error log, such as "Argument expression is too long"; empty: none.
std::string last_error(std::string_view log);

class Tracefs
{
public:
    // False with a reason in words for a person.
    bool find(std::string &why);

    // Adds or deletes definitions; 0 or a negative errno with the kernel's own words.
    int define(const std::string &command, std::string &why) const;
    int remove(const std::string &group, const std::string &event) const;

    // Negative: there is no such event.
    int event_id(const std::string &group, const std::string &event) const;
    std::vector<RawField> format(const std::string &group, const std::string &event) const;

    // The process that watches these control files with fanotify; 0: none that can be seen.
    int watcher() const;

    // The kernel's words for a filter that perf refused; the trial has no effect. It opens a file that must not be open
    // when the probe is deleted, see fanotify_marks.h: on older kernels only while nobody watches.
    std::string filter_error(const std::string &group, const std::string &event, const std::string &filter) const;

    // Hits of a probe that the kernel could not serve.
    uint64_t missed(const std::string &event) const;

    // Deletes what dead processes left. Returns how many definitions went.
    int remove_orphans() const;

    bool knows_arrays() const;

private:
    std::string file(const std::string &name) const { return root_ + "/" + name; }
    std::string event_file(const std::string &group, const std::string &event, const char *name) const;

    std::string root_;
};

// Whole small files; empty when they cannot be read.
std::string read_file(const std::string &path);
// 0 or a negative errno. One write: the control files take a command each.
int write_file(const std::string &path, const std::string &text, bool append);

}  // namespace kprobe

#endif
