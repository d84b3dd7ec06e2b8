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

std::optional<uint32_t> number_of(const std::string &text)
{
    uint32_t number = 0;
    const char *const end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

std::optional<uint32_t> user_id(const std::string &user)
{
    if (const std::optional<uint32_t> id = number_of(user))
        return id;
    struct passwd entry, *found = nullptr;
    std::vector<char> room(16384);
    if (getpwnam_r(user.c_str(), &entry, room.data(), room.size(), &found) != 0 || !found)
        return {};
    return found->pw_uid;
}

// Null: all texts are of ids; else the first that is not.
template <typename IdOf>
const std::string *set_ids(Wishes<uint32_t> &ids, const std::vector<std::string> &texts, IdOf id_of)
{
    for (const std::string &text : texts) {
        const bool is_wanted = !text.starts_with('!');
        const std::optional<uint32_t> id = id_of(text.substr(!is_wanted));
        if (!id)
            return &text;
        wish(ids, is_wanted, *id);
    }
    return nullptr;
}

std::string without_mark(const std::string &text) { return text.substr(text.starts_with('!')); }

}  // namespace

bool EventFilter::prepare(const FilterOptions &options, NameOf name_of, std::string &key, std::string &error)
{
    processes_ = wishes_of(options.processes);
    containers_ = wishes_of(options.containers);
    name_of_ = std::move(name_of);
    if (!set_paths(options, key, error))
        return false;
    if (const std::string *wrong = set_ids(process_ids_, options.process_ids, number_of)) {
        key = "process_id";
        error = "'" + without_mark(*wrong) + "' is no number of a process";
        return false;
    }
    if (const std::string *wrong = set_ids(users_, options.users, user_id)) {
        key = "user";
        error = "there is no user '" + without_mark(*wrong) + "' on this machine";
        return false;
    }
    return true;
}

bool EventFilter::set_paths(const FilterOptions &options, std::string &key, std::string &error)
{
    const auto add = [&](const char *which, const std::vector<std::string> &patterns, auto way,
                         PathFilter::Case letters) {
        std::string reason;
        for (const std::string &pattern : patterns) {
            if ((path_.*way)(pattern, reason, letters))
                continue;
            key = which;
            error = "'" + pattern + "' is no regular expression: " + reason;
            return false;
        }
        return true;
    };
    return add("include", options.include, &PathFilter::include, PathFilter::kExact) &&
           add("exclude", options.exclude, &PathFilter::exclude, PathFilter::kExact) &&
           add("iinclude", options.include_any_case, &PathFilter::include, PathFilter::kAnyCase) &&
           add("iexclude", options.exclude_any_case, &PathFilter::exclude, PathFilter::kAnyCase);
}

bool EventFilter::shows_paths(const agent::Event &event) const
{
    return path_.shows(event.path) || (!event.from.empty() && path_.shows(event.from));
}

bool EventFilter::shows_cause(const agent::Event &event) const
{
    const auto is_it = [&](uint32_t id) { return event.pid == id; };
    return is_shown(process_ids_, is_it) && shows_process(event.process) && shows_container(event);
}

bool EventFilter::wants_known_process() const
{
    return !processes_.wanted.empty() || !process_ids_.wanted.empty() || !users_.wanted.empty();
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
