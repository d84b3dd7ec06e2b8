#include "library.h"

#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "calibrate.h"
#include "log.h"
#include "open_files.h"
#include "translate.h"

namespace kprobe
{

namespace
{

// The monitor takes at most 100 records in one turn over all its descriptors, and throws away what waits here when
// there are more; what else it reads in the same turn counts as well.
constexpr size_t kPassRecords = 90;

constexpr char kInotifyName[] = "clt_inotify";

constexpr size_t kSlots = 64;
constexpr size_t kRing = size_t{1} << 20, kSmallestRing = size_t{1} << 12, kAllRings = size_t{1} << 26;
constexpr size_t kQueue = size_t{1} << 24;
constexpr size_t kAllQueues = sizeof(void *) == 8 ? size_t{1} << 28 : size_t{1} << 25;  // of an instance

// The monitor visits its inotify source before the others.
size_t turn_order(const std::string &name) { return name == kInotifyName ? 1 : 2; }

size_t power_of_two(size_t n)
{
    size_t power = 1;
    while (power < n)
        power *= 2;
    return power;
}

// A number of KiB from the environment: for machines with little memory, and for tests of losses.
size_t setting(const char *name, size_t otherwise)
{
    const char *text = getenv(name);
    const unsigned long kib = text ? strtoul(text, nullptr, 10) : 0;
    return kib >= 4 && kib <= 1048576 ? power_of_two(kib * 1024) : otherwise;
}

// Half of the rings' memory for each of the monitor's two instances.
Sizes sizes_for(size_t cpus)
{
    const size_t queue = std::max(power_of_two(kAllQueues / cpus / 2 + 1), size_t{1} << 19);
    const size_t ring = std::max(std::min(power_of_two(kAllRings / 2 / cpus / 2 + 1), kRing), kSmallestRing);
    return {setting("FMON_PROBE_RING_KB", ring), setting("FMON_PROBE_QUEUE_KB", std::min(queue, kQueue)),
            kAllRings / 2};
}

// What the monitor's instances take of the process's descriptors on each CPU: a ring and a wake-up ring each, and for
// each of their seven probes one event that records and one that wakes; another two while a filter is replaced.
constexpr size_t kDescriptorsACpu = 2 * 2 + 7 * 2 + 2, kOtherDescriptors = 16;

// Empty: there are enough of them. To begin and end half-way would leave some kinds of events out.
std::string lacking_descriptors(size_t cpus)
{
    rlimit limit = {};
    size_t open = 0;
    any_number("/proc/self/fd", [&open](const std::string &) {
        open++;
        return false;
    });
    const size_t needed = cpus * kDescriptorsACpu + kOtherDescriptors;
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0 || needed + open <= limit.rlim_cur)
        return "";
    return "for " + std::to_string(cpus) + " processors they take " + std::to_string(needed) +
           " descriptors, of which the process may have " + std::to_string(limit.rlim_cur) + " with " +
           std::to_string(open) + " in use (ulimit -n)";
}

void add(const kp_losses &more, kp_losses &sum)
{
    sum.delivered += more.delivered;
    sum.ring += more.ring;
    sum.queue += more.queue;
    sum.cleaned += more.cleaned;
    sum.unreadable += more.unreadable;
    sum.missed += more.missed;
}

// Deletes a definition, whatever happens in between.
struct Temporary {
    const Tracefs &tracefs;
    const std::string &group, &event;
    ~Temporary()
    {
        try {
            tracefs.remove(group, event);
        } catch (const std::exception &) {  // out of memory: it goes with the process
        }
    }
};

extern "C" void fork_prepare() { Library::get().before_fork(); }
extern "C" void fork_parent() { Library::get().after_fork(false); }
extern "C" void fork_child() { Library::get().after_fork(true); }

int handle_forks()
{
    static const int error = pthread_atfork(fork_prepare, fork_parent, fork_child);
    return error;
}

}  // namespace

// Never destroyed: its thread and other libraries' exit handlers may still use it.
Library &Library::get()
{
    static Library *const library = new Library;
    return *library;
}

// ---- start ----

// Only a probe that was made and read proves that the kernel lets us: a kernel may be locked down in several ways.
bool Library::prove(std::string &why)
{
    const std::string group = group_name(owner_, serial_++, "proof"), event = "proof_" + std::to_string(owner_.pid);
    const int status = tracefs_.define(
        "p:" + group + "/" + event + " " + (facts_.has("security_inode_create") ? "security_inode_create" : "do_exit"),
        why);
    if (status < 0) {
        why = "the kernel refuses probes: " + why;
        return false;
    }
    const Temporary temporary = {tracefs_, group, event};
    Ring ring;
    EventSet events;
    bool bad_filter;
    int error = ring.open(online_cpus().at(0), kRing);
    if (error == 0)
        error = events.open(tracefs_.event_id(group, event), {&ring}, "", bad_filter);
    if (error < 0)
        why = std::string("perf events cannot be opened: ") + strerror(-error);
    return error == 0;
}

