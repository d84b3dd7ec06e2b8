/*
 * table.h: the census as look-ups use it: what is asked of it, and when it must be taken anew. No clock and no thread
 * of its own; who uses it locks it.
 */
#ifndef CONTAINER_TABLE_H
#define CONTAINER_TABLE_H

#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "census.h"

namespace container
{

class Table
{
public:
    /* Milliseconds. An id that is not known takes a new census, but no sooner after the last one's start than this. */
    static constexpr uint64_t kPause = 1000;
    /* What is known may be wrong by now: mounts go, and their ids come again. */
    static constexpr uint64_t kAge = 5000;

    enum class Advice { kNone, kRefresh };

    struct Answer {
        const Found *found = nullptr; /* null: the host's, or not known; good until the table is changed */
        Advice advice = Advice::kNone;
        bool unknown = false; /* what a census in progress may find is worth waiting for */
    };

    Answer find(uint64_t mount, uint64_t now_ms);

    /* The same for what is no mount: whether a new census may be taken for its sake. */
    bool may_refresh(uint64_t now_ms) const { return is_over(now_ms, kPause); }

    /* A census begins: ids that are not known wait for it or for the next. */
    void begin(uint64_t now_ms)
    {
        started_ms_ = now_ms;
        started_ = true;
    }

    /* Takes the place of what was known; `census` has the old one afterwards, whose release takes time. */
    void replace(Census &census);

    /* An id that even a new census does not know: the host's, until the next one knows more. */
    void give_up(uint64_t mount);

    /* A container's first process ended: its mounts are gone, or about to be somebody else's. */
    void end(std::string_view id, int pid);

    const Found *container(std::string_view id) const;

private:
    static constexpr size_t kMaxUnknown = 4096;

    bool is_over(uint64_t now_ms, uint64_t pause) const { return !started_ || now_ms - started_ms_ >= pause; }

    Census census_;
    std::vector<bool> ended_; /* by row of census_.containers */
    std::unordered_set<uint64_t> unknown_;
    uint64_t started_ms_ = 0;
    bool started_ = false;
};

}  // namespace container

#endif
