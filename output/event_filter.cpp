#include "event_filter.h"

#include <fnmatch.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>

namespace output
{

namespace
{

constexpr size_t kIdLength = 12; /* of a container, as people copy it */

template <typename T, typename Matches>
bool is_shown(const Wishes<T> &wishes, Matches matches)
{
    const auto any = [&](const std::vector<T> &list) { return std::any_of(list.begin(), list.end(), matches); };
    return (wishes.wanted.empty() || any(wishes.wanted)) && !any(wishes.unwanted);
}

template <typename T>
void wish(Wishes<T> &wishes, bool is_wanted, T value)
{
    (is_wanted ? wishes.wanted : wishes.unwanted).push_back(std::move(value));
}

Wishes<std::string> wishes_of(const std::vector<std::string> &texts)
{
    Wishes<std::string> wishes;
    for (const std::string &text : texts)
        wish(wishes, !text.starts_with('!'), text.substr(text.starts_with('!')));
    return wishes;
}

bool matches(const std::string &pattern, const std::string &text)
{
    return !text.empty() && fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

std::optional<uint32_t> user_id(const std::string &user)
{
    uint32_t id = 0;
    const char *const end = user.data() + user.size();
    if (!user.empty() && std::from_chars(user.data(), end, id).ptr == end)
        return id;
    struct passwd entry, *found = nullptr;
    std::vector<char> room(16384);
    if (getpwnam_r(user.c_str(), &entry, room.data(), room.size(), &found) != 0 || !found)
        return {};
    return found->pw_uid;
}

}  // namespace

bool EventFilter::prepare(const FilterOptions &options, NameOf name_of, std::string &key, std::string &error)
{
    processes_ = wishes_of(options.processes);
    containers_ = wishes_of(options.containers);
    name_of_ = std::move(name_of);
    if (!set_paths(options, key, error))
        return false;
    key = "users";
    return set_users(options.users, error);
}

bool EventFilter::set_paths(const FilterOptions &options, std::string &key, std::string &error)
{
    const auto refuse = [&](const char *which, const std::string &pattern, const std::string &reason) {
        key = which;
        error = "'" + pattern + "' is no regular expression: " + reason;
        return false;
    };
    std::string reason;
    for (const std::string &pattern : options.include)
        if (!path_.include(pattern, reason))
            return refuse("include", pattern, reason);
    for (const std::string &pattern : options.exclude)
        if (!path_.exclude(pattern, reason))
            return refuse("exclude", pattern, reason);
    return true;
}

bool EventFilter::set_users(const std::vector<std::string> &users, std::string &error)
{
    for (const std::string &user : users) {
        const bool is_wanted = !user.starts_with('!');
        const std::optional<uint32_t> id = user_id(user.substr(!is_wanted));
        if (!id) {
            error = "there is no user '" + user.substr(!is_wanted) + "' on this machine";
            return false;
        }
        wish(users_, is_wanted, *id);
    }
    return true;
}

bool EventFilter::shows(const agent::Event &event) const
{
    return path_.shows(event.path) && shows_process(event.process) && shows_container(event);
}

// A process that is not known is none of those that are wanted.
bool EventFilter::shows_process(const agent::ProcessInfo *process) const
{
    if (!process)
        return processes_.wanted.empty() && users_.wanted.empty();
    return is_shown(processes_,
                    [&](const std::string &pattern) {
                        return matches(pattern, process->name) || matches(pattern, process->exe);
                    }) &&
           is_shown(users_, [&](uint32_t user) { return process->uid == user; });
}

// Inside a container the monitor reports the mount's container, elsewhere there is that of the process.
bool EventFilter::shows_container(const agent::Event &event) const
{
    if (containers_.empty())
        return true;
    const bool reported = !event.container.empty() || !event.process;
    const std::string_view id = reported ? event.container : std::string_view(event.process->container);
    const bool known = !id.empty() && id != "host";
    const agent::ContainerName name = known && name_of_ ? name_of_(id) : agent::ContainerName{};
    return is_shown(containers_, [&](const std::string &pattern) {
        return known ? is_container(pattern, id, name) : pattern == "host";
    });
}

bool EventFilter::is_container(const std::string &pattern, std::string_view id, const agent::ContainerName &name) const
{
    return (pattern.size() >= kIdLength && id.starts_with(pattern)) || matches(pattern, name.name) ||
           matches(pattern, name.image);
}

}  // namespace output
