/*
 * host-example.c: a complete agent that embeds the file monitor, in one file and without liborx_base.so.
 *
 *   cc -std=c11 -Iinclude -rdynamic -pthread -o host-example docs/host-example.c -ldl
 *   ./host-example lib/libfmon.so
 *
 * It watches a new directory, makes a file in it, prints the event and exits with 0. What the monitor imports stands
 * first; each function is the least that is correct.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <glob.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_event_loop.h"
#include "orx_fmon.h"

/* ---- log: lines may or may not bring their newline ---- */

int error_output_level = ORX_LOG_WARNING; /* optional; without it every debug line is formatted and handed over */

void error_output(int level, const char *file, int line, const char *fmt, ...)
{
    int error = errno; /* the monitor reports errno after it has logged */
    char text[2048];
    if (level > error_output_level)
        return;
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    text[strcspn(text, "\n")] = 0; /* a name with a newline in it must not forge a second line */
    fprintf(stderr, "<%d> %s:%d %s\n", level, file, line, text);
    errno = error;
}

int autolog_init(const char *path,
                 int n) /* called on the monitor thread, with the directory and how many files to keep */
{
    (void)path;
    (void)n;
    return 0; /* this agent stays on stderr */
}

void autolog_deinit(void) {}

/* ---- mutex ---- */

void *th_mutex_init(void)
{
    pthread_mutex_t *mutex = malloc(sizeof *mutex);
    if (mutex && pthread_mutex_init(mutex, NULL) != 0) {
        free(mutex);
        mutex = NULL;
    }
    return mutex;
}

int th_mutex_lock(void *mutex) { return pthread_mutex_lock(mutex); }
int th_mutex_unlock(void *mutex) { return pthread_mutex_unlock(mutex); }

void th_mutex_destroy(void *mutex)
{
    pthread_mutex_destroy(mutex);
    free(mutex);
}

/* ---- time: a tick is a millisecond here ---- */

void timer_init(void) {}

uint64_t timer_get_ticks(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000 + (uint64_t)now.tv_nsec / 1000000;
}

uint64_t timer_ticks2ms(uint64_t ticks) { return ticks; }

/* ---- INI: this agent has no file; the monitor then takes its defaults ---- */

void *orx_ini_file_load(const char *path)
{
    (void)path;
    return NULL;
}

const char *orx_ini_file_get(void *ini, const char *section, const char *key)
{
    (void)ini;
    (void)section;
    (void)key;
    return NULL;
}

void orx_ini_file_free(void *ini) { (void)ini; }

/* ---- text ---- */

int orx_str_snprintf(char *out, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int length = vsnprintf(out, size, fmt, args);
    va_end(args);
    return length;
}

char *orx_strncpy(char *dst, const char *src, size_t n) { return memcpy(memset(dst, 0, n), src, strnlen(src, n)); }

size_t orx_str_strlcpy(char *dst, const char *src, size_t size)
{
    snprintf(dst, size, "%s", src);
    return strlen(src);
}

/* ---- paths ---- */

int orx_dirutils_path_transform(const char *in, char *out, size_t out_size)
{
    char directory[4096] = "";
    if (in[0] == '@') {
        ssize_t length = readlink("/proc/self/exe", directory, sizeof directory - 1);
        directory[length > 0 ? length : 0] = 0;
        *strrchr(directory[0] ? directory : strcpy(directory, "/"), '/') = 0;
        in++;
    }
    int needed = snprintf(out, out_size, "%s%s", directory, in);
    return needed >= 0 && (size_t)needed < out_size ? 0 : -1;
}

/* glob() does for an agent whose clients put no "?", "[" or "\" in their patterns. */
int orx_wildcard_path_expand(const char *pattern, list_head *out)
{
    glob_t found;
    int result = glob(pattern, 0, NULL, &found);
    for (size_t i = 0; result == 0 && i < found.gl_pathc; i++) {
        struct orx_path_entry *entry = malloc(sizeof *entry); /* the monitor frees both with free() */
        char *path = strdup(found.gl_pathv[i]);
        if (!entry || !path) {
            free(entry);
            free(path);
            break;
        }
        entry->path = path;
        entry->link = (list_head){out, out->prev};
        out->prev->next = &entry->link;
        out->prev = &entry->link;
    }
    if (result != GLOB_NOMATCH)
        globfree(&found);
    return result == GLOB_NOSPACE ? -1 : 0;
}

/* ---- libraries ---- */

int orx_dll_close(void *handle) { return dlclose(handle); }

