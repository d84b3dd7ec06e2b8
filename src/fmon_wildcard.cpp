/*
 * Wildcard watches: the pattern waits for ever, each path that it matches has a dynamic watch.
 *
 * A pattern is never attached. Its dynamic watches stand in the same instance's list with `parent` naming it; those
 * whose directory vanishes are freed, and made again by a later pass when the path comes back.
 */
#include <cstdlib>
#include <cstring>

#include "fmon_watch.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "fmon.c";

/*
 * The dynamic watches of one pattern, looked up by path. The list is searched round from the last hit: the expander
 * names paths in the same order each time, so a pass over many matches stays linear.
 */
class DynamicWatches
{
public:
    explicit DynamicWatches(struct watch *pattern)
        : pattern_(pattern), head_(&fmon.instances[pattern->instance].watches), start_(head_)
    {
    }

    bool has(const char *path)
    {
        list_head *node = start_;
        do {
            node = node->next;
            if (node != head_ && is(FMON_RECORD(node, struct watch, inst_link), path)) {
                start_ = node;
                return true;
            }
        } while (node != start_);
        return false;
    }

private:
    bool is(const struct watch *w, const char *path) const
    {
        return w->parent == pattern_ && strcmp(w->path, path) == 0;
    }

    struct watch *pattern_;
    list_head *head_, *start_;
};

/* The record for a path just matched, or null when there is nothing to add. */
struct watch *new_dynamic(struct watch *pattern, const char *path, DynamicWatches *known)
{
    if (known->has(path) || watch_exists(path, pattern->flags) < 0)
        return nullptr;
    auto max_subdirs = static_cast<uint32_t>(pattern->max_subdirs);
    struct watch *w =
        watch_new(pattern->instance, path, {pattern->mask, pattern->flags, pattern->max_depth, max_subdirs});
    if (!w) {
        FMON_LOG(1, kFile, "watch malloc fail\n");
        return nullptr;
    }
    /* Reached through a link that the pattern matches too, it would be made again in every pass. */
    if (strcmp(w->path, path) != 0 && known->has(w->path)) {
        watch_free(w);
        return nullptr;
    }
    w->flags |= FMON_DYNAMIC; /* beside FMON_ASTERISK, which stays */
    w->parent = pattern;
    return w;
}

void add_dynamic(struct watch *pattern, const char *path, DynamicWatches *known)
{
    struct watch *w = new_dynamic(pattern, path, known);
    if (!w)
        return;
    int result = fmon_method.add_watch(&fmon, w);
    if (result < 0) {
        FMON_LOG(1, kFile, "add watch %s failed: %d\n", w->path, result);
        watch_free(w);
        return;
    }
    FMON_LOG(4, kFile, "add asterisk watch %s (%s)\n", w->path, pattern->path);
    list_add_tail(&w->inst_link, &fmon.instances[w->instance].watches);
}

}  // namespace

void watch_expand(struct watch *pattern)
{
    list_head found;
    list_init(&found);
    orx_wildcard_path_expand(pattern->path, &found); /* on failure the list still holds what it found so far */

    DynamicWatches known(pattern);
    FMON_LIST_EACH_SAFE (node, &found) {
        struct orx_path_entry *entry = FMON_RECORD(node, struct orx_path_entry, link);
        add_dynamic(pattern, entry->path, &known);
        free(entry->path);
        free(entry);
    }
}

void watch_delete_dynamic(struct watch *pattern)
{
    FMON_LIST_EACH_SAFE (node, &fmon.instances[pattern->instance].watches) {
        struct watch *w = FMON_RECORD(node, struct watch, inst_link);
        if (w->parent != pattern)
            continue;
        FMON_LOG(4, kFile, "delete asterisk dynamic watch %s\n", w->path);
        int result = w->dentry ? watch_detach(w) : 0; /* one that a restart cut off is no longer the backend's */
        if (result < 0)
            FMON_LOG(1, kFile, "del watch %s failed: %d\n", w->path, result);
        watch_drop(w);
    }
}
