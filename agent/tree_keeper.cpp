#include "tree_keeper.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "below.h"
#include "paths.h"
#include "placement.h"

namespace agent
{

namespace
{

// "/" below every other byte: "a/b" is then before "a-b".
bool before(const std::string &a, const std::string &b)
{
    const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [&](char x, char y) { return rank(x) < rank(y); });
}

}  // namespace

void sort_as_tree(std::vector<std::string> &paths) { std::sort(paths.begin(), paths.end(), before); }

TreeKeeper::TreeKeeper(const Module &module, std::vector<std::string> roots, uint32_t max_depth,
                       std::vector<std::string> spared)
    : module_(module), roots_(std::move(roots)), max_depth_(max_depth), spared_(std::move(spared))
{
}

void TreeKeeper::made(std::string_view path)
{
    const common::Lock hold(lock_);
    made_.emplace_back(path);
    const uint64_t one = 1;
    if (made_.size() == 1)  // a counter that is at its limit has woken the reader already
        [[maybe_unused]]
        const ssize_t n = write(wake_.get(), &one, sizeof one);
}

int TreeKeeper::start()
{
    wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_)
        return -1;
    return module_.shared ? 0 : instance();
}

// With the placing lock held.
int TreeKeeper::instance()
{
    int &made = module_.shared ? module_.shared->short_lived : instance_;
    if (made < 0)
        made = make_instance(module_, "watch-new", nullptr, module_.shared ? std::vector<std::string>() : spared_);
    return made;
}

void TreeKeeper::add_root(const std::string &path)
{
    if (std::find(roots_.begin(), roots_.end(), path) == roots_.end())
        roots_.push_back(path);
}

// A walk marks what it finds with all that the watches above want, but where it starts it adds its own kinds only: so
// it starts one above.
void TreeKeeper::again(const std::string &path) { again_.push_back(path); }

// A walk from a directory covers all that is below it now, so those need no walk of their own; what is made later makes
// an event, since its parent is marked by then.
void TreeKeeper::run()
{
    std::vector<std::string> made;
    {
        const common::Lock hold(lock_);
        if (made_.empty() && again_.empty())
            return;
        made.swap(made_);
        uint64_t count;
        [[maybe_unused]] const ssize_t n = read(wake_.get(), &count, sizeof count);
    }
    for (const std::string &path : std::exchange(again_, {}))
        walk_again(path);
    sort_as_tree(made);
    std::string walked;
    for (const std::string &path : made) {
        const bool seen = !walked.empty() && is_below(walked, path);
        if (seen || !has_subdirectory(path))
            continue;
        walked = path;
        walks_made_ = true;
        {
            const MarksAreNews news;
            complete(path);
        }
        walks_made_ = false;
    }
}

void TreeKeeper::walk_again(const std::string &path)
{
    const uint64_t before = marked_;
    complete(parent_of(path));
    walked_again_.paths.push_back(path);
    walked_again_.directories += marked_ - before;
}

void TreeKeeper::complete(const std::string &path)
{
    const std::string start = without_star(path);
    uint32_t depth = 0;
    for (const std::string &root : roots_) {
        if (!is_below(root, start) || max_depth_ == 0)
            continue;
        const uint32_t level = static_cast<uint32_t>(directory_depth(root, start)) + (start == root ? 0 : 1);
        if (level < max_depth_)
            depth = std::max(depth, max_depth_ - level);
    }
    if (max_depth_ && depth == 0)
        return;
    const common::Lock hold(placing_lock());
    // What all sessions share spares nothing: the walk has an instance of its own, where there is one left.
    const bool is_apart = module_.shared && !spared_.empty();
    const int apart = is_apart ? make_instance(module_, "watch-apart", nullptr, spared_) : -1;
    walk(apart >= 0 ? apart : instance(), start, depth);
    if (apart >= 0)
        module_.del_instance(static_cast<uint32_t>(apart));
}

// With the placing lock held.
void TreeKeeper::walk(int owner, const std::string &start, uint32_t depth) const
{
    // Only kinds that every watch which follows the tree has by itself: the marks carry what the watches above want.
    // Who puts a link in the directory's place must not have the monitor walk what the link leads to; and a watch that
    // is stored under the path it was given is found again by that path.
    const uint32_t flags = FMON_DIR | FMON_RECURSIVE | FMON_SYNC | FMON_NO_LINKS;
    if (owner >= 0 && module_.add_watch(static_cast<uint32_t>(owner), start.c_str(), FMON_CREATE, flags, depth, 0) == 0)
        module_.del_watch(static_cast<uint32_t>(owner), start.c_str());
}

}  // namespace agent
