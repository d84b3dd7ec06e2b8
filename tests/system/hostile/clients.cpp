#include "clients.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "orx_base.h"
#include "orx_host.h"

namespace hostile
{

namespace
{

Clients *the_clients; /* callbacks have no argument of their own */

template <int kClient>
int32_t on_event(struct event *event)
{
    the_clients->told(kClient, event);
    return 0;
}

constexpr fmon_client_cb kCallbacks[kClients] = {on_event<0>, on_event<1>, on_event<2>, on_event<3>,
                                                 on_event<4>, on_event<5>, on_event<6>, on_event<7>};
constexpr const char *kNames[kClients] = {"all",        "sync",     "delay",       "flat-files",
                                          "flat-names", "own-dirs", "file-writes", "file-all"};

bool starts_with(const char *text, const char *start) { return strncmp(text, start, strlen(start)) == 0; }

/* A directory's line of the dump is its path after two blanks. */
void take_dump_line(int, const char *, int, const char *text, void *arg)
{
    if (starts_with(text, "  /"))
        static_cast<std::vector<std::string> *>(arg)->push_back(text + 2);
}

}  // namespace

/* ---- signs ---- */

void Signs::look_for(const std::string &path)
{
    const std::lock_guard hold(lock_);
    seen_[path] = {};
}

void Signs::forbid(const std::string &path)
{
    const std::lock_guard hold(lock_);
    forbidden_[path] = 0;
}

void Signs::told(int client, const std::string &path, uint32_t mask)
{
    const std::lock_guard hold(lock_);
    if (const auto found = seen_.find(path); found != seen_.end())
        found->second[static_cast<size_t>(client)] |= mask;
    if (const auto found = forbidden_.find(path); found != forbidden_.end())
        found->second |= mask;
}

Told Signs::seen(const std::string &path)
{
    const std::lock_guard hold(lock_);
    return seen_[path];
}

void Signs::forget()
{
    const std::lock_guard hold(lock_);
    seen_.clear();
}

std::vector<std::string> Signs::false_ones()
{
    const std::lock_guard hold(lock_);
    std::vector<std::string> list;
    for (const auto &[path, mask] : forbidden_)
        if (mask != 0)
            list.push_back(path);
    return list;
}

/* ---- fences ---- */

bool parse_fence(const char *name, int *index, uint64_t *number)
{
    unsigned long long value;
    if (sscanf(name, "fence-%d-%llu", index, &value) != 2 || *index < 0 || *index > kMaxAttacks)
        return false;
    *number = value;
    return true;
}

void pass_fence(Shared *shared, const char *name, bool names, bool files, Queue first)
{
    int index;
    uint64_t number;
    if (!parse_fence(name, &index, &number))
        return;
    auto &fence = shared->posts[static_cast<size_t>(index)].fence;
    if (names && fence[first] < number)
        fence[first] = number;
    if (files && fence[first + 1] < number)
        fence[first + 1] = number;
}

/* ---- the module ---- */

Clients::Clients(Shared *shared, std::string root) : shared_(shared), root_(std::move(root)) { the_clients = this; }

std::string Clients::start(const std::vector<Planned> &plan)
{
    setenv("FMON_HOME", FMON_TEST_BIN "/..", 1);
    for (const auto &[key, value] : std::map<const char *, const char *>{
             {"hardened", "1"}, {"rate_limit", "0"}, {"tbd_interval", "1000"}, {"max_dentries", "8000"}})
        orx_host_ini_override("fmon", key, value);
    error_output_level = -1; /* the attacks' own noise would fill the log */
    if (orx_fmon_init(0, nullptr) != 0 || orx_host_await_timers(systest::kPatienceMs) != 0)
        return "the module did not start";
    for (int client = 0; client < kClients; client++)
        if (_orx_fmon_create_instance(kNames[client], kCallbacks[client]) != client)
            return "no instance for a client";
    for (const auto &[client, watch] : plan)
        if (const int code =
                _orx_fmon_add_watch(static_cast<uint32_t>(client), watch.path.c_str(), watch.mask, watch.flags, 0, 0);
            code != 0)
            return std::string(kNames[client]) + " cannot watch " + watch.path + ": " + std::to_string(code);
    return "";
}

void Clients::take_fence(const char *name, uint32_t mask)
{
    pass_fence(shared_, name, mask & FMON_CREATE, mask & FMON_CLOSE_WRITE, kModuleNames);
}

void Clients::told(int client, const struct event *event)
{
    delivered_.fetch_add(1, std::memory_order_relaxed);
    const char *path = event->path;
    const bool below = starts_with(path, root_.c_str());
    const char *part = below ? path + root_.size() : "";
    if (!starts_with(part, "/tree") && !starts_with(part, "/flat") && !starts_with(part, "/files/")) {
        const std::lock_guard hold(lock_);
        if (strays_.size() < 100)
            strays_.push_back(path);
        return;
    }
    const char *name = strrchr(path, '/') + 1;
    if (starts_with(name, "fence-")) {
        if (client == kAll)
            take_fence(name, event->mask);
        return;
    }
    signs_.told(client, path, event->mask);
}

std::vector<std::string> Clients::strays()
{
    const std::lock_guard hold(lock_);
    return strays_;
}

std::vector<std::string> Clients::dentries()
{
    constexpr uint32_t kDentries = 3;
    std::vector<std::string> list;
    orx_host_log_capture(take_dump_line, &list);
    _orx_fmon_dump(kDentries, nullptr);
    orx_host_log_capture(nullptr, nullptr);
    return list;
}

/* ---- commands ---- */

namespace
{

std::vector<std::string> watch_command(const std::vector<std::string> &arguments)
{
    std::vector<std::string> argv = {
        FMON_TEST_BIN "/fmon", "watch", "--format", "json", "--probes", "off", "--source", "marks"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

uint32_t mask_of(const systest::Json &names)
{
    uint32_t mask = 0;
    for (const std::string name : names) {
        std::string text = name;
        mask |= event_mask(text.data());
    }
    return mask;
}

}  // namespace

Command::Command(Shared *shared, const std::vector<std::string> &arguments, std::vector<Asked> watches)
    : shared_(shared), process_({watch_command(arguments)}), watches_(std::move(watches))
{
}

bool Command::established()
{
    const auto line = process_.line();
    const auto object = systest::Json::parse_if(line.value_or(""));
    return object && object->value("type", "") == "established";
}

void Command::take()
{
    constexpr int kAtOnceMs = 20;
    const int64_t end = systest::now_ms() + kAtOnceMs;
    while (const auto line = process_.line(1)) {
        take_line(*line);
        if (systest::now_ms() >= end)
            return;
    }
}

void Command::take_line(const std::string &line)
{
    const auto object = systest::Json::parse_if(line).value_or(systest::Json());
    if (object.value("type", "") == "loss")
        losses_[object.value("source", "")] += object.value("count", 1U);
    if (object.value("type", "") != "event")
        return;
    const std::string path = object.value("path", "");
    const uint32_t mask = mask_of(object["events"]);
    const char *name = path.c_str() + path.rfind('/') + 1;
    pass_fence(shared_, name, mask & FMON_CREATE, mask & FMON_CLOSE_WRITE, kCommandNames);
    signs_.told(0, path, mask);
}

}  // namespace hostile
