/*
 * experiment.h: what a kernel function is called with while this thread does something whose outcome it knows.
 */
#ifndef KPROBE_EXPERIMENT_H
#define KPROBE_EXPERIMENT_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "facts.h"

namespace kprobe
{

// The values of one hit.
using Values = std::vector<uint64_t>;

// An expression, and the type of what stands there: empty for a word.
struct Fetch {
    std::string place;
    const char *type;
};
using Fetches = std::vector<Fetch>;

// What one experiment fetches at most: the kernel takes 128 arguments, and 4 KiB of text.
inline constexpr size_t kMostFetches = 120;

// What the expressions were at each hit of `point` during `act`, in the order of their time; no hits also where the
// kernel refuses. A fetch that fails leaves an arbitrary value, so that one finding is no proof. `missed`, unless null:
// the hits that the kernel says it could not serve; unchanged where it refuses.
std::vector<Values> experiment(const Tracefs &tracefs, const char *point, const Fetches &fetches,
                               const std::function<void()> &act, uint64_t *missed = nullptr);

bool is_pointer(uint64_t value, const Facts &facts);

}  // namespace kprobe

#endif
