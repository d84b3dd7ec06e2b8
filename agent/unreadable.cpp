#include "unreadable.h"

#include <cerrno>
#include <utility>

#include "paths.h"

namespace agent
{

void Unreadable::refused(std::string_view path)
{
    const common::Lock hold(lock_);
    if (known_.count(path)) {
        news_.repeated++;
    } else if (known_.size() < kMost) {
        known_.emplace(path);
        news_.paths.emplace_back(path);
    }
}

Unreadable::News Unreadable::take()
{
    const common::Lock hold(lock_);
    return std::exchange(news_, {});
}

void Unreadable::look(const std::function<void(const std::string &)> &readable)
{
    std::set<std::string, std::less<>> known;
    {
        const common::Lock hold(lock_);
        known = known_;
    }
    for (const std::string &path : known) {
        const bool opens = static_cast<bool>(open_directory(path));
        if (!opens && errno != ENOENT && errno != ENOTDIR && errno != ELOOP)
            continue;
        {
            const common::Lock hold(lock_);
            known_.erase(path);
        }
        if (opens)
            readable(path);
    }
}

bool Unreadable::knows(std::string_view path) const
{
    const common::Lock hold(lock_);
    return known_.find(path) != known_.end();
}

bool Unreadable::any() const
{
    const common::Lock hold(lock_);
    return !known_.empty();
}

}  // namespace agent
