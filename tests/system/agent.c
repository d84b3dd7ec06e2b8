/*
 * An agent of another make with two clients in it: loads a base library and the module as a stranger would, by their
 * public headers only, and prints what each client is told.
 *
 *   agent [-c] [-d N] [-o FILE] [-p MS] [-w] LIBDIR PATH
 *
 * PATH is watched recursively by the clients "fast" and "slow"; the slow one pauses for MS milliseconds, takes what
 * has gathered, and pauses again. -d moves the module's descriptors above N. Output (-o: to FILE, opened after the
 * start): "ready", then "CLIENT MASK PID PATH" a delivery, the path in hexadecimal, with -c " CONTAINER" behind it
 * where the event has one. Ends with its standard input, or (-w) when it is killed.
 */
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include "orx_fmon.h"

static FILE *out;
static int pause_ms, with_container;

static void die(const char *what)
{
    fprintf(stderr, "agent: %s\n", what);
    exit(2);
}

static void print_event(const char *client, const struct event *ev)
{
    flockfile(out);
    fprintf(out, "%s %x %u ", client, ev->mask, ev->pid);
    for (const char *p = ev->path; *p; p++)
        fprintf(out, "%02x", (unsigned char)*p);
    if (with_container && ev->container)
        fprintf(out, " %s", ev->container);
    fputc('\n', out);
    fflush(out);
    funlockfile(out);
}

static int32_t fast_client(struct event *ev)
{
    print_event("fast", ev);
    return 0;
}

static int64_t now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static int32_t slow_client(struct event *ev)
{
    static int64_t take_until; /* 0: comes out of a pause */
    if (take_until == 0)
        take_until = now_ms() + 50;
    if (now_ms() >= take_until && pause_ms) {
        take_until = 0;
        return pause_ms;
    }
    print_event("slow", ev);
    return 0;
}

static void *load(const char *dir, const char *name, int mode)
{
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", dir, name);
    void *handle = dlopen(path, RTLD_NOW | mode);
    if (!handle)
        die(dlerror());
    return handle;
}

/* Takes all descriptors up to `limit`. */
static void use_up_descriptors(int limit)
{
    struct rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (fd >= 0 && fd < limit)
        fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0)
        die("too few descriptors allowed");
}

static int (*orx_fmon_init_)(uint32_t, void *);
static int (*create_instance)(const char *, fmon_client_cb);
static int (*add_watch)(uint32_t, const char *, uint32_t, uint32_t, uint32_t, uint32_t);
static int (*del_instance)(uint32_t);
static int (*await_timers)(int);
static int (*override_key)(const char *, const char *, const char *);

static int start(const char *libdir)
{
    void *base = load(libdir, "liborx_base.so", RTLD_GLOBAL);
    void *module = load(libdir, "libfmon.so", RTLD_LOCAL);
    /* ISO C has no cast from an object's address to a function's. */
    *(void **)&orx_fmon_init_ = dlsym(module, "orx_fmon_init");
    *(void **)&create_instance = dlsym(module, "_orx_fmon_create_instance");
    *(void **)&add_watch = dlsym(module, "_orx_fmon_add_watch");
    *(void **)&del_instance = dlsym(module, "_orx_fmon_del_instance");
    *(void **)&await_timers = dlsym(base, "orx_host_await_timers");
    *(void **)&override_key = dlsym(base, "orx_host_ini_override");
    const char *source = getenv("FMON_TEST_EVENTS"); /* as for the command (harness.cpp) */
    if (source && strcmp(source, "marks") != 0)
        override_key("fmon", "fs_events", "1");
    if (!orx_fmon_init_ || !create_instance || !add_watch || !del_instance || !await_timers || orx_fmon_init_(0, NULL))
        return -1;
    return await_timers(10000); /* where there are kernel probes, they are in place then */
}

static int add_client(const char *name, fmon_client_cb cb, const char *path)
{
    int id = create_instance(name, cb);
    if (id < 0 || add_watch((uint32_t)id, path, FMON_ALL_EVENTS, FMON_DIR | FMON_RECURSIVE, 0, 0) != 0)
        die("cannot watch");
    return id;
}

int main(int argc, char **argv)
{
    const char *file = NULL;
    int option, wait_for_ever = 0;
    while ((option = getopt(argc, argv, "cd:o:p:w")) != -1) {
        if (option == 'c')
            with_container = 1;
        else if (option == 'd')
            use_up_descriptors(atoi(optarg));
        else if (option == 'o')
            file = optarg;
        else if (option == 'p')
            pause_ms = atoi(optarg);
        else if (option == 'w')
            wait_for_ever = 1;
    }
    if (argc - optind != 2)
        die("usage: agent [-c] [-d N] [-o FILE] [-p MS] [-w] LIBDIR PATH");
    if (start(argv[optind]) != 0)
        die("orx_fmon_init failed");
    out = file ? fopen(file, "we") : stdout;
    if (!out)
        die("cannot open the output");
    int fast = add_client("fast", fast_client, argv[optind + 1]);
    int slow = add_client("slow", slow_client, argv[optind + 1]);
    fprintf(out, "ready\n");
    fflush(out);
    while (wait_for_ever)
        pause();
    char c;
    while (read(0, &c, 1) > 0) {
    }
    return del_instance((uint32_t)fast) || del_instance((uint32_t)slow);
}
