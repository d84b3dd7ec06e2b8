#include "records.h"

#include <fcntl.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "clock.h"

namespace kprobe
{

namespace
{

constexpr int kFirstDescriptor = 3;  // the monitor takes 0 for an empty place
constexpr size_t kLeastRing = size_t{1} << 16;

}  // namespace

int Records::open()
{
    const common::Lock lock(lock_);
    signal_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return signal_ ? 0 : -errno;
}

Fd Records::copy_descriptor()
{
    const common::Lock lock(lock_);
    return Fd(fcntl(signal_.get(), F_DUPFD_CLOEXEC, kFirstDescriptor));
}

// ---- CPUs ----

size_t Records::ring_size(const Sizes &sizes)
{
    const size_t taken = rings().size() * sizes.ring;
    const size_t left = sizes.all_rings > taken ? sizes.all_rings - taken : 0;
    size_t size = sizes.ring;
    while (size > left && size > kLeastRing)
        size /= 2;
    return size;
}

Records::Lane *Records::lane_of(int cpu)
{
    const auto found = std::find_if(lanes_.begin(), lanes_.end(), [cpu](const Lane &lane) { return lane.cpu == cpu; });
    return found == lanes_.end() ? nullptr : &*found;
}

int Records::open_ring(int cpu, const Sizes &sizes)
{
    auto ring = std::make_unique<Ring>();
    if (const int status = ring->open(cpu, ring_size(sizes)); status < 0)
        return status;
    const common::Lock lock(lock_);
    if (Lane *lane = lane_of(cpu)) {
        lane->ring = std::move(ring);
        lane->latest = {};
        return 0;
    }
    auto queue = std::make_unique<RecordQueue>();
    if (!queue->open(sizes.queue))
        return -ENOMEM;
    lanes_.push_back({cpu, std::move(ring), std::move(queue)});
    return 0;
}

void Records::close_ring(int cpu)
{
    const common::Lock lock(lock_);
    if (Lane *lane = lane_of(cpu))
        lane->ring->close();
}

std::vector<Ring *> Records::rings()
{
    const common::Lock lock(lock_);
    std::vector<Ring *> out;
    for (const Lane &lane : lanes_)
        if (lane.ring->fd() >= 0)
            out.push_back(lane.ring.get());
    return out;
}

std::vector<int> Records::cpus()
{
    std::vector<int> out;
    for (const Ring *ring : rings())
        out.push_back(ring->cpu());
    return out;
}

const Ring *Records::ring(int cpu)
{
    const common::Lock lock(lock_);
    const Lane *lane = lane_of(cpu);
    return lane && lane->ring->fd() >= 0 ? lane->ring.get() : nullptr;
}

// ---- probes ----

void Records::expect(size_t probe, std::vector<uint32_t> left_out)
{
    const common::Lock lock(lock_);
    if (sources_.size() <= probe)
        sources_.resize(probe + 1);
    sources_[probe] = {-1, std::move(left_out)};
}

void Records::leave_out(size_t probe, std::vector<uint32_t> threads) noexcept
{
    const common::Lock lock(lock_);
    sources_[probe].left_out.swap(threads);
}

void Records::belong(int event_id, size_t probe) noexcept
{
    const common::Lock lock(lock_);
    sources_[probe].event_id = event_id;
}

void Records::expect_repeats()
{
    const common::Lock lock(lock_);
    if (repeats_until_ < now_ns())
        for (Lane &lane : lanes_)
            lane.latest = {};
    repeats_until_ = UINT64_MAX;
}

void Records::end_repeats(uint64_t time)
{
    const common::Lock lock(lock_);
    if (repeats_until_ == UINT64_MAX)
        repeats_until_ = time;
}

// ---- in ----

// Called by Ring::drain() inside of sweep(), which holds the lock.
struct Records::Sink {
    Records &records;
    Lane &lane;
    bool took = false;

