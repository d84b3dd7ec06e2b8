/* The account of what was placed and refused, and the call that hands it out. */
#include "fmon_status.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "fmon.h"
#include "fmon_shell.h"
#include "linux/fmon_linux.h"
#include "linux/fs/fs_source.h"
#include "linux/probe/clt_file.h"
#include "linux/probe/clt_inotify.h"

struct fmon_account fmon_account;

namespace
{

/* The counter of each reason, in their order. */
constexpr uint64_t fmon_left_out::*kCounters[] = {
    &fmon_left_out::inotify_limit, &fmon_left_out::fanotify_limit, &fmon_left_out::cache_full, &fmon_left_out::denied,
    &fmon_left_out::descriptors,   &fmon_left_out::too_long,       &fmon_left_out::gone,       &fmon_left_out::other,
};
static_assert(sizeof(kCounters) / sizeof(kCounters[0]) == FMON_LEFT_OTHER, "a counter for each reason");

void copy_text(char *out, size_t size, const char *text)
{
    const size_t length = text ? strnlen(text, size - 1) : 0;
    if (text)
        memcpy(out, text, length);
    out[length] = '\0';
}

uint32_t reason_of(uint32_t step, int32_t error)
{
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
            return FMON_LEFT_GONE;
        case EACCES:
        case EPERM:
            return FMON_LEFT_DENIED;
        case EMFILE:
        case ENFILE:
            return FMON_LEFT_DESCRIPTORS;
        case ENOSPC:
            if (step == FMON_STEP_INOTIFY)
                return FMON_LEFT_INOTIFY_LIMIT;
            return step == FMON_STEP_FANOTIFY ? FMON_LEFT_FANOTIFY_LIMIT : FMON_LEFT_OTHER;
        default:
            return FMON_LEFT_OTHER;
    }
}

void fill_losses(struct fmon_status *out)
{
    out->lost = fmon.lost;
    out->lost.inotify = fmlnx.ino_overflow;
    out->lost.fanotify = fmlnx.fan_overflow;
    kpnotify_losses(&out->lost);
    out->released = fmon.released;
    memcpy(out->lost_path, fmon.lost_path, sizeof out->lost_path);
}

void fill_sources(struct fmon_status *out)
{
    out->monitor = fmon_account.monitor;
    out->inotify = fmon_account.inotify;
    out->fanotify = fmon_account.fanotify;
    out->mounts = fmon_account.mounts;
    out->inotify_probe = fmon_account.inotify_probe;
    clt_inotify_look(&out->inotify_probe);
    out->file_probes = fmon_account.file_probes;
}

void note_fallback(uint32_t reason, int32_t error, const char *path)
{
    struct fmon_fallback *last = &fmon_account.fs.last_fallback;
    last->reason = reason;
    last->error = error;
    copy_text(last->path, sizeof last->path, path);
}

void fill_counts(struct fmon_status *out)
{
    out->watches = fmon_account.watches;
    out->inotify_watches = seq_live(&fmlnx.seq);
    out->directories = fmlnx.marked_directories;
    out->records = static_cast<uint64_t>(fmon.event_count);
    out->max_records = static_cast<uint64_t>(fmon.max_events);
    out->refusals = fmon_account.refusals;
    out->left_out = fmon_account.left_out;
    out->last_refusal = fmon_account.last_refusal;
}

}  // namespace

void account_refused(uint32_t reason, uint32_t step, int32_t code, int32_t error, const char *path)
{
    struct fmon_refusal *last = &fmon_account.last_refusal;
    last->code = code;
    last->error = error;
    last->reason = reason;
    last->step = step;
    copy_text(last->path, sizeof last->path, path);
    fmon_account.refusals++;
    if (!fmon_account.counted)
        (fmon_account.left_out.*kCounters[reason - 1])++;
    fmon_account.counted = true;
    if (fmon_account.mark_cb)
        fmon_account.mark_cb(last->path, last);
}

void account_system_refused(uint32_t step, int32_t code, int32_t error, const char *path)
{
    account_refused(reason_of(step, error), step, code, error, path);
}

void account_marked(const char *path)
{
    if (fmon_account.mark_cb)
        fmon_account.mark_cb(path, nullptr);
}

void account_fallback(uint32_t reason, int32_t error, const char *path)
{
    note_fallback(reason, error, path);
    fmon_account.fs.fallbacks++;
}

void account_left_out(uint32_t reason, int32_t error, const char *path)
{
    note_fallback(reason, error, path);
    fmon_account.fs.left_out++;
}

void account_begin(void)
{
    const fmon_mark_cb listener = fmon_account.mark_cb;
    fmon_account = {};
    fmon_account.mark_cb = listener;
}

void account_source_on(struct fmon_source *source)
{
    *source = {};
    source->state = FMON_SOURCE_ON;
}

void account_trouble(struct fmon_source *source, uint32_t reason, int32_t code, int32_t error, const char *why)
{
    if (source->reason != FMON_WHY_NONE)
        return;
    source->reason = reason;
    source->code = code;
    source->error = error;
    copy_text(source->why, sizeof source->why, why);
}

void account_source_refused(struct fmon_source *source, uint32_t reason, int32_t code, int32_t error, const char *why)
{
    account_trouble(source, reason, code, error, why);
    source->state = FMON_SOURCE_REFUSED;
}

void account_monitor_ended(const char *what, int32_t code, int32_t error)
{
    fmon_account.monitor.reason = FMON_WHY_NONE;
    account_source_refused(&fmon_account.monitor, error ? FMON_WHY_SYSTEM : FMON_WHY_OTHER, code, error, what);
}

void account_sources_off(void)
{
    for (struct fmon_source *source :
         {&fmon_account.monitor, &fmon_account.inotify, &fmon_account.fanotify, &fmon_account.mounts,
          &fmon_account.inotify_probe, &fmon_account.file_probes, &fmon_account.fs.source})
        if (source->state == FMON_SOURCE_ON)
            *source = {};
}

int _orx_fmon_status(struct fmon_status *out)
{
    const ShellLock lock;
    if (!lock)
        return FMON_ENOTINIT;
    const bool ended = fmon_account.monitor.state == FMON_SOURCE_REFUSED;
    if (!fmon.inited && !ended)
        return FMON_ENOTINIT;
    if (out->size < offsetof(struct fmon_status, lost))
        return FMON_EINVAL;
    struct fmon_status now = {};
    now.size = out->size < sizeof now ? out->size : static_cast<uint32_t>(sizeof now);
    now.hardened = fmon.hardened;
    fill_losses(&now);
    fill_counts(&now);
    fill_sources(&now);
    fs_source_status(&now);
    memcpy(out, &now, now.size);
    return fmon.inited ? 0 : FMON_ENOTINIT;
}

int _orx_fmon_on_mark(fmon_mark_cb cb)
{
    const ShellLock lock;
    if (!lock || !fmon.inited)
        return FMON_ENOTINIT;
    fmon_account.mark_cb = cb;
    return 0;
}
