/* The expansion of patterns in paths, of orx_base.h. */

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "guard.h"
#include "orx_base.h"

/*
 * Patterns: "*" stands for any run of bytes within one component, none included; every other byte stands for itself, so
 * that a path with "?", "[" or "\" in it can be watched. As in a shell, a leading "*" does not match a leading ".",
 * and "." and ".." are never found. Names are bytes: the locale has no say in what matches nor in the order.
 */
namespace
{

/* Remembers the last "*" and lets it take one more byte at each mismatch: no recursion, whatever the pattern. */
bool matches(std::string_view pattern, std::string_view name)
{
    size_t p = 0, n = 0, star = std::string_view::npos, star_end = 0;
    while (n < name.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            star_end = n;
        } else if (p < pattern.size() && pattern[p] == name[n]) {
            p++;
            n++;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            n = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

bool may_match(std::string_view pattern, std::string_view name)
{
    if (name == "." || name == "..")
        return false;
    return name.front() != '.' || pattern.front() == '.';
}

/* Names in `directory` that match; none where it cannot be read. */
std::vector<std::string> matching_names(const std::string &directory, std::string_view pattern)
{
    std::vector<std::string> names;
    common::Dir dir(opendir(directory.empty() ? "." : directory.c_str()));
    if (!dir)
        return names;
    while (const struct dirent *entry = readdir(dir.get())) {
        std::string_view name = entry->d_name;
        if (may_match(pattern, name) && matches(pattern, name))
            names.emplace_back(name);
    }
    return names;
}

/* Finds the paths that begin with `found`, which is literal, and go on as `pattern` says. */
void expand(const std::string &found, std::string_view pattern, std::vector<std::string> &paths)
{
    size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        std::string path = found + std::string(pattern);
        struct stat st;
        if (lstat(path.c_str(), &st) == 0)
            paths.push_back(std::move(path));
        return;
    }
    size_t slash = pattern.rfind('/', star);
    size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    size_t end = std::min(pattern.find('/', star), pattern.size());
    std::string directory = found + std::string(pattern.substr(0, begin));
    for (const std::string &name : matching_names(directory, pattern.substr(begin, end - begin)))
        expand(directory + name, pattern.substr(end), paths);
}

bool append(list_head *out, const std::string &path)
{
    auto *entry = static_cast<orx_path_entry *>(malloc(sizeof(orx_path_entry)));
    char *copy = strdup(path.c_str());
    if (!entry || !copy) {
        free(entry);
        free(copy);
        return false;
    }
    entry->path = copy;
    entry->link.next = out;
    entry->link.prev = out->prev;
    out->prev->next = &entry->link;
    out->prev = &entry->link;
    return true;
}

bool append_sorted(std::vector<std::string> &paths, list_head *out)
{
    std::sort(paths.begin(), paths.end());
    return std::all_of(paths.begin(), paths.end(), [out](const std::string &path) { return append(out, path); });
}

}  // namespace

int orx_wildcard_path_expand(const char *pattern, list_head *out)
{
    if (!pattern || !out)
        return -1;
    std::vector<std::string> paths;
    bool complete = host::without_exceptions(false, [&] {
        expand({}, pattern, paths);
        return true;
    });
    return append_sorted(paths, out) && complete ? 0 : -1;
}