    void sample(const Sample &sample) NO_THREAD_SAFETY_ANALYSIS
    {
        took = true;
        records.take(sample, lane);
    }
    void lost(uint64_t count) NO_THREAD_SAFETY_ANALYSIS { records.counts_.ring += count; }
};

// The event's number is the first field of every raw record. -1: none of ours (any more).
int Records::index_of(const Sample &sample) const
{
    uint16_t type;
    if (sample.raw_size < sizeof(type))
        return -1;
    memcpy(&type, sample.raw, sizeof(type));
    for (size_t i = 0; i < sources_.size(); i++)
        if (sources_[i].event_id == type)
            return static_cast<int>(i);
    return -1;
}

void Records::take(const Sample &sample, Lane &lane)
{
    const int probe = index_of(sample);
    if (probe < 0 || (sample.time < repeats_until_ && lane.latest.is_again(sample)))
        return;
    const std::vector<uint32_t> &left_out = sources_[static_cast<size_t>(probe)].left_out;
    const bool known = std::find(left_out.begin(), left_out.end(), sample.tid) == left_out.end();
    if (!lane.queue->push(
            {sample.time, static_cast<uint32_t>(probe), known ? sample.pid : 0, sample.raw, sample.raw_size}))
        counts_.queue++;
}

bool Records::sweep(uint64_t safe)
{
    const common::Lock lock(lock_);
    bool took = false;
    for (Lane &lane : lanes_) {
        Sink sink = {*this, lane};
        lane.ring->drain(sink);
        took |= sink.took;
    }
    safe_ = std::max(safe_, safe);
    settle_signal();
    const bool held = std::any_of(lanes_.begin(), lanes_.end(), [this](const Lane &lane) REQUIRES(lock_) {
        return !lane.queue->empty() && !is_ready(*lane.queue);
    });
    return took || held;
}

bool Records::is_ready(const RecordQueue &queue) const
{
    QueuedRecord first;
    return queue.peek(first) && first.time <= safe_;
}

void Records::settle_signal()
{
    const bool ready = oldest() != nullptr;
    if (ready == raised_)
        return;
    eventfd_t value = 1;
    raised_ = ready;
    ready ? eventfd_write(signal_.get(), value) : eventfd_read(signal_.get(), &value);
}

// ---- out ----

bool Records::is_waiting()
{
    const common::Lock lock(lock_);
    return raised_;
}

// The queue that begins with the oldest record that may be taken; null: there is none.
RecordQueue *Records::oldest()
{
    RecordQueue *best = nullptr;
    uint64_t time = safe_;
    QueuedRecord first;
    for (const Lane &lane : lanes_) {
        if (!lane.queue->peek(first) || first.time > time)
            continue;
        time = first.time;
        best = lane.queue.get();
    }
    return best;
}

void Records::gather(size_t budget, Batch &out)
{
    const common::Lock lock(lock_);
    out.bytes.clear();
    out.records.clear();
    for (RecordQueue *queue; out.records.size() < budget && (queue = oldest());) {
        QueuedRecord record;
        queue->peek(record);
        try {
            out.bytes.insert(out.bytes.end(), record.raw, record.raw + record.raw_size);
            out.records.push_back(record);
        } catch (const std::exception &) {  // out of memory: the rest waits
            break;
        }
        queue->pop();
    }
    size_t at = 0;
    for (QueuedRecord &record : out.records) {
        record.raw = out.bytes.data() + at;
        at += record.raw_size;
    }
    settle_signal();
}

void Records::clean()
{
    sweep(0);
    const common::Lock lock(lock_);
    for (const Lane &lane : lanes_)
        counts_.cleaned += lane.queue->clear();
    settle_signal();
}

kp_losses Records::counts()
{
    const common::Lock lock(lock_);
    return counts_;
}

void Records::abandon()
{
    for (const Lane &lane : lanes_)
        lane.ring->close();
    for (Source &source : sources_)
        source.event_id = -1;
}

}  // namespace kprobe
