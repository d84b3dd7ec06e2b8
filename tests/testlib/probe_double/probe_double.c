/*
 * Test double of the kernel-probe library. No probe is placed: records are what a test writes into FIFOs.
 *
 * Everything lies in the directory that FMON_PROBE_DOUBLE names:
 *   calls        a line for every call, in order
 *   losses       "DELIVERED RING QUEUE CLEANED UNREADABLE MISSED"; without the file nothing is lost
 *   os_info      "MAJOR MINOR PATCH ARCH COUNT PID"; without the file a 6.1.0 kernel
 *   behave       lines that change the answers, read at each call:
 *                  fail SYMBOL [NAME]    a negative status (no instance) for that event or instance, or for any
 *                  null os_info          success without a record
 *                  no-descriptors        an instance without any
 *                  descriptors N         an instance with N of them
 *   NAME.INDEX   the FIFOs of an instance, made with it; a frame is char event[8], u32 pid, u32 size, size bytes
 *
 * Of a frame whose event is switched on, the bytes go to its callback, in a block of just their size: for sanitizers.
 */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kp_thread_utils.h"

#ifdef IN_PART /* helpers of the function that is left out */
#pragma GCC diagnostic ignored "-Wunused-function"
#endif

#define EXPORT __attribute__((visibility("default")))

enum { INSTANCES = 2, EVENTS = 8, MAX_DESCRIPTORS = 600, MAX_FRAME = 4096, FRAMES_A_CALL = 64, FAILED = -9 };

struct frame {
    char event[8];
    uint32_t pid, size;
};

/* One descriptor's FIFO, with a frame that has come in part. */
struct source {
    int fd;
    size_t have;
    unsigned char bytes[MAX_FRAME];
};

struct event {
    char name[64];
    int on;
    char *fetch, *filter;
    kp_record_cb cb;
};

struct probe_instance {
    char name[32];
    int32_t count;
    struct source *sources;
    struct event events[EVENTS];
};

/* An instance is made anew under its name and then replaces the earlier one: at most these two ever. */
static struct probe_instance instances[INSTANCES];

/* Of the event tables: events are switched from any thread. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

/* ---- the test's directory ---- */

static void in_directory(char out[PATH_MAX], const char *name)
{
    const char *directory = getenv("FMON_PROBE_DOUBLE");
    snprintf(out, PATH_MAX, "%s/%s", directory ? directory : "/nonexistent", name);
}

static FILE *open_text(const char *name)
{
    char path[PATH_MAX];
    in_directory(path, name);
    return fopen(path, "re");
}

/* One write a line: switches come from other threads. */
static void note_line(char *line)
{
    char path[PATH_MAX];
    in_directory(path, "calls");
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    const size_t length = strlen(line);
    line[length] = '\n';
    if (write(fd, line, length + 1) < 0)
        abort();
    close(fd);
}

#define NOTE(...)                                     \
    do {                                              \
        char line[16384];                             \
        snprintf(line, sizeof line - 1, __VA_ARGS__); \
        note_line(line);                              \
    } while (0)

/* Whether `words` are a line of `behave`; with `number`, whether they begin one, and the number behind them. */
static int told(const char *words, int *number)
{
    FILE *file = open_text("behave");
    if (!file)
        return 0;
    char line[256];
    int found = 0;
    while (!found && fgets(line, sizeof line, file)) {
        line[strcspn(line, "\n")] = '\0';
        found = number ? !strncmp(line, words, strlen(words)) : !strcmp(line, words);
    }
    fclose(file);
    if (found && number)
        *number = atoi(line + strlen(words));
    return found;
}

static int told_to_fail(const char *symbol, const char *name)
{
    char line[256];
    snprintf(line, sizeof line, "fail %s", symbol);
    if (told(line, NULL))
        return 1;
    if (!name)
        return 0;
    snprintf(line, sizeof line, "fail %s %s", symbol, name);
    return told(line, NULL);
}

/* ---- instances ---- */

static void close_instance(struct probe_instance *inst)
{
    for (int32_t i = 0; i < inst->count; i++)
        close(inst->sources[i].fd);
    for (int i = 0; i < EVENTS; i++) {
        free(inst->events[i].fetch);
        free(inst->events[i].filter);
    }
    free(inst->sources);
    memset(inst, 0, sizeof *inst);
}

__attribute__((destructor)) static void close_instances(void)
{
    for (int i = 0; i < INSTANCES; i++)
        close_instance(&instances[i]);
}

static struct probe_instance *instance_named(const char *name)
{
    for (int i = 0; i < INSTANCES; i++)
        if (!instances[i].name[0] || !strcmp(instances[i].name, name))
            return &instances[i];
    return NULL;
}

/* Null, with a line "stale SYMBOL": the handle is none, or one from before the library was closed and opened again. */
static struct probe_instance *known(void *handle, const char *symbol)
{
    for (int i = 0; i < INSTANCES; i++)
        if (handle == &instances[i] && instances[i].name[0])
            return handle;
    NOTE("stale %s", symbol);
    return NULL;
}

