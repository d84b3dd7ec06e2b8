#include "census.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <optional>

#include "files.h"
#include "process_folder.h"

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
    Chain chain;           /* empty: the host's */
    int pid = 0;           /* who said so */
    uint64_t start = 0;
};
using Namespaces = std::map<uint64_t, Namespace>;

class Taker
{
public:
    Taker(const std::string &proc, const std::atomic<bool> &stop, Census &census)
        : stop_(stop), census_(census), proc_(open(proc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
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
    void refuse_borrowed_names();
    void add(const Namespace &space);
    uint32_t row_of(const Namespace &space);

    const std::atomic<bool> &stop_;
    Census &census_;
    Fd proc_;
    uint64_t host_ = 0;
    Namespaces namespaces_;
    std::map<std::string, uint32_t> rows_;
    std::map<uint32_t, size_t> budgets_; /* what is left, by row */
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
// from another container.
void Taker::find_owner(Namespace &space)
{
    for (const int pid : space.pids) {
        Chain chain = process_chain(proc_.get(), pid);
        if (chain.empty())
            continue;
        const uint64_t start = start_time(proc_.get(), pid);
        if (!space.chain.empty() && start >= space.start)
            continue;
        space.chain = std::move(chain);
        space.pid = pid;
        space.start = start;
    }
}

// A container with the right to make control groups can call one like another container's. An id belongs to who has it
// nearest to the host; whoever claims it from further inside, or from beside, counts as the container that it is in.
void Taker::refuse_borrowed_names()
{
    std::map<std::string, std::optional<Chain>> owners; /* by id, null: claimed from two places equally deep */
    std::map<std::string, size_t> depths;
    for (const auto &[number, space] : namespaces_)
        for (size_t i = 0; i < space.chain.size(); i++) {
            const std::string &id = space.chain[i];
            const Chain prefix(space.chain.begin(), space.chain.begin() + static_cast<Chain::difference_type>(i));
            const auto [depth, first] = depths.try_emplace(id, i);
            if (first || i < depth->second)
                owners[id] = prefix;
            else if (i == depth->second && owners[id] && *owners[id] != prefix)
                owners[id] = std::nullopt;
            depth->second = std::min(depth->second, i);
        }
    for (auto &[number, space] : namespaces_)
        while (space.chain.size() > 1) {
            const std::string id = space.chain.back();
            const std::optional<Chain> &owner = owners[id];
            const Chain prefix(space.chain.begin(), space.chain.end() - 1);
            if (owner && *owner == prefix)
                break;
            space.chain.pop_back();
        }
}

// A container has a namespace for each mount namespace that its processes made: its first process is that of the
// oldest.
uint32_t Taker::row_of(const Namespace &space)
{
    if (space.chain.empty())
        return Census::kHost;
    const auto [row, first] = rows_.try_emplace(space.chain.back(), static_cast<uint32_t>(census_.containers.size()));
    if (first)
        census_.containers.push_back({space.chain.back(), space.pid, space.start, space.chain.size() > 1});
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

Census take_census(const std::string &proc, const std::atomic<bool> &stop)
{
    Census census;
    Taker(proc, stop, census).run();
    return census;
}

}  // namespace container
