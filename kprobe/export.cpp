// The library's entries, as kp_thread_utils.h declares them: no exception and no bad argument gets past here.
#include <cerrno>
#include <string>

#include "common/guard.h"
#include "kp_thread_utils.h"
#include "library.h"

namespace
{

using common::without_exceptions;
using kprobe::Library;

// Runs `body` with the instance. -EINVAL: there is none.
template <typename Body>
int32_t with_instance(void *handle, Body &&body) noexcept
{
    return without_exceptions<int32_t>(-ENOMEM, [&]() -> int32_t {
        const auto instance = Library::get().find(handle);
        return instance ? body(*instance) : -EINVAL;
    });
}

// When the process ends, its definitions end: nobody else would delete them before the next start.
struct AtExit {
    ~AtExit()
    {
        without_exceptions(0, [] {
            Library::get().shut_down();
            return 0;
        });
    }
};
const AtExit at_exit;

}  // namespace

extern "C" {

void *_kp_ins_crt(const char *name, int32_t **fds, int32_t *count)
{
    return without_exceptions<void *>(nullptr, [&] { return Library::get().create(name, fds, count); });
}

int32_t _os_info_get(const struct kp_os_info **out)
{
    if (!out)
        return -EINVAL;
    *out = without_exceptions<const kp_os_info *>(nullptr, [] { return Library::get().os_info(); });
    return *out ? 0 : -ENOTSUP;
}

int32_t _kp_evt_reg(void *inst, struct kp_probe_def *def, kp_record_cb cb)
{
    if (!def)
        return -EINVAL;
    return with_instance(inst, [&](kprobe::Instance &instance) { return instance.add(*def, cb); });
}

int32_t kp_event_parse(int32_t index, void *inst)
{
    return without_exceptions<int32_t>(-ENOMEM, [&] { return Library::get().parse(index, inst); });
}

int32_t _kp_event_enable(uint8_t on, const char *event_name, void *inst)
{
    if (!event_name)
        return -EINVAL;
    // The monitor speaks of on and off as numbers here and as digits there.
    return with_instance(inst,
                         [&](kprobe::Instance &instance) { return instance.enable(event_name, on != 0 && on != '0'); });
}

int32_t _kp_event_filter(const char *event_name, const char *filter, void *inst)
{
    if (!event_name || !filter)
        return -EINVAL;
    return with_instance(inst, [&](kprobe::Instance &instance) { return instance.filter(event_name, filter); });
}

int32_t _cache_clean(void *inst)
{
    return with_instance(inst, [](kprobe::Instance &instance) {
        instance.clean();
        return 0;
    });
}

int32_t kp_loss_counts(void *inst, struct kp_losses *out)
{
    if (!out)
        return -EINVAL;
    return with_instance(inst, [&](kprobe::Instance &instance) {
        *out = instance.losses();
        return 0;
    });
}

int32_t kp_losses_total(struct kp_losses *out)
{
    if (!out)
        return -EINVAL;
    return without_exceptions<int32_t>(-ENOMEM, [&] { return Library::get().losses(*out); });
}

int32_t kp_ins_del(void *inst)
{
    return without_exceptions<int32_t>(-ENOMEM, [&] { return Library::get().remove(inst); });
}

const char *kp_unavailable(void)
{
    return without_exceptions<const char *>("out of memory", [] {
        Library::get().os_info();
        return Library::get().why_not();
    });
}

}  // extern "C"
