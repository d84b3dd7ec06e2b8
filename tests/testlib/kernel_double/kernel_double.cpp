#include "testlib/kernel_double/kernel_double.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "testlib/kernel_double/btf_blob.h"

namespace testlib
{

namespace
{

std::atomic<KernelDouble *> living_double{nullptr};

constexpr char kMounts[] =
    "20 1 0:18 / / rw - ext4 /dev/root rw\n23 20 0:20 / /tmp rw,nosuid shared:3 - tmpfs tmpfs rw\n";

bool begins(const std::string &text, const std::string &with) { return text.compare(0, with.size(), with) == 0; }

uint64_t now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

}  // namespace

KernelDouble::KernelDouble(bool is_64_bit, const std::string &release_text)
    : is_64(is_64_bit), release(release_text), machine(is_64_bit ? "x86_64" : "i686"), memory(is_64_bit)
{
    file(tracing("README"), "tracing mini-HOWTO:\n\t     <type>\\[<array-size>\\]\n");
    file(tracing("kprobe_events"), "");
    file(tracing("kprobe_profile"), "");
    file(tracing("error_log"), "");
    living_double = this;
}

KernelDouble::~KernelDouble() { living_double = nullptr; }

static std::atomic<int64_t> passed{0};
void pass_time(int64_t ns) { passed += ns; }
int64_t time_passed() { return passed; }

KernelDouble *KernelDouble::living() { return living_double; }

/* ---- files ---- */

void KernelDouble::default_files()
{
    file("/sys/devices/system/cpu/online", "0-1\n");
    file("/proc/self/mountinfo", kMounts);
    file("/sys/kernel/btf/vmlinux", kernel_types(KernelTypes()));
}

void KernelDouble::opened(const std::string &path, int fd)
{
    const std::lock_guard lock(lock_);
    if (FakeFiles::is_tracing(path) && (path.find("/kprobe_events") != path.npos || path.find("/filter") != path.npos))
        control_[fd] = path;
}

void KernelDouble::closed(int fd)
{
    const std::lock_guard lock(lock_);
    control_.erase(fd);
    groups_.erase(fd);
}

uint64_t KernelDouble::group_of(int fd)
{
    const std::lock_guard lock(lock_);
    uint64_t &group = groups_[fd];
    if (group == 0)
        group = one_group ? one_group : memory.allocate(512);
    return group;
}

uint64_t KernelDouble::file_of(int fd)
{
    const uint64_t group = group_of(fd);
    const std::lock_guard lock(lock_);
    const uint64_t file = memory.allocate(384);
    memory.put_word(file + (is_64 ? 200 : 124), group);
    return file;
}

void KernelDouble::asked(int fd)
{
    hit({"inotify_ioctl",
         {file_of(fd), FIONREAD, 0},
         static_cast<uint32_t>(getpid()),
         static_cast<uint32_t>(gettid())});
}

bool KernelDouble::is_control(int fd)
{
    const std::lock_guard lock(lock_);
    return control_.count(fd) != 0;
}

/* ---- definitions ---- */

void KernelDouble::refuse(const std::string &word, const std::string &why) { refused_[word] = why; }

int KernelDouble::fail(const std::string &why)
{
    file(tracing("error_log"),
         "[  1.000000] trace_kprobe: error: an earlier one\n  Command: p:x\n"
         "[  2.000000] trace_kprobe: error: " +
             why + "\n  Command: p:y\n");
    return -EINVAL;
}

int KernelDouble::command(int fd, const std::string &text)
{
    const std::lock_guard lock(lock_);
    if (control_[fd].find("/filter") != std::string::npos)
        return text.find("nofield") == std::string::npos ? 0 : fail("Field not found");
    if (begins(text, "-:"))
        return remove(text.substr(2));
    return begins(text, "p:") ? define(text) : fail("Invalid command");
}

int KernelDouble::define(const std::string &text)
{
    for (const auto &[word, why] : refused_)
        if (text.find(word) != std::string::npos)
            return fail(why);
    Definition made;
    const size_t slash = text.find('/'), blank = text.find(' '), end = std::min(text.find(' ', blank + 1), text.size());
    made.text = text;
    made.group = text.substr(2, slash - 2);
    made.event = text.substr(slash + 1, blank - slash - 1);
    made.point = text.substr(blank + 1, end - blank - 1);
    std::string why;
    if (made.group.size() > 63 || made.event.size() > 63 || text.size() >= 4096)
        return fail("Name is too long");
    if (!parse_fetches(text.substr(end), memory.word(), head(), &made.fetches, &why))
        return fail(why);
    for (const Definition &other : definitions_)
        if (other.group == made.group && other.event == made.event)
            return fail("Event already exists");
    made.id = next_id_++;
    const std::string directory = tracing("events/" + made.group + "/" + made.event + "/");
    file(directory + "id", std::to_string(made.id) + "\n");
    file(directory + "filter", "none\n");
    file(directory + "format", format_of(made));
    definitions_.push_back(made);
    write_list();
    return 0;
}

int KernelDouble::remove(const std::string &name)
{
    const auto found = std::find_if(definitions_.begin(), definitions_.end(),
                                    [&](const Definition &d) { return d.group + "/" + d.event == name; });
    if (found == definitions_.end())
        return -ENOENT;
    if (!perf.filters(found->id).empty()) /* it is open */
        return -EBUSY;
    no_file(tracing("events/" + name));
    definitions_.erase(found);
    write_list();
    return 0;
}

void KernelDouble::write_list()
{
    std::string list;
    for (const Definition &definition : definitions_)
        list += definition.text + "\n";
    file(tracing("kprobe_events"), list);
    if (faults_are_misses)
        write_profile();
}

void KernelDouble::write_profile()
{
    std::string list;
    for (const Definition &definition : definitions_)
        list += "  " + definition.event + " " + std::to_string(definition.hits) + " " +
                std::to_string(definition.faults) + "\n";
    file(tracing("kprobe_profile"), list);
}

std::string KernelDouble::format_of(const Definition &definition) const
{
    std::string text = "name: " + definition.event + "\nID: " + std::to_string(definition.id) + "\nformat:\n";
    const auto field = [&](const std::string &declared, uint32_t offset, uint32_t size) {
        text += "\tfield:" + declared + ";\toffset:" + std::to_string(offset) + ";\tsize:" + std::to_string(size) +
                ";\tsigned:0;\n";
    };
    field("unsigned short common_type", 0, 2);
    field("unsigned char common_flags", 2, 1);
    field("unsigned char common_preempt_count", 3, 1);
    field("int common_pid", 4, 4);
    text += "\n";
    field("unsigned long __probe_ip", 8, static_cast<uint32_t>(memory.word()));
    for (const Fetch &fetch : definition.fetches)
        field(fetch.type + " " + fetch.name + (fetch.count ? "[" + std::to_string(fetch.count) + "]" : ""),
              fetch.offset, fetch.bytes());
    return text + "\nprint fmt: \"(%lx) mnt=%u\", REC->__probe_ip, REC->mnt\n";
}

std::vector<std::string> KernelDouble::definitions()
{
    const std::lock_guard lock(lock_);
    std::vector<std::string> out;
    for (const Definition &definition : definitions_)
        out.push_back(definition.text);
    return out;
}

int KernelDouble::id_of(const std::string &event)
{
    const std::lock_guard lock(lock_);
    for (const Definition &definition : definitions_)
        if (begins(definition.event, event))
            return definition.id;
    return -1;
}

/* ---- hits ---- */

int KernelDouble::hit(const Hit &hit)
{
    const std::lock_guard lock(lock_);
    const Registers registers(&memory, hit.arguments);
    int records = 0;
    for (auto it = definitions_.rbegin(); it != definitions_.rend(); ++it) {
        if (it->point != hit.point)
            continue;
        it->raw.resize(it->fetches.empty() ? head() : it->fetches.back().offset + it->fetches.back().bytes());
        const auto type = static_cast<uint16_t>(it->id);
        memcpy(it->raw.data(), &type, sizeof(type));
        memcpy(it->raw.data() + 4, &hit.tid, sizeof(hit.tid));
        it->hits++;
        for (const Fetch &fetch : it->fetches)
            it->faults += !evaluate(memory, registers, fetch, it->raw.data());
        records += perf.hit(it->id, hit.cpu, hit.pid, hit.tid, hit.time ? hit.time : now(), it->raw);
    }
    if (faults_are_misses)
        write_profile();
    return records;
}

}  // namespace testlib
