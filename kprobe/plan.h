/*
 * plan.h: what the kernel is asked to fetch, and where it goes in the record that is handed on.
 */
#ifndef KPROBE_PLAN_H
#define KPROBE_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "definition.h"

namespace kprobe
{

// What the monitor's records look like.
inline constexpr uint32_t kFileRecord = 420, kAncestors = 11, kAncestorSize = 32, kLeafOffset = 356, kLeafSize = 64,
                          kInotifyHead = 16;

// A fetched argument's place in the record that is handed on. Shorter values are widened with zeros.
struct Piece {
    std::string arg;
    uint32_t to, size;
};

struct Plan {
    Shape shape = Shape::kOther;
    std::string point;
    std::vector<FetchArg> args;
    std::vector<Piece> pieces;
    uint32_t size = 0;          // of the record that is handed on
    bool by_device = false;     // the record's first word and the filter's "mnt" are devices in the kernel
    bool name_pointer = false;  // argument "z" says whether there is a name at all: a failed fetch leaves old bytes
    bool names_group = false;   // argument "g" says whose delivery it is, see groups.h
    bool needs_marks = false;   // the kernel calls this function only for file systems on which somebody has a mark

    // Fetches an argument, whose value stands at that place of the record.
    void add(const FetchArg &arg, uint32_t to, uint32_t bytes);
    // Arguments that follow each other in the record, `bytes` in all.
    void add_run(const std::vector<FetchArg> &run, uint32_t to, uint32_t bytes);

    // "p:GROUP/NAME POINT ARGS"
    std::string command(const std::string &group, const std::string &name) const;
};

}  // namespace kprobe

#endif
