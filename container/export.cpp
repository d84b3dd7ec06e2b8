// The library's entries, as orx_sensitivedir.h declares them: no exception and no bad argument gets past here.
#include <fcntl.h>
#include <pthread.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cgroup.h"
#include "common/guard.h"
#include "keeper.h"
#include "orx_sensitivedir.h"
#include "process_directory.h"

namespace
{

using common::without_exceptions;
using container::Details;
using container::Found;
using container::Keeper;

// The lock is held from the first of these to one of the others, which is more than clang can follow.
void before_fork() NO_THREAD_SAFETY_ANALYSIS { Keeper::get().before_fork(); }
void after_fork_in_parent() NO_THREAD_SAFETY_ANALYSIS { Keeper::get().after_fork(false); }
void after_fork_in_child() NO_THREAD_SAFETY_ANALYSIS { Keeper::get().after_fork(true); }

// The thread must not outlive the library's code.
struct AtExit {
    AtExit() { pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child); }
    ~AtExit()
    {
        without_exceptions(0, [] {
            Keeper::get().stop();
            return 0;
        });
    }
};
const AtExit at_exit;

bool parse_mount(const char *text, uint64_t &out)
{
    const char *end = text + strlen(text);
    const auto [rest, code] = std::from_chars(text, end, out);
    return code == std::errc() && rest == end && rest != text;
}

/* The texts, in the order of their members in the record and in the details. */
constexpr struct {
    const char *orx_container_info::*member;
    std::string Details::*text;
} kTexts[] = {
    {&orx_container_info::mounts, &Details::mounts},
    {&orx_container_info::user, &Details::user},
    {&orx_container_info::container_namespace, &Details::name_space},
    {&orx_container_info::image_id, &Details::image_id},
    {&orx_container_info::image_name, &Details::image_name},
    {&orx_container_info::image_tag, &Details::image_tag},
    {&orx_container_info::repository, &Details::repository},
    {&orx_container_info::container_name, &Details::name},
    {&orx_container_info::capability, &Details::capability},
    {&orx_container_info::ports_binding, &Details::ports},
};

// One block, with the texts behind the record.
orx_container_info *make_record(const Details &details, const Found &found)
{
    size_t size = sizeof(orx_container_info);
    for (const auto &row : kTexts)
        size += (details.*row.text).size() + 1;
    auto *info = static_cast<orx_container_info *>(calloc(1, size));
    if (!info)
        return nullptr;
    char *place = reinterpret_cast<char *>(info + 1);
    for (const auto &row : kTexts) {
        const std::string &text = details.*row.text;
        info->*row.member = static_cast<const char *>(memcpy(place, text.c_str(), text.size() + 1));
        place += text.size() + 1;
    }
    info->privileged = details.privileged;
    info->init_pid = found.pid;
    info->status = details.paused                      ? ORX_CONTAINER_PAUSED
                   : found.pid != 0 || details.running ? ORX_CONTAINER_RUNNING
                                                       : ORX_CONTAINER_ENDED;
    return info;
}

}  // namespace

extern "C" {

const struct orx_container_mount *_orx_get_container_mount(const char *id)
{
    static thread_local struct {
        orx_container_mount record;
        char label[container::kMaxLabel + 1];
    } answer;
    uint64_t mount = 0;
    if (!id || !parse_mount(id, mount))
        return nullptr;
    return without_exceptions<const orx_container_mount *>(nullptr, [&]() -> const orx_container_mount * {
        Found found;
        if (!Keeper::get().find(mount, found))
            return nullptr;
        snprintf(answer.label, sizeof answer.label, "%s", found.id.c_str());
        answer.record = {found.pid, answer.label};
        return &answer.record;
    });
}

struct orx_container_info *_orx_get_container_info(const char *id)
{
    if (!id || !container::is_label(id))
        return nullptr;
    return without_exceptions<orx_container_info *>(nullptr, [&]() -> orx_container_info * {
        Details details;
        Found found;
        return Keeper::get().describe(id, details, found) ? make_record(details, found) : nullptr;
    });
}

void _orx_free_container_info(struct orx_container_info *info) { free(info); }

int32_t orx_container_set_roots(const char *proc, const char *files)
{
    return without_exceptions<int32_t>(-ENOMEM, [&] {
        Keeper::get().set_roots(proc ? proc : "/proc", files ? files : "");
        return 0;
    });
}

int32_t orx_container_of_process(int32_t pid, char *out, size_t size)
{
    if (!out || size == 0 || pid <= 0)
        return -EINVAL;
    out[0] = '\0';
    return without_exceptions<int32_t>(-ENOMEM, [&]() -> int32_t {
        const container::Fd proc(open(Keeper::get().proc().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const container::Group group = proc ? container::process_group(proc.get(), pid) : container::Group();
        if (group.chain.empty())
            return -ENOENT;
        const uint32_t maker = container::maker_of(group, Keeper::get().files());
        snprintf(out, size, "%s", container::label_of(group.chain[0], maker).c_str());
        return 0;
    });
}

int32_t orx_container_survey(struct orx_container_census *out)
{
    if (!out)
        return -EINVAL;
    *out = {};
    return without_exceptions<int32_t>(-ENOMEM, [&]() -> int32_t {
        const auto begin = std::chrono::steady_clock::now();
        int error = 0;
        Keeper::get().survey([&](const container::Census &census) {
            out->containers = static_cast<uint32_t>(census.containers.size());
            out->mounts = static_cast<uint32_t>(census.mounts.size());
            out->namespaces = census.namespaces;
            out->processes = census.processes;
            out->hidden = census.hidden;
            out->cut = census.cut;
            error = census.error;
        });
        const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
        out->micros = static_cast<uint32_t>(time.count());
        return -error;
    });
}

}  // extern "C"
