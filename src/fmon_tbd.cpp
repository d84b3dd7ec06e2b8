/*
 * The to-be-done list: watches that wait for their path, and wildcard watches, which wait for ever. A pass goes through
 * it in order; what it attaches leaves the list, what the backend refuses keeps its place.
 */
#include "fmon_watch.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "fmon.c";

/*
 * One link serves both this list and the dentry's, so it must be out of here before the backend links it there; `next`
 * marks the place to put it back to.
 */
void retry_watch(struct watch *w, list_head *next)
{
    if (watch_exists(w->path, w->flags) < 0)
        return;
    list_unlink(&w->link);
    int result = fmon_method.add_watch(&fmon, w);
    if (result < 0) {
        FMON_LOG(1, kFile, "add deleted flag watch %s failed: %d\n", w->path, result);
        list_add_tail(&w->link, next);
        return;
    }
    FMON_LOG(4, kFile, "tbd watch %s added\n", w->path);
}

}  // namespace

void fmon_tbd_pass(void)
{
    FMON_LIST_EACH_SAFE (node, &fmon.tbd) {
        struct watch *w = FMON_RECORD(node, struct watch, link);
        if (w->flags & FMON_ASTERISK)
            watch_expand(w);
        else
            retry_watch(w, node_next);
    }
}

/* A watch that is neither dynamic nor may wait stays listed with its instance, attached to nothing. */
void watch_out_service(struct fmon *monitor, struct watch *w)
{
    if (w->flags & FMON_DYNAMIC)
        watch_drop(w); /* its pattern makes it again when the path comes back */
    else if (w->flags & FMON_DELETED)
        list_add_tail(&w->link, &monitor->tbd);
}
