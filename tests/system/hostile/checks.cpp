#include "checks.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <set>

#ifdef FMON_TEST_SANITIZED
extern "C" size_t __sanitizer_get_current_allocated_bytes(); /* gcc has no header for it everywhere */
#endif

namespace hostile
{

namespace
{

constexpr size_t kLinesTold = 8;

uint64_t heap_in_use()
{
#ifdef FMON_TEST_SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks; /* of the one arena that main() allows */
#endif
}

/* In KiB. */
uint64_t resident(pid_t process)
{
    std::ifstream in("/proc/" + std::to_string(process) + "/status");
    unsigned long long size = 0;
    for (std::string line; std::getline(in, line);)
        if (sscanf(line.c_str(), "VmRSS: %llu", &size) == 1)
            break;
    return size;
}

}  // namespace

void Verdict::none(const std::string &what, const std::vector<std::string> &wrong)
{
    if (wrong.empty())
        return;
    failed_++;
    printf("FAILED %s: %zu\n", what.c_str(), wrong.size());
    for (size_t i = 0; i < wrong.size() && i < kLinesTold; i++)
        printf("    %s\n", wrong[i].c_str());
}

void Verdict::holds(const std::string &what, bool is_so, const std::string &detail)
{
    if (!is_so) {
        failed_++;
        printf("FAILED %s: %s\n", what.c_str(), detail.c_str());
    }
}

/* ---- every directory reports ---- */

Roundabout::Roundabout(const std::vector<Planned> &plan, Clients &clients,
                       std::vector<std::unique_ptr<Command>> &commands)
    : clients_(clients), commands_(commands)
{
    for (const Planned &planned : plan) {
        const auto client = static_cast<size_t>(planned.client);
        add_watch(planned.watch, [=](Sign &sign, uint32_t mask) { sign.wanted[client] |= mask; });
    }
    for (size_t i = 0; i < commands.size(); i++)
        for (const Asked &watch : commands[i]->watches())
            add_watch(watch, [=](Sign &sign, uint32_t mask) { sign.commands[i] |= mask; });
}

Roundabout::Sign &Roundabout::sign(const std::string &path, bool made)
{
    Sign &sign = signs_[path];
    sign.path = path;
    sign.made = made;
    sign.commands.resize(commands_.size());
    return sign;
}

void Roundabout::add_watch(const Asked &watch, const std::function<void(Sign &, uint32_t)> &want)
{
    if (watch.flags & FMON_FILE)
        return want(sign(watch.path, false), watch.mask & FMON_CLOSE_WRITE);
    const std::vector<std::string> dirs =
        watch.flags & FMON_RECURSIVE ? systest::directories(watch.path) : std::vector<std::string>{watch.path};
    for (const std::string &dir : dirs)
        want(sign(dir + "/sign-" + std::to_string(getpid()), true), watch.mask & (FMON_CREATE | FMON_CLOSE_WRITE));
}

std::vector<std::string> Roundabout::missing() const
{
    std::vector<std::string> list;
    const auto compare = [&](const std::string &who, uint32_t wanted, uint32_t told, const std::string &path) {
        if (wanted & ~told)
            list.push_back(who + " was not told of " + (wanted & ~told & FMON_CREATE ? "create " : "") +
                           (wanted & ~told & FMON_CLOSE_WRITE ? "close_write " : "") + path);
    };
    for (const auto &[path, sign] : signs_) {
        const Told told = clients_.signs().seen(path);
        for (size_t i = 0; i < kClients; i++)
            compare("client " + std::to_string(i), sign.wanted[i], told[i], path);
        for (size_t i = 0; i < commands_.size(); i++)
            compare("command " + std::to_string(i), sign.commands[i], commands_[i]->signs().seen(path)[0], path);
    }
    return list;
}

std::vector<std::string> Roundabout::go(const std::function<bool()> &wait)
{
    for (const auto &[path, sign] : signs_) {
        clients_.signs().look_for(path);
        for (const auto &command : commands_)
            command->signs().look_for(path);
    }
    for (const auto &[path, sign] : signs_)
        touch(path);
    std::vector<std::string> list = missing();
    while (!list.empty() && wait())
        list = missing();
    for (const auto &[path, sign] : signs_)
        if (sign.made)
            unlink(path.c_str());
    clients_.signs().forget();
    for (const auto &command : commands_)
        command->signs().forget();
    return list;
}

/* ---- sizes ---- */

std::vector<std::string> compare_dentries(const Marks &expected, const std::vector<std::string> &cached)
{
    std::set<std::string> wanted;
    for (const auto &[inode, kinds] : expected)
        for (std::string path = kinds.path; path.size() > 1; path.resize(path.rfind('/')))
            wanted.insert(path);
    std::vector<std::string> wrong;
    for (const std::string &path : cached)
        if (wanted.erase(path) == 0)
            wrong.push_back("not watched, but cached: " + (path.size() > 200 ? path.substr(0, 200) + "..." : path));
    for (const std::string &path : wanted)
        wrong.push_back("not cached: " + path);
    return wrong;
}

Sizes measure(const std::vector<std::unique_ptr<Command>> &commands)
{
    Sizes sizes = {systest::count_marks(systest::actual_marks(getpid())), Clients::dentries().size(), 0, 0, {}, {}};
    for (const auto &command : commands) {
        sizes.command_marks.push_back(systest::count_marks(systest::actual_marks(command->pid())));
        sizes.command_resident.push_back(resident(command->pid()));
    }
    sizes.heap = heap_in_use();
    sizes.resident = resident(getpid());
    return sizes;
}

}  // namespace hostile
