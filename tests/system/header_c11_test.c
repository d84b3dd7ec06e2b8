/*
 * The public headers in strict C11, and through them a whole turn: start, client, watch, event, and the way back.
 */
#define _POSIX_C_SOURCE 200809L

#include "container_tool_utils.h"
#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_event_loop.h"
#include "orx_fmon.h"
#include "orx_host.h"
#include "orx_list.h"
#include "orx_sensitivedir.h"
#include "watch_map.h"

#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static atomic_int creations;
static char directory[4096];

#define CHECK(condition)                                                            \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
            exit(1);                                                                \
        }                                                                           \
    } while (0)

static int32_t on_event(struct event *ev)
{
    size_t length = strlen(directory);
    int below = strncmp(ev->path, directory, length) == 0 && ev->path[length] == '/';
    if (below && (ev->mask & FMON_CREATE) && strcmp(ev->path + length + 1, "file") == 0)
        atomic_fetch_add(&creations, 1);
    return 0;
}

static void make_directory(void)
{
    const char *tmp = getenv("TMPDIR");
    snprintf(directory, sizeof directory, "%s/c11-XXXXXX", tmp ? tmp : "/tmp");
    CHECK(mkdtemp(directory));
}

static void make_file(void)
{
    char path[4200];
    snprintf(path, sizeof path, "%s/file", directory);
    FILE *file = fopen(path, "w");
    CHECK(file && fclose(file) == 0);
}

static void remove_directory(void)
{
    char path[4200];
    snprintf(path, sizeof path, "%s/file", directory);
    CHECK(remove(path) == 0 && remove(directory) == 0);
}

static int wait_for_creation(void)
{
    struct timespec tenth = {0, 100000000};
    for (int i = 0; i < 150 && atomic_load(&creations) == 0; i++)
        nanosleep(&tenth, NULL);
    return atomic_load(&creations);
}

static void check_names(void)
{
    char list[] = "create,close", flags[] = "dir,recursive";
    CHECK(event_mask(list) == (FMON_CREATE | FMON_CLOSE));
    CHECK(flags_mask(flags) == (FMON_DIR | FMON_RECURSIVE));
    CHECK(strcmp(event_str(FMON_CLOSE), "close_write,close_nowrite") == 0);
    CHECK(strcmp(event_str2(FMON_CREATE), "create") == 0);
    CHECK(strcmp(flags_str(FMON_DIR | FMON_RECURSIVE), "dir,recursive") == 0);
}

static void check_refusals(uint32_t id)
{
    CHECK(_orx_fmon_create_instance("c11", callback_func) == FMON_EEXIST);
    CHECK(_orx_fmon_add_watch(id, directory, FMON_CREATE, FMON_DIR, 0, 0) == FMON_EEXIST);
    CHECK(_orx_fmon_add_watch(id, directory, FMON_CREATE, FMON_FILE, 0, 0) != 0);
    CHECK(_orx_fmon_add_watch(id, "relative", FMON_CREATE, FMON_DIR, 0, 0) == FMON_EINVAL);
    CHECK(_orx_fmon_add_watch(id, directory, FMON_LINK, FMON_DIR, 0, 0) != 0);
    CHECK(_orx_fmon_del_watch(id, "/nowhere") == FMON_ENOENT);
    CHECK(_orx_fmon_del_instance(17) == -1);
}

int main(void)
{
    struct fmon_losses losses;
    char container_path[260];
    CHECK(_orx_fmon_losses(&losses) == FMON_ENOTINIT);
    CHECK(_orx_fmon_create_instance("c11", on_event) == FMON_ENOTINIT);
    check_names();
    make_directory();
    error_output_level = ORX_LOG_WARNING;

    CHECK(orx_fmon_init(0, NULL) == 0);
    CHECK(orx_fmon_init(0, NULL) == 0); /* runs already */
    CHECK(g_container_flag == 0 || g_container_flag == 1);
    int id = _orx_fmon_create_instance("c11", on_event);
    CHECK(id == 0);
    CHECK(_orx_fmon_add_watch((uint32_t)id, directory, FMON_CREATE | FMON_DELETE, FMON_DIR, 0, 0) == 0);
    check_refusals((uint32_t)id);
    make_file();
    CHECK(wait_for_creation() == 1);
    CHECK(_orx_fmon_losses(&losses) == 0 && losses.inotify_overflow == 0 && losses.unknown_wd == 0);
    CHECK(_orx_fmon_dump(0, NULL) == 0 && _orx_fmon_dump(7, NULL) == -1);
    CHECK(_orx_get_container_path(container_path) == 0);
    CHECK(strcmp(container_path, "/rootfs/var/lib/docker/containers/*") == 0);

    CHECK(_orx_fmon_del_watch((uint32_t)id, directory) == 0);
    CHECK(_orx_fmon_del_instance((uint32_t)id) == 0);
    remove_directory();
    CHECK(atomic_load(&creations) == 1);
    puts("ok");
    return 0;
}
