#include "resolve.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include "orx_base.h"

namespace agent
{

namespace
{

constexpr int kStep = O_PATH | O_NOFOLLOW | O_CLOEXEC;
constexpr int kMaxLinks = 40; /* as the kernel's own limit */

class Walk
{
public:
    explicit Walk(const std::string &path) : rest_(path), at_(open("/", kStep)) {}

    Resolved run()
    {
        std::string name;
        while (at_ && next(name))
            step(name);
        if (!at_ && !found_.identity.error)
            found_.identity.error = errno;
        if (!found_.identity.error)
            found_.identity = identify_open(at_.get());
        found_.path = done_.empty() ? "/" : done_;
        return std::move(found_);
    }

private:
    bool next(std::string &name)
    {
        const size_t begin = rest_.find_first_not_of('/');
        if (begin == std::string::npos)
            return false;
        const size_t end = std::min(rest_.find('/', begin), rest_.size());
        name = rest_.substr(begin, end - begin);
        rest_.erase(0, end);
        return true;
    }

    void step(const std::string &name)
    {
        common::Fd there(openat(at_.get(), name.c_str(), kStep));
        struct stat st;
        if (!there || fstat(there.get(), &st) != 0)
            return stop(errno);
        if (S_ISLNK(st.st_mode))
            return follow(there.get(), st.st_uid, name);
        at_ = std::move(there);
        if (name == "..")
            done_.resize(done_.empty() ? 0 : done_.rfind('/'));
        else if (name != ".")
            done_ += "/" + name;
    }

    // What a link holds never changes, so owner and target belong together.
    void follow(int link, uid_t owner, const std::string &name)
    {
        if (owner != 0 && owner != geteuid()) {
            found_.foreign_link = done_ + "/" + name;
            found_.owner = owner;
            return stop(ELOOP);
        }
        char target[PATH_MAX];
        const ssize_t n = readlinkat(link, "", target, sizeof target);
        if (n <= 0 || ++links_ > kMaxLinks)
            return stop(ELOOP);
        rest_.insert(0, std::string(target, static_cast<size_t>(n)));
        if (target[0] != '/')
            return;
        at_.reset(open("/", kStep));
        done_.clear();
    }

    void stop(int error)
    {
        found_.identity.error = error;
        at_.reset();
    }

    std::string rest_, done_;
    common::Fd at_;
    int links_ = 0;
    Resolved found_;
};

}  // namespace

Resolved resolve_carefully(const std::string &path) { return Walk(path).run(); }

std::vector<std::string> matches_of(const std::string &pattern)
{
    list_head found = {&found, &found};
    orx_wildcard_path_expand(pattern.c_str(), &found); /* what it found before a failure is in the list */
    std::vector<std::string> paths;
    while (found.next != &found) {
        auto *const entry = reinterpret_cast<struct orx_path_entry *>(reinterpret_cast<char *>(found.next) -
                                                                      offsetof(struct orx_path_entry, link));
        found.next = entry->link.next;
        paths.emplace_back(entry->path);
        free(entry->path);
        free(entry);
    }
    return paths;
}

}  // namespace agent
