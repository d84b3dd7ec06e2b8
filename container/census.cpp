#include "census.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <optional>
#include <set>

#include "files.h"
#include "process_directory.h"

namespace container
{

namespace
{

/* A whole machine's; more is nobody's honest use and would only cost memory. */
constexpr size_t kMaxMounts = 2'000'000, kMaxNamespaces = 65'536;

/* Bytes of mountinfo that a container's namespaces may cost together, and the host's. A container may make as many
 * mounts as the kernel lets it, with names as long, in as many namespaces: it shall neither fill the table nor cost
 * more time than others. */
constexpr size_t kOfContainer = size_t{16} * 1024 * 1024, kOfHost = size_t{64} * 1024 * 1024;

/* Processes of a namespace that are asked for its container. */
constexpr size_t kMaxAsked = 16;

struct Namespace {
    std::vector<int> pids; /* the first few, in the order of their numbers */
    Group group;           /* its chain is empty: the host's */
    uint32_t maker = 0;    /* of the group: a user other than root, or 0 */
    int pid = 0;           /* who said so */
    uint64_t start = 0;
};
using Namespaces = std::map<uint64_t, Namespace>;

class Taker
{
public:
    Taker(const std::string &proc, const std::string &files, const std::atomic<bool> &stop, Census &census)
        : files_(files), stop_(stop), census_(census), proc_(open(proc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
    }

    void run()
    {
        if (!proc_ || !list_processes()) {
            census_.error = errno ? errno : ENOENT;
            return;
        }
        host_ = host_namespace();
        for (auto &[number, space] : namespaces_)
            if (number != host_ && !stop_)
                find_owner(space);
        refuse_users_claims();
        refuse_borrowed_names();
        for (const auto &[number, space] : namespaces_)
            if (!stop_)
                add(space);
        census_.namespaces = static_cast<uint32_t>(namespaces_.size());
    }

private:
    bool list_processes();
    uint64_t host_namespace() const;
    void note_process(int pid);
    void find_owner(Namespace &space);
    uint32_t maker_of_group(const Group &group);
    void refuse_users_claims();
    void refuse_borrowed_names();
    void add(const Namespace &space);
    uint32_t row_of(const Namespace &space);

    const std::string &files_;
    const std::atomic<bool> &stop_;
    Census &census_;
    Fd proc_;
    uint64_t host_ = 0;
    Namespaces namespaces_;
    std::map<std::string, uint32_t> makers_; /* by a group's place */
    std::set<std::string> roots_claims_;     /* ids that groups of root's making are called */
    std::map<std::string, uint32_t> rows_;   /* by a group's place */
    std::map<uint32_t, size_t> budgets_;     /* what is left, by row */
};

bool Taker::list_processes()
{
    const common::Dir list = list_of(Fd(dup(proc_.get())));
    if (!list)
        return false;
    while (const struct dirent *entry = stop_ ? nullptr : readdir(list.get())) {
        const char *name = entry->d_name, *end = name + strlen(name);
        int pid = 0;
        const auto [rest, code] = std::from_chars(name, end, pid);
        if (code == std::errc() && rest == end && pid > 0)
            note_process(pid);
    }
    errno = ENOENT;
    return census_.processes > 0 || stop_;
}

// The first process's. Where that one may not be looked at, the caller's own: without it, a container's process on its
// way to a namespace of its own would make the host's mounts the container's.
uint64_t Taker::host_namespace() const
{
    const uint64_t first = mount_namespace(proc_.get(), 1);
    return first ? first : mount_namespace(proc_.get(), getpid());
}

void Taker::note_process(int pid)
{
    census_.processes++;
    errno = 0;
    const uint64_t number = mount_namespace(proc_.get(), pid);
    if (number == 0) {
        census_.hidden += errno == EACCES || errno == EPERM;
        return;
    }
    if (namespaces_.size() >= kMaxNamespaces && !namespaces_.count(number))
        return;
    Namespace &space = namespaces_[number];
    if (space.pids.size() < kMaxAsked)
        space.pids.push_back(pid);
}

// The oldest that is in a container: a container's first process is older than whoever came in later, from the host or
// from another container. What a user's group is called counts only where no group of root's names a container.
void Taker::find_owner(Namespace &space)
{
    for (const int pid : space.pids) {
        Group group = process_group(proc_.get(), pid);
        if (group.chain.empty())
            continue;
        const uint32_t maker = maker_of_group(group);
        if (maker == 0)
            roots_claims_.insert(group.chain[0]);
        const uint64_t start = start_time(proc_.get(), pid);
        const bool is_better = (maker == 0) != (space.maker == 0) ? maker == 0 : start < space.start;
        if (!space.group.chain.empty() && !is_better)
            continue;
        space.group = std::move(group);
        space.maker = maker;
        space.pid = pid;
        space.start = start;
    }
}

uint32_t Taker::maker_of_group(const Group &group)
{
    const auto [row, first] = makers_.try_emplace(group.hierarchy + ":" + group.place(0), 0);
    if (first)
        row->second = maker_of(group, files_);
    return row->second;
}

// Whoever may make control groups can call one like anybody's container. Such a group is a container of its maker's
// (engines without root make theirs so), unless it claims what is a container of root's.
void Taker::refuse_users_claims()
{
    for (auto &[number, space] : namespaces_) {
        if (space.maker == 0)
            continue;
        if (roots_claims_.count(space.group.chain[0]))
            space.group = Group();
        for (std::string &id : space.group.chain)
            id = label_of(id, space.maker);
    }
}

// A container with the right to make control groups can call one like another container's. An id belongs to who has it
// nearest to the host; whoever claims it from further inside, or from beside, counts as the container that it is in.
// Groups are the same where their paths are.
void Taker::refuse_borrowed_names()
{
    std::map<std::string, std::optional<std::string>> owners; /* by id, null: claimed from two places equally deep */
    std::map<std::string, size_t> depths;
    for (const auto &[number, space] : namespaces_)
        for (size_t i = 0; i < space.group.chain.size(); i++) {
            const std::string &id = space.group.chain[i], place = space.group.place(i);
            const auto [depth, first] = depths.try_emplace(id, i);
            if (first || i < depth->second)
                owners[id] = place;
            else if (i == depth->second && owners[id] && *owners[id] != place)
                owners[id] = std::nullopt;
            depth->second = std::min(depth->second, i);
        }
    for (auto &[number, space] : namespaces_)
        while (space.group.chain.size() > 1) {
            const std::optional<std::string> &owner = owners[space.group.chain.back()];
            if (owner && *owner == space.group.place(space.group.chain.size() - 1))
                break;
            space.group.chain.pop_back();
        }
}

// A container has a namespace for each mount namespace that its processes made: its first process is that of the
// oldest.
uint32_t Taker::row_of(const Namespace &space)
{
    const Chain &chain = space.group.chain;
    if (chain.empty())
        return Census::kHost;
    const std::string place = space.group.place(chain.size() - 1);
    const auto [row, first] = rows_.try_emplace(place, static_cast<uint32_t>(census_.containers.size()));
    if (first)
        census_.containers.push_back({chain.back(), space.pid, space.start, chain.size() > 1 || space.maker != 0});
    Found &found = census_.containers[row->second];
    if (space.start < found.start) {
        found.pid = space.pid;
        found.start = space.start;
    }
    return row->second;
}

void Taker::add(const Namespace &space)
{
    const uint32_t row = row_of(space);
    const auto take = [&](uint64_t mount) {
        if (census_.mounts.size() < kMaxMounts)
            census_.mounts[mount] = row;
    };
    size_t &budget = budgets_.try_emplace(row, row == Census::kHost ? kOfHost : kOfContainer).first->second;
    std::vector<int> pids = space.pids;
    if (space.pid > 0) /* who is surely inside comes first */
        pids.insert(pids.begin(), space.pid);
    for (const int pid : pids) {
        const ListEnd end = list_mounts(proc_.get(), pid, budget, take);
        census_.cut += end == ListEnd::kCut;
        if (end != ListEnd::kFailed)
            return;
    }
}

}  // namespace

Census take_census(const std::string &proc, const std::string &files, const std::atomic<bool> &stop)
{
    Census census;
    Taker(proc, files, stop, census).run();
    return census;
}

}  // namespace container
