/*
 * quiet_monitor.h: a started monitor without a kernel behind it: no watch is ever marked, nothing is read.
 */
#ifndef BENCH_QUIET_MONITOR_H
#define BENCH_QUIET_MONITOR_H

#include "fmon.h"
#include "list.h"

namespace bench
{

/* Stopped, with its instances destroyed, at the end of its life. */
class QuietMonitor
{
public:
    explicit QuietMonitor(int max_events) : saved_(fmon_method)
    {
        fmon_method = {};
        fmon_method.init = [](struct fmon *) { return 0; };
        fmon_method.deinit = [] {};
        fmon_method.add_watch = [](struct fmon *, struct watch *) { return int{FMON_ENOENT}; };
        fmon_method.del_watch = [](struct fmon *, struct watch *w) {
            list_unlink(&w->link);
            return 0;
        };
        fmon_method.del_global = [](uint32_t) { return 0; };
        fmon_init(max_events, DCACHE_MAX_ENTRIES, 30000);
    }
    ~QuietMonitor()
    {
        for (int id = 0; id < FMON_MAX_INSTANCES; id++)
            fmon_destroy_instance(id);
        fmon_deinit();
        fmon_method = saved_;
    }
    QuietMonitor(const QuietMonitor &) = delete;
    QuietMonitor &operator=(const QuietMonitor &) = delete;

private:
    struct fmon_method_t saved_;
};

}  // namespace bench

#endif
