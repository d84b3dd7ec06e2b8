/*
 * rename_pairs.h: the two halves of a rename as one event.
 *
 * The halves of one rename have one number. They come one right after the other, but between them a batch may end: then
 * its last event is held back for a moment. What comes apart otherwise, and what has no other half (a move into the
 * watched tree, or out of it), stays as it is.
 */
#ifndef AGENT_RENAME_PAIRS_H
#define AGENT_RENAME_PAIRS_H

#include <cstdint>
#include <map>
#include <utility>

#include "queue.h"

namespace agent
{

/* Not for more than one thread at a time. */
class RenamePairs
{
public:
    static constexpr uint64_t kPatienceMs = 20; /* for the second half */

    /* Puts what was held back before the batch, and holds its last event back where that is a first half. `last`: no
     * other batch comes. */
    void gather(Batch &batch, uint64_t now, bool last);
    /* When the wait for a second half ends; UINT64_MAX: none is waited for. */
    uint64_t due() const { return held_.empty() ? UINT64_MAX : due_; }

    /* The events of that batch are joined next. It must stay as it is until the next call. */
    void begin(const Batch &batch);
    /* A first half loses its kind, a second one is given its old path. */
    void join(Event &event) const;

private:
    using Name = std::pair<uint32_t, uint64_t>; /* of a rename: instance, number */
    struct Halves {
        size_t from = kNone, to = kNone; /* places in the batch */
    };
    static constexpr size_t kNone = SIZE_MAX, kSeveral = SIZE_MAX - 1;

    static void note(size_t &half, size_t place) { half = half == kNone ? place : kSeveral; }
    const Halves *find(const Event &event) const;
    bool ends_in_a_half(const Batch &batch) const;

    const Batch *batch_ = nullptr;
    std::map<Name, Halves> renames_;
    Batch held_;
    uint64_t due_ = 0;
};

}  // namespace agent

#endif
