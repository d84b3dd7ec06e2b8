/*
 * places.h: where things are in the running kernel: the functions to probe, their arguments, and what lies behind
 * these, as expressions that the kernel understands.
 */
#ifndef KPROBE_PLACES_H
#define KPROBE_PLACES_H

#include <cstdint>
#include <string>
#include <vector>

#include "definition.h"
#include "facts.h"

namespace kprobe
{

// Where the n-th argument of a kernel function is at its entry (from 1).
std::string argument_place(const Facts &facts, int n);

// The word at `offset` bytes behind what `inner` points to.
std::string deref(int offset, const std::string &inner);

// The kernel takes no longer expression (what stands behind "=", its type included).
inline constexpr size_t kMaxExpression = 63;
bool fits(const FetchArg &arg);

// How `size` bytes at a place are fetched: as one array, in words of eight bytes, or in the kernel's words.
enum class Grain { kArray, kEight, kWord };

// Fetches `size` bytes behind `inner`, from `offset` on. False: some expression is too long, or the kernel has no
// arrays.
bool fetch_bytes(const Facts &facts, Grain grain, const std::string &name, int offset, const std::string &inner,
                 uint32_t size, std::vector<FetchArg> &args);

// The function to probe and which of its arguments (from 1) is the entry.
struct Target {
    const char *point;
    int argument;
};

// For a definition of a file record. Null: this kernel has none of the functions that would show it.
const Target *find_target(const Definition &def, const Facts &facts);

}  // namespace kprobe

#endif