// Callers keep the text, so that it stays for ever; there are few.
void Library::say(const std::string &why)
{
    auto text = std::find(texts_.begin(), texts_.end(), why);
    if (text == texts_.end())
        text = texts_.insert(text, why);
    why_ = text->c_str();
}

const char *Library::why_not()
{
    const common::Lock lock(lock_);
    return why_;
}

bool Library::look_around(std::string &why)
{
    // Before anything else: who forks meanwhile waits, and gets a child in which the library is not in the middle.
    if (handle_forks() != 0) {
        why = "out of memory";
        return false;
    }
    if (online_cpus().empty()) {
        why = "the online CPUs cannot be read (/sys/devices/system/cpu/online)";
        return false;
    }
    if (!tracefs_.find(why) || tracefs_.remove_orphans() < 0 || !gather_facts(tracefs_, facts_, why))
        return false;
    if (const std::string lacking = facts_.dentry.lacking(); !lacking.empty()) {
        why = "this kernel does not describe its types (BTF), and to try them out has not shown where it keeps " +
              lacking;
        return false;
    }
    why = lacking_descriptors(online_cpus().size());
    if (!why.empty() || !prove(why))
        return false;
    facts_.faults_are_misses = counts_failed_fetches(tracefs_, facts_);
    return true;
}

bool Library::start()
{
    if (state_ != kNew)  // and what ran out of memory is tried again
        return state_ == kWorking;
    owner_ = current_owner();
    slots_.reserve(kSlots);  // slots never move
    std::string why;
    const bool works = look_around(why);
    say(works ? "" : why);
    state_ = works ? kWorking : kUnavailable;
    if (!works)
        KP_LOG(2, "kernel probes are not available: %s", why_);
    return works;
}

const kp_os_info *Library::os_info()
{
    const common::Lock lock(lock_);
    if (!start())
        return nullptr;
    info_.major = facts_.major;
    info_.minor = facts_.minor;
    info_.patch = facts_.patch;
    info_.arch = facts_.is_64 ? KP_ARCH_X86_64 : KP_ARCH_X86_32;
    info_.count = 1;  // since records are handed on in the order of their time, whichever CPU they come from
    info_.pid = static_cast<uint32_t>(reader_.tid() ? reader_.tid() : owner_.pid);
    return &info_;
}

// ---- handles ----

void *Library::handle_of(const Slot &slot) const
{
    const auto index = static_cast<uintptr_t>(&slot - slots_.data());
    return reinterpret_cast<void *>(slot.generation << 8 | (index + 1));
}

Library::Slot *Library::slot_of(void *handle)
{
    const auto number = reinterpret_cast<uintptr_t>(handle);
    const size_t index = (number & 255) - 1;
    // In a process that was forked, even to look would take the parent's news away.
    if (state_ != kWorking || index >= slots_.size() || !slots_[index].instance || handle_of(slots_[index]) != handle)
        return nullptr;
    return &slots_[index];
}

std::shared_ptr<Instance> Library::find(void *handle)
{
    const common::Lock lock(lock_);
    const Slot *slot = slot_of(handle);
    return slot ? slot->instance : nullptr;
}

// ---- instances ----

// The slot of that name, emptied: the monitor has no call for the end of an instance, it just makes a new one.
Library::Slot *Library::free_slot(const std::string &name)
{
    for (Slot &slot : slots_)
        if (slot.instance && slot.name == name)
            end(slot);
    for (Slot &slot : slots_)
        if (!slot.instance)
            return &slot;
    if (slots_.size() == kSlots)
        return nullptr;
    slots_.emplace_back();
    return &slots_.back();
}

void Library::keep_losses(Instance &instance) noexcept
{
    try {
        add(instance.losses(), ended_);
    } catch (const std::exception &) {  // out of memory: not reported
    }
}

void Library::end(Slot &slot)
{
    reader_.remove(slot.instance);
    keep_losses(*slot.instance);
    slot.instance.reset();
    slot.generation++;
}

// Null: it cannot be made, and the log says why.
std::shared_ptr<Instance> Library::make_instance(const char *name)
{
    const std::vector<int> cpus = online_cpus();
    auto instance = std::make_shared<Instance>(tracefs_, facts_, group_name(owner_, serial_++, name));
    if (const int status = instance->open(cpus, sizes_for(cpus.size())); status < 0) {
        KP_LOG(1, "instance %s cannot be made: %s", name, strerror(-status));
        return nullptr;
    }
    const bool can_distinguish = strcmp(name, kInotifyName) != 0 || instance->learn_groups() == 0;
    return can_distinguish ? instance : nullptr;
}

