/*
 * The watch registry: records, checks, adding and deleting.
 *
 * Watches are told apart by their stored path, which is the canonical one where there is one. A client that adds
 * through a link therefore deletes by the resolved path.
 */
#include "fmon_watch.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "event.h"
#include "list.h"
#include "log.h"

namespace
{

constexpr char kFile[] = "fmon.c";
constexpr uint32_t kTypeFlags = FMON_FILE | FMON_DIR | FMON_MOUNT;

bool path_well_formed(const char *path)
{
    size_t len = strlen(path);
    return path[0] == '/' && !strstr(path, "//") && (len == 1 || path[len - 1] != '/');
}

/* A file has nothing below it, and the tree below a mount is not kept in step. */
bool flags_well_formed(uint32_t flags)
{
    uint32_t type = flags & kTypeFlags;
    if (type != FMON_FILE && type != FMON_DIR && type != FMON_MOUNT)
        return false;
    if (type == FMON_FILE && (flags & FMON_RECURSIVE))
        return false;
    return !((flags & FMON_SYNC) && type == FMON_MOUNT);
}

/*
 * The path's shape is judged as the client spelled it, since resolving it mends "//" and a trailing "/"; stars are
 * counted in what is stored. Flag bits that have no meaning, and the monitor's own, are let through.
 */
int check_watch(struct watch *w, const char *given_path)
{
    if ((w->mask & FMON_ALL_EVENTS) == 0 || w->mask > FMON_ALL_EVENTS)
        return FMON_EINVAL;
    if (!flags_well_formed(w->flags) || !path_well_formed(given_path))
        return FMON_EINVAL;
    const char *star = strchr(w->path, '*');
    if (star) {
        if ((w->flags & FMON_DELETED) || strchr(star + 1, '*'))
            return FMON_EINVAL;
        w->flags |= FMON_ASTERISK;
    }
    return fmon_method.check_watch ? fmon_method.check_watch(w) : 0;
}

/* Inside a container paths are the host's, which cannot be resolved from here. */
bool refuses_links(uint32_t flags) { return fmon.hardened && (flags & FMON_NO_LINKS) && !g_container_flag; }

bool has_no_link(const char *path)
{
    char resolved[PATH_MAX];
    return realpath(path, resolved) && strcmp(path, resolved) == 0;
}

/* The first one with exactly that stored path; patterns and dynamic watches count. */
struct watch *find_watch(int instance, const char *path)
{
    FMON_LIST_EACH (node, &fmon.instances[instance].watches) {
        struct watch *w = FMON_RECORD(node, struct watch, inst_link);
        if (strcmp(w->path, path) == 0)
            return w;
    }
    return nullptr;
}

/* Places a checked watch. Below 0, or above: refused, the record is still the caller's. */
int place_watch(struct watch *w)
{
    struct instance *inst = &fmon.instances[w->instance];
    if (w->flags & FMON_ASTERISK) {
        list_add_tail(&w->link, &fmon.tbd);
        list_add_tail(&w->inst_link, &inst->watches);
        watch_expand(w);
        return 0;
    }
    int result = watch_exists(w->path, w->flags);
    if (result == 0)
        result = fmon_method.add_watch(&fmon, w);
    bool waits = result == FMON_ENOENT && (w->flags & FMON_DELETED);
    if (result != 0 && !waits) {
        FMON_LOG(1, kFile, "add watch failed: %d\n", result);
        return result;
    }
    if (waits) {
        FMON_LOG(4, kFile, "this watch is add to tbd list\n");
        list_add_tail(&w->link, &fmon.tbd);
    }
    list_add_tail(&w->inst_link, &inst->watches);
    return 0;
}

}  // namespace

struct watch *watch_new(int instance, const char *path, const struct watch_request &request)
{
    auto *w = static_cast<struct watch *>(calloc(1, sizeof(struct watch)));
    if (!w)
        return nullptr;
    w->mask = request.mask;
    w->flags = request.flags;
    w->instance = static_cast<uint16_t>(instance);
    w->max_depth = static_cast<uint16_t>(request.max_depth);
    w->max_subdirs = static_cast<int32_t>(request.max_subdirs);

    /* In a container the path is the host's, which cannot be resolved from here. */
    char resolved[PATH_MAX];
    const char *stored = path;
    if (!g_container_flag && !refuses_links(request.flags) && realpath(path, resolved))
        stored = resolved;
    const size_t size = strlen(stored) + 1;
    w->path = static_cast<char *>(malloc(size));
    if (!w->path) {
        free(w);
        return nullptr;
    }
    memcpy(w->path, stored, size);
    FMON_LOG(4, kFile, "watch new, origin path: %s, rpath: %s", path, w->path);
    return w;
}

void watch_free(struct watch *w)
{
    free(w->path);
    free(w);
}

void watch_drop(struct watch *w)
{
    list_unlink(&w->inst_link);
    watch_free(w);
}

int watch_detach(struct watch *w)
{
    int result = fmon_method.del_watch(&fmon, w);
    list_unlink(&w->link); /* a backend that failed early may have left it in its dentry */
    return result;
}

int watch_exists(const char *path, uint32_t flags)
{
    struct stat st;
    if (lstat(path, &st) != 0 || (refuses_links(flags) && !has_no_link(path)))
        return FMON_ENOENT;
    if ((flags & FMON_FILE) && !S_ISREG(st.st_mode))
        return FMON_ENOENT;
    /* What the host mounts there is not seen from inside a container. */
    if ((flags & (FMON_DIR | FMON_MOUNT)) && !S_ISDIR(st.st_mode) && !g_container_flag)
        return FMON_ENOENT;
    return 0;
}

int fmon_add_watch(int instance, const char *path, uint32_t mask, uint32_t flags, uint32_t max_depth,
                   uint32_t max_subdirs)
{
    int result = fmon_check_instance(instance);
    if (result < 0)
        return result;
    FMON_LOG(4, kFile, "add watch: %s, event %s, flags %s, max depth %d, max subdirs %d\n", path, event_str(mask),
             flags_str(flags), max_depth, max_subdirs);

    /* Compared with resolved paths: what was added through a link may be added through it again. */
    if (find_watch(instance, path))
        return FMON_EEXIST;
    struct watch *w = watch_new(instance, path, {mask, flags, max_depth, max_subdirs});
    if (!w)
        return FMON_ENOMEM;
    result = check_watch(w, path);
    if (result < 0)
        FMON_LOG(1, kFile, "check watch failed\n");
    else
        result = place_watch(w);
    if (result != 0)
        watch_free(w);
    return result;
}

int fmon_del_watch(int instance, const char *path)
{
    int result = fmon_check_instance(instance);
    if (result < 0)
        return result;
    struct watch *w = find_watch(instance, path);
    if (!w)
        return FMON_ENOENT;
    FMON_LOG(4, kFile, "del watch: %s from instance %s\n", path, fmon.instances[instance].name);

    if (w->flags & FMON_ASTERISK) {
        FMON_LOG(4, kFile, "delete asterisk watch\n");
        watch_delete_dynamic(w);
        list_unlink(&w->link); /* a dynamic watch comes here too: it leaves its dentry early, which does no harm */
    }
    if ((w->flags & FMON_DELETED) && !w->dentry) {
        FMON_LOG(4, kFile, "delete deleted watch\n");
        list_unlink(&w->link);
    } else if (w->dentry) {
        result = watch_detach(w);
        if (result < 0)
            FMON_LOG(1, kFile, "del watch failed: %d\n", result);
    }
    watch_drop(w);
    return 0;
}