static struct event *event_named(struct probe_instance *inst, const char *name)
{
    for (int i = 0; i < EVENTS; i++)
        if (inst->events[i].name[0] && !strcmp(inst->events[i].name, name))
            return &inst->events[i];
    return NULL;
}

/* Opened for both directions, so that it never ends, whoever writes and goes. */
static int open_fifo(const char *name, int32_t index)
{
    char base[64], path[PATH_MAX];
    snprintf(base, sizeof base, "%s.%d", name, index);
    in_directory(path, base);
    if (mkfifo(path, 0600) != 0 && errno != EEXIST)
        return -1;
    return open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

static int32_t wanted_descriptors(void);

/* The caller owns the array and the descriptors in it: the library reads through its own. */
static int open_sources(struct probe_instance *inst, int32_t *fds)
{
    for (; inst->count < wanted_descriptors(); inst->count++) {
        int fd = open_fifo(inst->name, inst->count);
        if (fd < 0)
            return -1;
        inst->sources[inst->count].fd = fd;
        fds[inst->count] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    }
    return 0;
}

/* ---- frames ---- */

/* Reads on until `size` bytes are there. 0: there are not so many yet. */
static int fill(struct source *src, size_t size)
{
    while (src->have < size) {
        ssize_t got = read(src->fd, src->bytes + src->have, size - src->have);
        if (got <= 0)
            return 0;
        src->have += (size_t)got;
    }
    return 1;
}

/* Takes one frame off the FIFO and never a byte of the next, which keeps the descriptor readable. */
static int take_frame(struct source *src, struct frame *head)
{
    if (!fill(src, sizeof *head))
        return 0;
    memcpy(head, src->bytes, sizeof *head);
    if (head->size > MAX_FRAME - sizeof *head)
        abort(); /* a mistake of the test */
    return fill(src, sizeof *head + head->size);
}

static kp_record_cb callback_of(struct probe_instance *inst, const char *name)
{
    pthread_mutex_lock(&lock);
    const struct event *ev = event_named(inst, name);
    kp_record_cb cb = ev && ev->on ? ev->cb : NULL;
    pthread_mutex_unlock(&lock);
    return cb;
}

/* 1: a callback had it. What is switched off is what the kernel would not have reported. */
static int hand_on(struct probe_instance *inst, const struct frame *head, const unsigned char *bytes)
{
    char name[sizeof head->event + 1] = "";
    memcpy(name, head->event, sizeof head->event);
    kp_record_cb cb = callback_of(inst, name);
    if (!cb)
        return 0;
    void *record = malloc(head->size);
    if (!record)
        abort();
    memcpy(record, bytes, head->size);
    cb(head->pid, record, head->size);
    free(record);
    return 1;
}

/* ---- the library ---- */

static struct kp_os_info os_info;

static void read_os_info(void)
{
    unsigned major = 6, minor = 1, patch = 0, count = 2, pid = 4242;
    unsigned arch = sizeof(void *) == 8 ? KP_ARCH_X86_64 : KP_ARCH_X86_32;
    FILE *file = open_text("os_info");
    if (file) {
        if (fscanf(file, "%u %u %u %u %u %u", &major, &minor, &patch, &arch, &count, &pid) != 6)
            abort();
        fclose(file);
    }
    os_info.major = (uint8_t)major;
    os_info.minor = (uint8_t)minor;
    os_info.patch = (uint8_t)patch;
    os_info.arch = (uint16_t)arch;
    os_info.count = (uint8_t)count;
    os_info.pid = pid;
}

static int32_t wanted_descriptors(void)
{
    int number;
    if (told("no-descriptors", NULL))
        return 0;
    if (told("descriptors ", &number))
        return number < MAX_DESCRIPTORS ? number : MAX_DESCRIPTORS;
    read_os_info();
    return os_info.count;
}

#ifndef WITHOUT__os_info_get
EXPORT int32_t _os_info_get(const struct kp_os_info **out)
{
    NOTE("os_info_get");
    if (told_to_fail("_os_info_get", NULL))
        return FAILED;
    read_os_info();
    *out = told("null os_info", NULL) ? NULL : &os_info;
    return 0;
}
#endif

#ifndef WITHOUT__kp_ins_crt
EXPORT void *_kp_ins_crt(const char *name, int32_t **fds, int32_t *count)
{
    NOTE("ins_crt %s", name);
    struct probe_instance *self = instance_named(name);
    if (!self || told_to_fail("_kp_ins_crt", name))
        return NULL;
    close_instance(self);
    snprintf(self->name, sizeof self->name, "%s", name);
    const int32_t n = wanted_descriptors();
    *count = n;
    if (n == 0)
        return self;
    self->sources = calloc((size_t)n, sizeof *self->sources);
    *fds = calloc((size_t)n, sizeof **fds);
    if (!self->sources || !*fds || open_sources(self, *fds) != 0)
        abort();
    return self;
}
#endif

#ifndef WITHOUT__kp_evt_reg
static const char *text_at(uint64_t address) { return address ? (const char *)(uintptr_t)address : ""; }

static struct event *event_to_register(struct probe_instance *self, const char *name)
{
    struct event *ev = event_named(self, name);
    for (int i = 0; !ev && i < EVENTS; i++)
        if (!self->events[i].name[0])
            ev = &self->events[i];
    return ev;
}

static void copy_event(struct event *ev, const struct kp_probe_def *def, kp_record_cb cb)
{
    snprintf(ev->name, sizeof ev->name, "%s", def->name);
    free(ev->fetch);
    free(ev->filter);
    ev->fetch = strdup(text_at(def->fetch.u));
    ev->filter = strdup(text_at(def->filter.u));
    ev->cb = cb;
    ev->on = !strcmp(def->name, "Ki");
}

EXPORT int32_t _kp_evt_reg(void *inst, struct kp_probe_def *def, kp_record_cb cb)
{
    NOTE("evt_reg %s %s %c %c \"%s\" \"%s\"", def->name, def->point, def->c0 ? def->c0 : '-',
         def->kind ? def->kind : '-', text_at(def->fetch.u), text_at(def->filter.u));
    struct probe_instance *self = known(inst, "_kp_evt_reg");
    if (!self || told_to_fail("_kp_evt_reg", def->name))
        return FAILED;
    pthread_mutex_lock(&lock);
    struct event *ev = event_to_register(self, def->name);
    if (ev)
        copy_event(ev, def, cb);
    pthread_mutex_unlock(&lock);
    return ev ? 0 : FAILED;
}
#endif

#ifndef WITHOUT_kp_event_parse
EXPORT int32_t kp_event_parse(int32_t index, void *inst)
{
    struct probe_instance *self = known(inst, "kp_event_parse");
    if (!self)
        return FAILED;
    NOTE("event_parse %s %d", self->name, index);
    if (told_to_fail("kp_event_parse", self->name) || index < 0 || index >= self->count)
        return FAILED;
    struct source *src = &self->sources[index];
    struct frame head;
    int32_t taken = 0;
    for (int n = 0; n < FRAMES_A_CALL && take_frame(src, &head); n++) {
        src->have = 0;
        taken += hand_on(self, &head, src->bytes + sizeof head);
    }
    return taken;
}
#endif

#ifndef WITHOUT__kp_event_enable
EXPORT int32_t _kp_event_enable(uint8_t on, const char *event_name, void *inst)
{
    NOTE("event_enable %d %s", on, event_name);
    struct probe_instance *self = known(inst, "_kp_event_enable");
    if (!self || told_to_fail("_kp_event_enable", event_name))
        return FAILED;
    pthread_mutex_lock(&lock);
    struct event *ev = event_named(self, event_name);
    if (ev)
        ev->on = on != 0 && on != '0';
    pthread_mutex_unlock(&lock);
    return ev ? 0 : FAILED;
}
#endif

#ifndef WITHOUT__kp_event_filter
EXPORT int32_t _kp_event_filter(const char *event_name, const char *filter, void *inst)
{
    NOTE("event_filter %s \"%s\"", event_name, filter);
    struct probe_instance *self = known(inst, "_kp_event_filter");
    struct event *ev = self ? event_named(self, event_name) : NULL;
    if (!ev || told_to_fail("_kp_event_filter", event_name))
        return FAILED;
    free(ev->filter);
    ev->filter = strdup(filter);
    return 0;
}
#endif

#ifndef WITHOUT__cache_clean
EXPORT int32_t _cache_clean(void *inst)
{
    struct probe_instance *self = known(inst, "_cache_clean");
    if (!self)
        return FAILED;
    NOTE("cache_clean %s", self->name);
    if (told_to_fail("_cache_clean", self->name))
        return FAILED;
    char bytes[MAX_FRAME];
    for (int32_t i = 0; i < self->count; i++) {
        self->sources[i].have = 0;
        while (read(self->sources[i].fd, bytes, sizeof bytes) > 0) {
        }
    }
    return 0;
}
#endif

#ifndef WITHOUT_kp_losses_total
EXPORT int32_t kp_losses_total(struct kp_losses *out)
{
    NOTE("losses_total");
    if (told_to_fail("kp_losses_total", NULL))
        return FAILED;
    memset(out, 0, sizeof *out);
    FILE *file = open_text("losses");
    if (!file)
        return 0;
    unsigned long long n[6] = {0};
    if (fscanf(file, "%llu %llu %llu %llu %llu %llu", &n[0], &n[1], &n[2], &n[3], &n[4], &n[5]) != 6)
        abort();
    fclose(file);
    *out = (struct kp_losses){n[0], n[1], n[2], n[3], n[4], n[5]};
    return 0;
}
#endif
