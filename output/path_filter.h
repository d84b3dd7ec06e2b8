/*
 * path_filter.h: which of the delivered events are shown.
 */
#ifndef OUTPUT_PATH_FILTER_H
#define OUTPUT_PATH_FILTER_H

#include <regex.h>

#include <string>
#include <string_view>
#include <vector>

namespace output
{

/* A path is shown when it matches one of the patterns to include (or there are none) and none of those to exclude.
 * Patterns are POSIX extended regular expressions on the bytes of the whole path, found anywhere in it. */
class PathFilter
{
public:
    PathFilter() = default;
    ~PathFilter();
    PathFilter(const PathFilter &) = delete;
    PathFilter &operator=(const PathFilter &) = delete;

    enum Case { kExact, kAnyCase };

    /* False, with the reason in `error`: not a regular expression. */
    bool include(const std::string &pattern, std::string &error, Case letters = kExact)
    {
        return add(include_, pattern, letters, error);
    }
    bool exclude(const std::string &pattern, std::string &error, Case letters = kExact)
    {
        return add(exclude_, pattern, letters, error);
    }
    /* Never show this very path: the file that the output goes to, which would otherwise feed itself. */
    void hide(const std::string &path) { hidden_.push_back(path); }

    /* `path` is followed by a NUL. */
    bool shows(std::string_view path) const;

private:
    static bool add(std::vector<regex_t> &list, const std::string &pattern, Case letters, std::string &error);

    std::vector<regex_t> include_, exclude_;
    std::vector<std::string> hidden_;
};

}  // namespace output

#endif
