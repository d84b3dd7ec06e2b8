/*
 * definition.h: probe definitions as the monitor hands them over, taken apart.
 *
 * A fetch text is a list of NAME=PLACE[:TYPE], where "+O(P)" is the word at O bytes behind what P points to. Pure
 * functions over text: nothing here knows the running kernel.
 */
#ifndef KPROBE_DEFINITION_H
#define KPROBE_DEFINITION_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kp_thread_utils.h"

namespace kprobe
{

struct FetchArg {
    std::string name, place, type;  // the type may be empty: a word of the kernel
};

// What a record is for the monitor, as its field names say.
enum class Shape {
    kOther,    // anything: handed on as fetched
    kFile,     // mount id, eleven ancestors, own name: 420 bytes, and what else was asked for
    kInotify,  // inode, watch descriptor, mask, name
};

struct Definition {
    char kind = 'p';
    std::string point, name, filter;
    bool on = false;  // from the start: the monitor's inotify source never switches its probe on
    std::vector<FetchArg> args;
    Shape shape = Shape::kOther;
    std::string dentry;          // kFile: where the function has the reported entry
    std::vector<FetchArg> more;  // kFile: fetched behind the fixed fields
};

// Longer texts do not reach the kernel: it takes no more in one write.
inline constexpr size_t kMaxFetch = 4000, kMaxFilter = 4000;

// False: the record is no definition that can be understood.
bool parse_definition(const kp_probe_def &record, Definition &out);

bool parse_fetch(std::string_view text, std::vector<FetchArg> &out);

// Bytes of one value; 0: a type that the monitor's records cannot hold. `word` is the kernel's word.
size_t type_size(std::string_view type, size_t word);

// A name that may stand in a tracefs path.
bool is_identifier(std::string_view text);

}  // namespace kprobe

#endif
