/*
 * found.h: what was made in a new directory before the directory was marked, and so is in no record.
 *
 * A directory is looked into once: when its creation has been shown and it is marked, whichever comes later. What is
 * in it then was made before the mark, or has a record of its own that is still on its way. The former is reported as
 * found. Which is which is not known yet, so all is reported but what has a record in the batch that is being shown,
 * and the creation is taken off the record that comes later.
 *
 * Whole paths are kept: with hashes of them, who can choose names could have a creation taken for another. They are
 * forgotten after some time, when there are too many, and below a directory that went to another name.
 */
#ifndef AGENT_FOUND_H
#define AGENT_FOUND_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "common/mutex.h"
#include "queue.h"

namespace agent
{

/* Paths of some time. Not for more than one thread at a time. */
class RecentPaths
{
public:
    static constexpr size_t kMost = 1 << 17; /* that are kept at least */

    void add(std::string_view path);
    bool has(std::string_view path) const;
    bool take(std::string_view path); /* whether it was there */
    void forget_below(std::string_view directory);
    void age(); /* what was there at the call before as well is forgotten */
    void clear();

private:
    using Paths = std::set<std::string, std::less<>>; /* in order: what lies below a directory stands together */
    static bool take_out(Paths &paths, std::string_view path);

    Paths now_, before_;
};

class Found
{
public:
    using Tell = std::function<void(const Event &event)>;

    /* `complete` marks what is in the directories that are marked by now. Only then is one of them looked into: what is
     * found there and is not marked has a record of its own, which may be on its way before it is shown. */
    explicit Found(std::function<void()> complete = [] {}) : complete_(std::move(complete)) {}

    /* That directory is marked from now on, and was not before. Any thread; all else is for the session's. */
    void marked(std::string_view path);

    /* The events of that batch are shown next. It must stay as it is until the next call. */
    void begin(const Batch &batch);

    /* The kinds of the event without a creation that was reported as found. */
    uint32_t news(const Event &event);

    /* After the event was shown: reports what is found where it is the creation of a directory. */
    void shown(const Event &event, const Tell &tell);

    void look();  /* regularly, some seconds apart: forgets what is long ago */
    void clear(); /* records were lost: what was reported may not have come and may not come */

private:
    static constexpr unsigned kLooks = 16; /* between two times of forgetting */

    bool take_marked(std::string_view path);
    void look_into(const std::string &top, const Event &creation, const Tell &tell);
    bool has_record(std::string_view path);

    const std::function<void()> complete_;
    const Batch *batch_ = nullptr;
    std::set<std::string_view> in_batch_; /* what appears by the batch's own records */
    bool indexed_ = false;                /* in_batch_ is that of the batch */
    unsigned looks_ = 0;
    RecentPaths told_;
    common::Mutex lock_;
    RecentPaths marked_ GUARDED_BY(lock_); /* and not looked into */
};

}  // namespace agent

#endif
