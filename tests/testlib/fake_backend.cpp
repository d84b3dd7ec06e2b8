#include "testlib/fake_backend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "list.h"
#include "testlib/hardened.h"

namespace testlib
{

namespace
{

FakeBackend *current = nullptr;
std::mutex calls_mutex; /* a test may count while a monitor thread calls */

__attribute__((format(printf, 1, 2))) void note(const char *fmt, ...)
{
    char text[2048];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    std::lock_guard<std::mutex> guard(calls_mutex);
    current->calls.push_back(text);
}

int fake_pre_init(void)
{
    note("pre_init()");
    return 0;
}

int fake_init(struct fmon *)
{
    note("init()");
    return current->init_result;
}

void fake_deinit(void) { note("deinit()"); }

int fake_check_watch(struct watch *w)
{
    note("check_watch(%s)", w->path ? w->path : "");
    return current->check_result;
}

int attach(struct fmon *monitor, struct watch *w)
{
    struct dentry *d = dcache_add(&monitor->dcache, w->path);
    if (!d)
        return FMON_ENOMEM;
    w->dentry = d;
    list_add_tail(&w->link, &owner_of(d)->watches);
    return 0;
}

int fake_add_watch(struct fmon *monitor, struct watch *w)
{
    note("add_watch(%s)", w->path);
    if (current->on_add)
        return current->on_add(w);
    return current->add_result ? current->add_result : attach(monitor, w);
}

int fake_del_watch(struct fmon *, struct watch *w)
{
    note("del_watch(%s)", w->path);
    if (current->on_del)
        return current->on_del(w);
    list_unlink(&w->link);
    w->dentry = nullptr;
    return current->del_result;
}

int fake_get_selectable_fds(int32_t **fds, uint32_t *timeout_ms)
{
    note("get_selectable_fds()");
    *fds = current->fds.data();
    if (current->lower_timeout)
        *timeout_ms = current->lower_timeout;
    return static_cast<int>(current->fds.size());
}

int fake_read_event(struct fmon *monitor, uint32_t now, fmon_event_cb cb)
{
    note("read_event(%u)", now);
    return current->on_read ? current->on_read(monitor, now, cb) : current->read_result;
}

void fake_dump(uint32_t type, void *) { note("dump(%u)", type); }

int fake_rate_ctrl(uint32_t limit, uint32_t interval, uint32_t log)
{
    note("rate_ctrl(%u,%u,%u)", limit, interval, log);
    return current->rate_result;
}

int fake_punish(int fd, char *path)
{
    note("punish(%d,%s)", fd, path);
    return current->punish_result;
}

int fake_add_global(uint32_t mask)
{
    note("add_global(0x%x)", mask);
    return current->add_global_result;
}

int fake_del_global(uint32_t mask)
{
    note("del_global(0x%x)", mask);
    return current->del_global_result;
}

int fake_update_global(int id)
{
    note("update_global(%d)", id);
    return current->update_global_result;
}

constexpr struct fmon_method_t kFake = {
    .name = "fake",
    .pre_init = fake_pre_init,
    .init = fake_init,
    .deinit = fake_deinit,
    .check_watch = fake_check_watch,
    .add_watch = fake_add_watch,
    .del_watch = fake_del_watch,
    .get_selectable_fds = fake_get_selectable_fds,
    .read_event = fake_read_event,
    .dump = fake_dump,
    .rate_ctrl = fake_rate_ctrl,
    .punish_unexpected_watch = fake_punish,
    .add_global = fake_add_global,
    .del_global = fake_del_global,
    .update_global = fake_update_global,
};

/* Live instances and their records go before the cache does. */
void destroy_instances()
{
    for (int id = 0; id < FMON_MAX_INSTANCES; id++)
        if (fmon.instances[id].name[0])
            fmon_destroy_instance(id);
}

struct fmon pristine; /* the core's object as it was before the monitor's start */

}  // namespace

FakeBackend::FakeBackend() : saved_(fmon_method)
{
    current = this;
    fmon_method = kFake;
}

FakeBackend::~FakeBackend()
{
    fmon_method = saved_;
    current = nullptr;
}

int FakeBackend::count(const std::string &call) const
{
    std::lock_guard<std::mutex> guard(calls_mutex);
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

void FakeBackend::drop_optional()
{
    fmon_method.check_watch = nullptr;
    fmon_method.dump = nullptr;
    fmon_method.punish_unexpected_watch = nullptr;
}

Monitor::Monitor(int max_events, int max_dentries, int tbd_interval)
{
    memcpy(&pristine, &fmon, sizeof fmon);
    fmon.hardened = hardened();
    EXPECT_EQ(0, fmon_init(max_events, max_dentries, tbd_interval));
}

/* The object is put back as it was: what a stopped monitor keeps must not reach the next test. */
Monitor::~Monitor()
{
    if (fmon.inited) {
        destroy_instances();
        fmon_deinit();
    }
    memcpy(&fmon, &pristine, sizeof fmon);
}

}  // namespace testlib
