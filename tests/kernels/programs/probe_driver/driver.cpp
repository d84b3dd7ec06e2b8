#include "driver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

// The texts are the monitor's, not copies of them.
#include "linux/probe/fetch_text.h"

std::string last_line;

extern "C" {
int error_output_level = 2;
void error_output(int level, const char *file, int line, const char *fmt, ...)
{
    char text[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    last_line = text;
    if (level <= error_output_level)
        printf("# %s:%d: %s\n", file, line, text);
}
int orx_str_snprintf(char *out, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int n = vsnprintf(out, size, fmt, args);
    va_end(args);
    return n;
}
}

const char kArea[] = "probes";

double seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// ---- the library ----

Library kp;

void load_library()
{
    void *library = load("liborx_kp_thread.2.so", RTLD_DEEPBIND);
    bind(library, "_kp_ins_crt", &kp.create);
    bind(library, "_os_info_get", &kp.os_info);
    bind(library, "_kp_evt_reg", &kp.add);
    bind(library, "kp_event_parse", &kp.parse);
    bind(library, "_kp_event_enable", &kp.enable);
    bind(library, "_kp_event_filter", &kp.filter);
    bind(library, "_cache_clean", &kp.clean);
    bind(library, "kp_loss_counts", &kp.losses);
    bind(library, "kp_ins_del", &kp.remove);
    bind(library, "kp_unavailable", &kp.unavailable);
}

const kp_os_info *kernel()
{
    const kp_os_info *info = nullptr;
    if (kp.os_info(&info) < 0 || !info)
        stop(kp.unavailable());
    return info;
}

Source::Source(const char *name)
{
    handle = kp.create(name, &fds, &count);
    if (!handle)
        stop("no instance");
}

Source::~Source()
{
    if (handle)
        kp.remove(handle);
    for (int32_t i = 0; i < count; i++)
        close(fds[i]);
    free(fds);
}

int Source::drain(int quiet_ms)
{
    std::vector<pollfd> polled;
    for (int32_t i = 0; i < count; i++)
        polled.push_back({fds[i], POLLIN, 0});
    int total = 0;
    while (poll(polled.data(), polled.size(), quiet_ms) > 0)
        for (int32_t i = 0; i < count; i++)
            if (polled[static_cast<size_t>(i)].revents)
                total += kp.parse(i, handle);
    return total;
}

kp_losses Source::losses() const
{
    kp_losses out = {};
    kp.losses(handle, &out);
    return out;
}

// ---- file records ----

std::vector<FileEvent> seen;
bool counting;
uint64_t counted;

std::string text_of(const char *bytes, size_t room) { return std::string(bytes, strnlen(bytes, room)); }

namespace
{

// "MOUNTID:dir/dir/leaf", as a record says it; "(cut)" for a directory whose name fills its field.
std::string path_of(const unsigned char *record)
{
    uint32_t mount;
    memcpy(&mount, record, 4);
    std::string path;
    int root = 10;
    while (root >= 0 && record[4 + 32 * root] != '/')
        root--;
    if (root < 0)
        path = "(no root)";
    for (int k = root + 1; k < 11; k++) {
        const std::string name = text_of(reinterpret_cast<const char *>(record) + 4 + 32 * k, 32);
        path += (name.size() == 32 ? "(cut)" : name) + "/";
    }
    return std::to_string(mount) + ":" + path + text_of(reinterpret_cast<const char *>(record) + 356, 64);
}

void take(const char *kind, uint32_t pid, void *record, uint32_t size)
{
    counted++;
    if (counting)
        return;
    seen.push_back({kind, size < 420 ? "(short)" : path_of(static_cast<unsigned char *>(record)), pid});
    memset(record, 'x', size);  // the monitor writes into records as well
}

void on_create(uint32_t pid, void *record, uint32_t size) { take("create", pid, record, size); }
void on_delete(uint32_t pid, void *record, uint32_t size) { take("delete", pid, record, size); }
void on_close(uint32_t pid, void *record, uint32_t size) { take("close", pid, record, size); }
void on_from(uint32_t pid, void *record, uint32_t size) { take("from", pid, record, size); }
void on_to(uint32_t pid, void *record, uint32_t size) { take("to", pid, record, size); }
void on_link(uint32_t pid, void *record, uint32_t size) { take("link", pid, record, size); }

}  // namespace

const ProbeRow kProbes[6] = {
    {"Kc", "security_inode_create", "%si", "%dx", "", "", "", on_create},
    {"Ku", "vfs_unlink", "%si", "%dx", "", "", "", on_delete},
    {"Km", "__fsnotify_parent", "%si", "%dx", " m=%dx:u32 f=+0(+48(%si)):u16", " m=%cx:u32 f=+0(+36(%dx)):u16",
     "&&m==8&&f>=32768&&f<=36863", on_close},
    {"Krf", "vfs_rename", "%si", "%dx", "", "", "", on_from},
    {"Krt", "vfs_rename", "%cx", "+4(%sp)", "", "", "", on_to},
    {"Kl", "vfs_link", "%di", "%ax", "", "", "", on_link},
};

int add_probe(void *handle, const char *name, const char *point, const std::string &fetch, const std::string &filter,
              kp_record_cb callback)
{
    kp_probe_def def = {};
    def.c0 = '0';
    def.kind = 'p';
    def.fetch.u = reinterpret_cast<uintptr_t>(fetch.c_str());
    def.filter.u = reinterpret_cast<uintptr_t>(filter.c_str());
    snprintf(def.point, sizeof(def.point), "%s", point);
    snprintf(def.name, sizeof(def.name), "%s", name);
    return kp.add(handle, &def, callback);
}

std::string fetch_of(const ProbeRow &probe)
{
    const bool is_64 = kernel()->arch == KP_ARCH_X86_64;
    char text[FETCH_TEXT_SIZE];
    fetch_text_make(is_64, is_64 ? 172 : 88, is_64 ? 192 : 108, is_64 ? probe.dentry64 : probe.dentry32, text);
    return std::string(text) + (is_64 ? probe.more64 : probe.more32);
}

void add_all(void *handle, const std::string &filter)
{
    for (const ProbeRow &probe : kProbes)
        if (add_probe(handle, probe.name, probe.point, fetch_of(probe), filter + probe.condition, probe.callback) < 0)
            result(std::string("register.") + probe.name, false);
}

void enable_all(void *handle, char on)
{
    for (const ProbeRow &probe : kProbes)
        kp.enable(static_cast<uint8_t>(on), probe.name, handle);
}

int add_create_probe(void *handle, const std::string &filter)
{
    return add_probe(handle, "Kc", kProbes[0].point, fetch_of(kProbes[0]), filter, kProbes[0].callback);
}

// ---- places ----

int mount_id_of(const std::string &path)
{
    const int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
    char name[64], text[512] = "";
    snprintf(name, sizeof(name), "/proc/self/fdinfo/%d", fd);
    const int info = open(name, O_RDONLY | O_CLOEXEC);
    if (read(info, text, sizeof(text) - 1) < 0)
        stop(name);
    close(info);
    close(fd);
    const char *found = strstr(text, "mnt_id:");
    return found ? atoi(found + 7) : -1;
}

void make_mount(const std::string &path)
{
    mkdir(path.c_str(), 0755);
    if (mount("/tmp", path.c_str(), "tmpfs", 0, nullptr) < 0)
        stop(path.c_str());
}

void touch(const std::string &path)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, "x", 1) != 1)
        stop(path.c_str());
    close(fd);
}

