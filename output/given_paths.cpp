#include "given_paths.h"

#include <algorithm>

#include "agent/below.h"

namespace output
{

namespace
{

// What stands before the name with the "*"; all of a path that has none.
std::string literal_part(const std::string &path)
{
    const size_t star = path.find('*');
    if (star == std::string::npos)
        return path;
    const size_t slash = path.rfind('/', star);
    return slash == std::string::npos ? "" : path.substr(0, std::max<size_t>(slash, 1));
}

std::string without_last_slashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

}  // namespace

void GivenPaths::add(const agent::Root &root)
{
    const std::string path = literal_part(root.path);
    const auto same = [&](const Pair &pair) { return pair.path == path; };
    if (std::none_of(pairs_.begin(), pairs_.end(), same))
        pairs_.push_back({path, without_last_slashes(literal_part(root.given))});
}

const GivenPaths::Pair *GivenPaths::nearest(std::string_view path) const
{
    const Pair *found = nullptr;
    for (const Pair &pair : pairs_)
        if (agent::is_below(pair.path, path) && (!found || pair.path.size() > found->path.size()))
            found = &pair;
    return found;
}

std::string_view GivenPaths::of(std::string_view path, std::string &storage) const
{
    const Pair *const pair = nearest(path);
    if (!pair || pair->path == pair->given)
        return path;
    std::string_view rest = path.substr(pair->path.size());
    while (!rest.empty() && rest.front() == '/')
        rest.remove_prefix(1);
    storage = pair->given;
    if (!rest.empty() && !storage.empty() && storage.back() != '/')
        storage.push_back('/');
    storage.append(rest);
    return storage.empty() ? path : storage;
}

}  // namespace output
