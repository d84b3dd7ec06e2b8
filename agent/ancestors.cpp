#include "ancestors.h"

#include <utility>
#include <vector>

namespace agent
{

namespace
{

constexpr size_t kAllocation = 48; /* what the heap and the shared pointer add */

AncestorPtr made(std::string name, uint32_t pid, uint64_t start_ns, AncestorPtr parent)
{
    const size_t depth = parent ? parent->depth + 1 : 1;
    const size_t bytes = sizeof(Ancestor) + kAllocation + (name.size() > 15 ? name.size() : 0);
    return std::make_shared<const Ancestor>(
        Ancestor{std::move(name), pid, start_ns, std::move(parent), depth, CountedBytes(bytes)});
}

// The nearest ones, anew: the others may still share what was.
AncestorPtr nearest(const AncestorPtr &first, size_t count)
{
    std::vector<const Ancestor *> kept;
    for (const Ancestor *each = first.get(); each && kept.size() < count; each = each->parent.get())
        kept.push_back(each);
    AncestorPtr list;
    for (; !kept.empty(); kept.pop_back())
        list = made(kept.back()->name, kept.back()->pid, kept.back()->start_ns, std::move(list));
    return list;
}

}  // namespace

AncestorPtr make_ancestor(std::string name, uint32_t pid, uint64_t start_ns, AncestorPtr parent)
{
    if (parent && parent->depth >= kMostAncestors)
        parent = nearest(parent, kMostAncestors / 2);
    return made(std::move(name), pid, start_ns, std::move(parent));
}

}  // namespace agent
