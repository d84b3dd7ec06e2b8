/*
 * fake_backend.h: a backend in fmon_method that records calls and answers as told.
 */
#ifndef TESTLIB_FAKE_BACKEND_H
#define TESTLIB_FAKE_BACKEND_H

#include <functional>
#include <string>
#include <vector>

#include "fmon.h"

namespace testlib
{

/* What the backend answers, changeable at any time. */
struct BackendResults {
    int init_result = 0, check_result = 0, add_result = 0, del_result = 0, read_result = 0, rate_result = 0;
    int add_global_result = 0, del_global_result = 0, update_global_result = 0, punish_result = 0;
    std::vector<int32_t> fds;   /* what get_selectable_fds hands out, all entries */
    uint32_t lower_timeout = 0; /* not 0: stored in *timeout_ms */
};

/* Installs itself into fmon_method for its life and puts the old table back. */
class FakeBackend : public BackendResults
{
public:
    FakeBackend();
    ~FakeBackend();
    FakeBackend(const FakeBackend &) = delete;
    FakeBackend &operator=(const FakeBackend &) = delete;

    /* Called instead of the default where set. The default add_watch makes the path's dentry in fmon.dcache and links
     * the watch to it; the default del_watch unlinks it and clears its dentry. */
    std::function<int(struct watch *)> on_add, on_del;
    std::function<int(struct fmon *, uint32_t now, fmon_event_cb)> on_read;

    /* "name(args)" in order, e.g. "add_watch(/a)", "add_global(0x8)", "rate_ctrl(10,200,0)", "punish(5,/a/b)". */
    std::vector<std::string> calls;
    int count(const std::string &call) const;
    void drop_optional(); /* sets check_watch, dump, punish_unexpected_watch to null */

private:
    struct fmon_method_t saved_;
};

/* A started monitor over a FakeBackend, hardened where the program is run so; stopped, with its instances destroyed, at
 * the end. */
class Monitor
{
public:
    explicit Monitor(int max_events = 100, int max_dentries = 1000, int tbd_interval = 1000);
    ~Monitor();
    FakeBackend backend;
};

}  // namespace testlib

#endif
