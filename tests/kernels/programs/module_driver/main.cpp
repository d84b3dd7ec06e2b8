// module_driver: the module with real probes, as an agent has it: instances that come and go, and the agent's switch.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>

#include "guest_program.h"
#include "orx_fmon.h"

const char kArea[] = "module";

namespace
{

constexpr char kPlace[] = "/m_module", kWatched[] = "/m_module/watched";
constexpr int kPatienceMs = 10000, kQuietMs = 700;

struct {
    decltype(&orx_fmon_init) init;
    decltype(&_orx_fmon_create_instance) create;
    decltype(&_orx_fmon_del_instance) remove;
    decltype(&_orx_fmon_add_watch) add_watch;
    decltype(&_orx_fmon_global_watch) global_watch;
    decltype(&_clt_file_enable) enable;
    int (*await_timers)(int);
} api;

void load_module()
{
    setenv("FMON_HOME", getenv("STAGE"), 1);
    bind(load("liborx_base.so", RTLD_GLOBAL), "orx_host_await_timers", &api.await_timers);
    void *module = load("libfmon.so", RTLD_LOCAL);
    bind(module, "orx_fmon_init", &api.init);
    bind(module, "_orx_fmon_create_instance", &api.create);
    bind(module, "_orx_fmon_del_instance", &api.remove);
    bind(module, "_orx_fmon_add_watch", &api.add_watch);
    bind(module, "_orx_fmon_global_watch", &api.global_watch);
    bind(module, "_clt_file_enable", &api.enable);
}

// What each client got of files called wanted*.
constexpr int kClients = 3;
std::atomic<int> reported[kClients];

template <int kClient>
int32_t client(struct event *ev)
{
    if (ev->mask & FMON_CREATE && strstr(ev->path, "/wanted"))
        reported[kClient]++;
    return 0;
}
constexpr fmon_client_cb kCallbacks[kClients] = {client<0>, client<1>, client<2>};

int add_client(int number, const char *name)
{
    const int id = api.create(name, kCallbacks[number]);
    if (id < 0 || api.global_watch(static_cast<uint32_t>(id), FMON_CREATE, 1) != 0)
        stop("no instance");
    return id;
}

// Makes a file in another process and waits for `wanted` clients to get a report, or for nothing to come.
std::string make_file(const std::string &directory, int wanted)
{
    static int serial;
    for (std::atomic<int> &count : reported)
        count = 0;
    const std::string path = directory + "/wanted" + std::to_string(serial++);
    const pid_t child = fork();
    if (child == 0)
        _exit(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644) < 0);
    waitpid(child, nullptr, 0);
    const auto sum = [] { return reported[0] + reported[1] + reported[2]; };
    for (int ms = 0; ms < kPatienceMs && sum() < wanted; ms += 10)
        usleep(10000);
    usleep(kQuietMs * 1000);
    return std::to_string(reported[0]) + " " + std::to_string(reported[1]) + " " + std::to_string(reported[2]);
}

void expect(const char *name, const std::string &directory, const std::string &wanted)
{
    int clients = 0;
    for (const char digit : wanted)
        clients += digit == '1';
    const std::string got = make_file(directory, clients);
    result(name, got == wanted, got == wanted ? "" : got + " instead of " + wanted);
}

}  // namespace

int main()
{
    mkdir(kPlace, 0755);
    if (mount("/tmp", kPlace, "tmpfs", 0, nullptr) < 0 || mkdir(kWatched, 0755) < 0)
        stop("mount");
    load_module();
    if (api.init(0, nullptr) != 0 || api.await_timers(kPatienceMs) != 0)
        stop("orx_fmon_init");

    const int first = add_client(0, "first");
    expect("one", kPlace, "1 0 0");
    const int second = add_client(1, "second");
    expect("two", kPlace, "1 1 0");
    api.remove(static_cast<uint32_t>(first));
    expect("one_left", kPlace, "0 1 0");
    api.remove(static_cast<uint32_t>(second));
    expect("none", kPlace, "0 0 0");
    const int third = add_client(2, "third");
    expect("another", kPlace, "0 0 1");

    // The agent's switch is for all kinds that this agent's map names first, and for names in watched directories.
    const int watching = api.create("watching", kCallbacks[0]);
    if (watching < 0 || api.add_watch(static_cast<uint32_t>(watching), kWatched, FMON_CREATE, FMON_DIR, 0, 0) != 0)
        stop("no watch");
    expect("watched", kWatched, "1 0 1");
    api.enable(0);
    expect("off", kWatched, "0 0 0");
    api.enable(1);
    expect("on", kWatched, "1 0 1");
    api.remove(static_cast<uint32_t>(third));
    expect("watch_alone", kWatched, "1 0 0");
    umount2(kPlace, MNT_DETACH);
    _exit(0);
}