void *Library::create(const char *name, int32_t **fds, int32_t *count)
{
    const common::Lock lock(lock_);
    if (!name || !*name || !fds || !count || !start())
        return nullptr;
    // The monitor reads its inotify descriptor only where it has no instance for that, so there must be none where no
    // probe can report inotify's events.
    if (strcmp(name, kInotifyName) == 0 && !can_watch_inotify(facts_)) {
        KP_LOG(2, "no probe for inotify events on this kernel: the descriptor is used");
        return nullptr;
    }
    Slot *slot = free_slot(name);
    if (!slot || reader_.start() < 0)
        return nullptr;
    auto instance = make_instance(name);
    if (!instance)
        return nullptr;
    slot->name = name;
    Fd descriptor = instance->copy_descriptor();
    auto *out = descriptor && reader_.add(instance) == 0 ? static_cast<int32_t *>(malloc(sizeof(int32_t))) : nullptr;
    if (!out) {
        KP_LOG(1, "instance %s cannot be made: %s", name, strerror(errno));
        reader_.remove(instance);
        return nullptr;
    }
    *out = descriptor.release();
    slot->instance = std::move(instance);
    *fds = out;
    *count = 1;
    return handle_of(*slot);
}

int Library::remove(void *handle)
{
    const common::Lock lock(lock_);
    Slot *slot = slot_of(handle);
    if (!slot)
        return -EINVAL;
    end(*slot);
    return 0;
}

// ---- parsing ----

// What an instance may take of the monitor's turn, which visits those that are ready in a rising order: one at or
// before the last one begins a new turn, and nothing else does. What is left is shared by the instances that have
// records waiting and their turn to come, so that none keeps the others waiting.
size_t Library::share(size_t order)
{
    if (order <= pass_order_)
        pass_left_ = kPassRecords;
    pass_order_ = order;
    size_t waiting = 0;
    for (const Slot &slot : slots_)
        waiting += slot.instance && turn_order(slot.name) >= order && slot.instance->is_waiting();
    waiting = std::max<size_t>(1, waiting);
    return (pass_left_ + waiting - 1) / waiting;
}

int Library::parse(int32_t index, void *handle)
{
    std::shared_ptr<Instance> instance;
    size_t budget;
    {
        const common::Lock lock(lock_);
        const Slot *slot = slot_of(handle);
        if (!slot || index != 0)
            return -EINVAL;
        instance = slot->instance;
        budget = share(turn_order(slot->name));
    }
    const int done = instance->parse(budget);
    const common::Lock lock(lock_);
    pass_left_ -= std::min(pass_left_, static_cast<size_t>(std::max(done, 0)));
    return done;
}

// ---- losses ----

std::vector<std::shared_ptr<Instance>> Library::instances()
{
    std::vector<std::shared_ptr<Instance>> all;
    for (const Slot &slot : slots_)
        if (slot.instance)
            all.push_back(slot.instance);
    return all;
}

// The instances are asked without the lock: that may wait for whoever is defining a probe.
int Library::losses(kp_losses &out)
{
    std::vector<std::shared_ptr<Instance>> all;
    {
        const common::Lock lock(lock_);
        if (state_ != kWorking)
            return -ENOTSUP;
        all = instances();
        out = ended_;
    }
    for (const auto &instance : all)
        add(instance->losses(), out);
    return 0;
}

// ---- end ----

void Library::shut_down()
{
    const common::Lock lock(lock_);
    if (state_ != kWorking || owner_.pid != getpid())
        return;
    reader_.stop();
    for (Slot &slot : slots_)
        if (slot.instance)
            end(slot);
    state_ = kUnavailable;
    say("the process is ending");
}

// Locks that are taken here are given back in after_fork(), which no analysis of one function sees.
void Library::before_fork() NO_THREAD_SAFETY_ANALYSIS
{
    lock_.lock();
    reader_.mutex().lock();
    for (const Slot &slot : slots_)
        if (slot.instance)
            slot.instance->lock_for_fork();
}

void Library::after_fork(bool child) NO_THREAD_SAFETY_ANALYSIS
{
    if (child) {
        state_ = kUnavailable;
        why_ = "this process was forked from the one that has the probes";
        reader_.abandon();
    }
    for (const Slot &slot : slots_)
        if (slot.instance)
            slot.instance->unlock_for_fork();
    reader_.mutex().unlock();
    lock_.unlock();
}

}  // namespace kprobe