std::string mounts_filter(const std::vector<int> &ids)
{
    std::string text = "(";
    for (const int id : ids)
        text += "mnt==" + std::to_string(id) + "||";
    return text + "mnt==0)";
}

void create_many(const std::string &directory, int who, int n)
{
    for (int i = 0; i < n; i++) {
        const std::string path = directory + "/" + std::to_string(who) + "_" + std::to_string(i);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            _exit(1);
        close(fd);
    }
}

int definitions()
{
    FILE *file = fopen("/sys/kernel/tracing/kprobe_events", "re");
    int n = 0;
    char line[8192];
    while (file && fgets(line, sizeof(line), file))
        n += strstr(line, ":orx_") != nullptr;
    if (file)
        fclose(file);
    return n;
}

int open_descriptors()
{
    int n = 0;
    for (int fd = 0; fd < 4096; fd++)
        n += fcntl(fd, F_GETFD) >= 0;
    return n;
}

namespace
{

void show_seen()
{
    for (const FileEvent &event : seen)
        printf("#   %s %s %u\n", event.kind.c_str(), event.path.c_str(), event.pid);
}

}  // namespace

void expect(const std::string &name, const std::vector<std::string> &wanted, uint32_t pid)
{
    bool good = seen.size() == wanted.size();
    for (size_t i = 0; good && i < wanted.size(); i++)
        good = seen[i].kind + " " + seen[i].path == wanted[i] && seen[i].pid == pid;
    if (!good) {
        show_seen();
        for (const std::string &line : wanted)
            printf("#   wanted %s %u\n", line.c_str(), pid);
    }
    result(name, good, good ? std::to_string(seen.size()) + " records" : "");
    seen.clear();
}

FileCase::FileCase(const std::string &where) : place(where)
{
    make_mount(place);
    id = std::to_string(mount_id_of(place)) + ":";
    add_all(source.handle, mounts_filter({mount_id_of(place)}));
    seen.clear();
    enable_all(source.handle, '1');
}

FileCase::~FileCase() { umount2(place.c_str(), MNT_DETACH); }

CountCase::CountCase(const std::string &where) : place(where)
{
    make_mount(place);
    filter = mounts_filter({mount_id_of(place)});
    add_create_probe(source.handle, filter);
    kp.enable(1, "Kc", source.handle);
    counting = true;
    counted = 0;
}

CountCase::~CountCase()
{
    counting = false;
    umount2(place.c_str(), MNT_DETACH);
}
