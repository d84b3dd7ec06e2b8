#include "path_filter.h"

#include <algorithm>

namespace output
{

namespace
{

bool matches_any(const std::vector<regex_t> &list, std::string_view path)
{
    return std::any_of(list.begin(), list.end(),
                       [&](const regex_t &re) { return regexec(&re, path.data(), 0, nullptr, 0) == 0; });
}

void release(std::vector<regex_t> &list)
{
    for (regex_t &re : list)
        regfree(&re);
}

}  // namespace

PathFilter::~PathFilter()
{
    release(include_);
    release(exclude_);
}

bool PathFilter::add(std::vector<regex_t> &list, const std::string &pattern, Case letters, std::string &error)
{
    regex_t re;
    const int flags = REG_EXTENDED | REG_NOSUB | (letters == kAnyCase ? REG_ICASE : 0);
    const int code = regcomp(&re, pattern.c_str(), flags);
    if (code != 0) {
        char reason[128];
        regerror(code, &re, reason, sizeof reason);
        error = reason;
        return false;
    }
    list.push_back(re);
    return true;
}

bool PathFilter::shows(std::string_view path) const
{
    if (!include_.empty() && !matches_any(include_, path))
        return false;
    if (!exclude_.empty() && matches_any(exclude_, path))
        return false;
    return std::find(hidden_.begin(), hidden_.end(), path) == hidden_.end();
}

}  // namespace output
