/*
 * event_filter.h: which events are shown, by path and by who caused them.
 */
#ifndef OUTPUT_EVENT_FILTER_H
#define OUTPUT_EVENT_FILTER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/containers.h"
#include "agent/queue.h"
#include "filter_options.h"
#include "path_filter.h"

namespace output
{

/* What is wanted and what is not, of one kind of things. */
template <typename T>
struct Wishes {
    std::vector<T> wanted, unwanted;

    bool empty() const { return wanted.empty() && unwanted.empty(); }
};

/* One thread's at a time. */
class EventFilter
{
public:
    using NameOf = std::function<agent::ContainerName(std::string_view id)>;

    /* False: `key` ("include", "process_id" ...) names what is wrong, as the configuration calls it, `error` is one
     * line. To be called once. `name_of`: asked only where containers are chosen. */
    bool prepare(const FilterOptions &options, NameOf name_of, std::string &key, std::string &error);

    /* Never show this path. */
    void hide(const std::string &path) { path_.hide(path); }

    bool shows(const agent::Event &event) const { return shows_paths(event) && shows_cause(event); }

    /* The same in parts: one path; who caused it. */
    bool shows_path(std::string_view path) const { return path_.shows(path); }
    bool shows_cause(const agent::Event &event) const;

    bool wants_known_process() const; /* an event of which none is known is never shown */

private:
    using Ids = Wishes<uint32_t>;

    bool shows_paths(const agent::Event &event) const; /* a rename where either path is shown */
    bool set_paths(const FilterOptions &options, std::string &key, std::string &error);
    bool shows_process(const agent::ProcessInfo *process) const;
    bool shows_container(const agent::Event &event) const;
    bool is_container(const std::string &pattern, std::string_view id, const agent::ContainerName &name) const;

    PathFilter path_;
    Wishes<std::string> processes_, containers_;
    Ids process_ids_, users_;
    NameOf name_of_;
};

}  // namespace output

#endif
