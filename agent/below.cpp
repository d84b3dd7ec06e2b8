#include "below.h"

#include <algorithm>

namespace agent
{

bool is_below(std::string_view root, std::string_view path)
{
    if (root == "/")
        return !path.empty() && path.front() == '/';
    return path.substr(0, root.size()) == root && (path.size() == root.size() || path[root.size()] == '/');
}

int directory_depth(std::string_view root, std::string_view path)
{
    if (!is_below(root, path))
        return -1;
    if (path.size() == root.size())
        return 0;
    const std::string_view rest = path.substr(root == "/" ? 1 : root.size() + 1);
    return static_cast<int>(std::count(rest.begin(), rest.end(), '/'));
}

}  // namespace agent
