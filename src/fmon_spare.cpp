/*
 * Directories that an instance has spared: its recursive watches have no marks at or below them, and get no event from
 * below. Paths are compared from their last name on, which tells most apart at once, and no path is built for it.
 */
#include <cstdlib>
#include <cstring>

#include "fmon.h"
#include "list.h"
#include "log.h"

/* Allocated with its path behind it. */
struct spared {
    struct spared *next;
    size_t length;
    char path[1];
};

namespace
{

constexpr char kFile[] = "fmon_spare.c";

bool is_path(const char *path)
{
    const size_t length = strlen(path);
    return path[0] == '/' && length > 1 && length < DCACHE_PATH_MAX && path[length - 1] != '/' && !strstr(path, "//") &&
           !strchr(path, '*');
}

const struct spared *find(const struct instance *inst, const char *path)
{
    for (const struct spared *each = inst->spared; each; each = each->next)
        if (strcmp(each->path, path) == 0)
            return each;
    return nullptr;
}

/* Takes "/" and the name off the end of the path. False: it does not end so. */
bool take_name(const char *path, size_t *length, const char *name, size_t name_length)
{
    if (*length <= name_length || memcmp(path + *length - name_length, name, name_length) != 0 ||
        path[*length - name_length - 1] != '/')
        return false;
    *length -= name_length + 1;
    return true;
}

bool is_path_of(struct dentry *d, const char *path, size_t length)
{
    for (; d->parent; d = d->parent)
        if (!take_name(path, &length, dentry_name(d), d->len))
            return false;
    return length == 0;
}

bool is_at_or_below(struct dentry *d, const char *name, const struct spared *spared)
{
    size_t length = spared->length;
    if (name && take_name(spared->path, &length, name, strlen(name)) && is_path_of(d, spared->path, length))
        return true;
    for (; d; d = d->parent)
        if (is_path_of(d, spared->path, spared->length))
            return true;
    return false;
}

}  // namespace

int fmon_spare(int instance, const char *path)
{
    const int result = fmon_check_instance(instance);
    if (result < 0)
        return result;
    struct instance *inst = &fmon.instances[instance];
    if (!is_path(path) || !list_empty(&inst->watches))
        return FMON_EINVAL;
    if (find(inst, path))
        return FMON_EEXIST;
    const size_t length = strlen(path);
    auto *spared = static_cast<struct spared *>(malloc(sizeof(struct spared) + length));
    if (!spared)
        return FMON_ENOMEM;
    FMON_LOG(4, kFile, "instance %d spares %s\n", instance, path);
    spared->next = inst->spared;
    spared->length = length;
    memcpy(spared->path, path, length + 1);
    inst->spared = spared;
    fmon.spared++;
    return 0;
}

void fmon_forget_spared(struct instance *inst)
{
    while (struct spared *first = inst->spared) {
        inst->spared = first->next;
        free(first);
        fmon.spared--;
    }
}

bool fmon_spares(const struct watch *w, struct dentry *d, const char *name)
{
    if (fmon.spared == 0)
        return false;
    for (const struct spared *each = fmon.instances[w->instance].spared; each; each = each->next)
        if (is_at_or_below(d, name, each))
            return true;
    return false;
}

bool fmon_any_spares(struct dentry *d)
{
    if (fmon.spared == 0)
        return false;
    for (const struct instance &inst : fmon.instances)
        for (const struct spared *each = inst.name[0] ? inst.spared : nullptr; each; each = each->next)
            if (is_path_of(d, each->path, each->length))
                return true;
    return false;
}

bool fmon_spares_event(const struct watch *w, const char *path)
{
    if (fmon.spared == 0 || !(w->flags & FMON_RECURSIVE) || (w->flags & FMON_MOUNT))
        return false;
    for (const struct spared *each = fmon.instances[w->instance].spared; each; each = each->next)
        if (strncmp(path, each->path, each->length) == 0 && path[each->length] == '/')
            return true;
    return false;
}
