/*
 * selection.h: which of the delivered events are shown: by kind, by depth, by path, by who caused them.
 */
#ifndef OUTPUT_SELECTION_H
#define OUTPUT_SELECTION_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/plan.h"
#include "agent/queue.h"
#include "event_filter.h"

namespace output
{

class Selection
{
public:
    /* `max_depth`: levels below a root whose events are shown; 0: no limit. */
    explicit Selection(uint32_t max_depth) : max_depth_(max_depth) {}

    /* False: `error` is one line that names the option. To be called once, or not at all. */
    bool set_filter(const FilterOptions &options, std::string &error);
    void set_plan(const agent::Plan &plan);
    /* One more path from which depths are counted. */
    void add_root(const std::string &path);
    /* Events of that very path are not shown. */
    void hide(const std::string &path) { filter_.hide(path); }
    /* An event of which no process is known is never shown. */
    bool wants_known_process() const { return filter_.wants_known_process(); }

    /* The kinds of the event that are shown; 0: it is not. A rename is when either of its paths is to be shown. */
    uint32_t shown_kinds(const agent::Event &event) const;
    /* Leaves the event the kinds that are shown, and takes the kernel's mark of a deleted file off its path, which lies
     * in `storage` then. False: it is not shown. */
    bool narrow(agent::Event &event, std::string &storage) const;

private:
    bool is_within_depth(std::string_view path) const;
    bool is_spared(std::string_view path) const;
    bool shows(std::string_view path) const
    {
        return !is_spared(path) && is_within_depth(path) && filter_.shows_path(path);
    }

    const uint32_t max_depth_;
    EventFilter filter_;
    std::vector<uint32_t> kinds_; /* by instance */
    std::vector<std::string> roots_, spared_;
};

}  // namespace output

#endif
