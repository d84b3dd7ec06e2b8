#include "processes.h"

#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "boot_time.h"
#include "signals.h"

namespace agent
{

namespace
{

constexpr size_t kSlots = 1024;               /* a power of two */
constexpr int kBatches = 256;                 /* of messages, that one look takes */
constexpr uint64_t kSurveyNs = 1'000'000'000; /* from one survey after losses to the next */
constexpr int kMendMs = 100;

// A process may end a moment after it has begun, so this thread goes before others. It does little, once a program.
void be_first()
{
    const struct sched_param least = {1};
    if (sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &least) != 0)
        setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), -20);
}

}  // namespace

Processes::Processes(std::string proc, const ConnectorCalls &calls)
    : cache_(proc), slots_(kSlots), connector_(calls), table_(std::move(proc))
{
}

Processes::~Processes() { stop(); }

bool Processes::start(bool ancestors, std::string &error)
{
    const common::UrgentLock hold(lock_);
    cache_.want_ancestors(ancestors);
    if (!connector_.open(error))
        return false;
    stop_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stop_) {
        error = "no descriptor is left: see ulimit -n";
        connector_.close();
        return false;
    }
    fd_ = connector_.fd();
    lost_ns_ = monotonic_ns();
    take_all(); /* those that run by now are not known, and to look at them is long: not while events come */
    listens_ = true;
    const SignalsBlocked blocked;
    try {
        reader_ = std::thread([this] { listen(); });
        const struct sched_param least = {1};
        pthread_setschedparam(reader_.native_handle(), SCHED_RR, &least); /* from its first moment, see be_first() */
        return true;
    } catch (const std::system_error &) {
        error = "no thread could be made: see ulimit -u";
        listens_ = false;
        connector_.close();
        return false;
    }
}

void Processes::stop()
{
    if (!reader_.joinable())
        return;
    eventfd_write(stop_.get(), 1);
    reader_.join();
    const common::UrgentLock hold(lock_);
    connector_.close();
}

void Processes::listen()
{
    prctl(PR_SET_NAME, "fmon-processes");
    be_first();
    struct pollfd waits[] = {{fd_, POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    int patience = 0;
    while (poll(waits, 2, patience) >= 0 || errno == EINTR) {
        const common::UrgentLock hold(lock_);
        if (waits[1].revents || !take_all())
            break;
        patience = lost_ns_ ? kMendMs : -1;
    }
    listens_ = false;
}

// What the kernel has sent by now. False: it sends no more. An overflow is reported before what the queue held.
bool Processes::take_all()
{
    using Result = ProcessConnector::Result;
    Result result = Result::kMore;
    for (int i = 0; i < kBatches && (result == Result::kMore || result == Result::kLoss); i++) {
        result = connector_.receive([this](const ProcessEvent &event) REQUIRES(lock_) { table_.apply(event); });
        if (result != Result::kLoss)
            continue;
        losses_.fetch_add(1, std::memory_order_relaxed);
        lost_ns_ = monotonic_ns();
    }
    if (lost_ns_)
        mend();
    return result != Result::kEnd;
}

void Processes::mend()
{
    const uint64_t now = monotonic_ns();
    if (surveyed_ns_ && now - surveyed_ns_ < kSurveyNs)
        return;
    surveyed_ns_ = now;
    table_.survey(std::exchange(lost_ns_, 0));
}

ProcessPtr Processes::find(uint32_t pid, uint64_t turn, uint64_t now_ms)
{
    if (pid == 0)
        return nullptr;
    if (!listens_)
        return cache_.find(pid, turn, now_ms);
    if (turn != turn_) {
        turn_ = turn;
        turn_ns_ = monotonic_ns();
    }
    Slot &slot = slots_[pid & (kSlots - 1)];
    if (slot.pid != pid || slot.turn != turn || !slot.process)
        slot = {pid, turn, look_up(pid, turn, now_ms)};
    return slot.process;
}

// Pids that the kernel does not report are those of threads, and of processes that were forgotten.
ProcessPtr Processes::look_up(uint32_t pid, uint64_t turn, uint64_t now_ms)
{
    ProcessPtr process = from_table(pid, turn_ns_);
    return process ? process : cache_.find(pid, turn, now_ms);
}

// After a loss, until the next survey, what a process that runs has become is not known.
ProcessPtr Processes::from_table(uint32_t pid, uint64_t time_ns)
{
    const common::UrgentLock hold(lock_);
    if (!take_all())
        listens_ = false;
    if (!listens_ || (lost_ns_ && table_.runs(pid)))
        return nullptr;
    if (const std::optional<ProcessReading> reading = table_.read(pid, time_ns)) {
        take_all();
        table_.refresh(*reading);
    }
    return table_.find(pid, time_ns);
}

}  // namespace agent