/* ---- threads and loops: an agent without loops has nothing to pump ---- */

struct start {
    int (*fn)(void *);
    void *arg;
};

static void *run(void *arg)
{
    struct start start = *(struct start *)arg;
    free(arg);
    start.fn(start.arg);
    return NULL;
}

int cl_ev_create_isolated_thread(void **handle, void *attr, int (*fn)(void *), void *arg)
{
    (void)attr;
    pthread_t thread;
    struct start *start = malloc(sizeof *start);
    if (!start)
        return -1;
    *start = (struct start){fn, arg};
    if (pthread_create(&thread, NULL, run, start) != 0) {
        free(start);
        return -1;
    }
    pthread_detach(thread); /* nobody joins it: the monitor has no stop call */
    *handle = start;
    return 0;
}

int cl_ev_loop_nowait(int n)
{
    (void)n;
    return 0;
}

int cl_event_loop_once(void) { return 0; }
int cl_event_loop(void) { return 0; }

/* ---- the agent itself ---- */

/* The monitor's functions: it is loaded, not linked. */
static struct {
    int (*init)(uint32_t, void *);
    int (*create_instance)(const char *, fmon_client_cb);
    int (*add_watch)(uint32_t, const char *, uint32_t, uint32_t, uint32_t, uint32_t);
    char *(*event_str)(uint32_t);
} fmon;

/* What the callback hands over to the agent's own thread. */
static struct {
    pthread_mutex_t lock;
    pthread_cond_t changed;
    int seen;
    char text[8192];
} news = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER, 0, ""};

/* On the monitor thread, with the monitor's lock held: copy, wake somebody, return. The event is gone afterwards. */
static int32_t on_event(struct event *event)
{
    pthread_mutex_lock(&news.lock);
    if (!news.seen)
        snprintf(news.text, sizeof news.text, "%s %s (process %u)", fmon.event_str(event->mask), event->path,
                 event->pid);
    news.seen = 1;
    pthread_cond_signal(&news.changed);
    pthread_mutex_unlock(&news.lock);
    return 0; /* consumed; a positive number would ask for it again after as many milliseconds */
}

static int load(const char *library)
{
    void *handle = dlopen(library, RTLD_NOW | RTLD_LOCAL); /* never closed: its thread runs in it */
    if (!handle) {
        fprintf(stderr, "%s\n", dlerror());
        return -1;
    }
    *(void **)&fmon.init = dlsym(handle, "orx_fmon_init");
    *(void **)&fmon.create_instance = dlsym(handle, "_orx_fmon_create_instance");
    *(void **)&fmon.add_watch = dlsym(handle, "_orx_fmon_add_watch");
    *(void **)&fmon.event_str = dlsym(handle, "event_str");
    return fmon.init && fmon.create_instance && fmon.add_watch && fmon.event_str ? 0 : -1;
}

/* Makes a file in the watched directory and waits ten seconds at most for word of it. */
static int change_and_wait(const char *file)
{
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 10;
    FILE *out = fopen(file, "w");
    if (!out || fclose(out) != 0)
        return -1;
    pthread_mutex_lock(&news.lock);
    while (!news.seen && pthread_cond_timedwait(&news.changed, &news.lock, &until) == 0)
        continue;
    int seen = news.seen;
    if (seen)
        printf("%s\n", news.text);
    pthread_mutex_unlock(&news.lock);
    return seen ? 0 : -1;
}

static int watch_directory(const char *directory)
{
    if (fmon.init(0, NULL) != 0)
        return fprintf(stderr, "the monitor did not start\n"), -1;
    int id = fmon.create_instance("example", on_event);
    if (id < 0)
        return fprintf(stderr, "no instance: %d\n", id), -1;
    int result = fmon.add_watch((uint32_t)id, directory, FMON_CREATE | FMON_CLOSE_WRITE, FMON_DIR, 0, 0);
    if (result != 0)
        fprintf(stderr, "%s is not watched: %d\n", directory, result);
    return result;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s PATH/libfmon.so\n", argv[0]);
        return 2;
    }
    const char *tmp = getenv("TMPDIR");
    char directory[1024], file[1040];
    snprintf(directory, sizeof directory, "%s/host-example-XXXXXX", tmp ? tmp : "/tmp");
    if (load(argv[1]) != 0 || !mkdtemp(directory))
        return 1;
    snprintf(file, sizeof file, "%s/file", directory);
    int result = watch_directory(directory) == 0 ? change_and_wait(file) : -1;
    unlink(file);
    rmdir(directory);
    return result == 0 ? 0 : 1;
}
