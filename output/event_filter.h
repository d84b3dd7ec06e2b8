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
#include "path_filter.h"

namespace output
{

/* In `processes`, `users` and `containers` a "!" in front excludes; the others include, where there are any. */
struct FilterOptions {
    std::vector<std::string> include, exclude; /* regular expressions on the path */
    std::vector<std::string> processes;        /* name, or program with its path, each a pattern of the shell's */
    std::vector<std::string> users;            /* name or number */
    /* id (12 characters or more of its beginning), or name or image, each a pattern of the shell's; "host": none */
    std::vector<std::string> containers;

    bool operator==(const FilterOptions &) const = default;
};

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

    /* False: `key` ("include", "users" ...) is the member of the options that is wrong, `error` one line. To be called
     * once. `name_of`: asked only where containers are chosen. */
    bool prepare(const FilterOptions &options, NameOf name_of, std::string &key, std::string &error);

    /* Never show this path. */
    void hide(const std::string &path) { path_.hide(path); }

    bool shows(const agent::Event &event) const;

private:
    bool set_paths(const FilterOptions &options, std::string &key, std::string &error);
    bool set_users(const std::vector<std::string> &users, std::string &error);
    bool shows_process(const agent::ProcessInfo *process) const;
    bool shows_container(const agent::Event &event) const;
    bool is_container(const std::string &pattern, std::string_view id, const agent::ContainerName &name) const;

    PathFilter path_;
    Wishes<std::string> processes_, containers_;
    Wishes<uint32_t> users_;
    NameOf name_of_;
};

}  // namespace output

#endif
