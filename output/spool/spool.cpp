#include "spool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

namespace output
{

namespace
{

constexpr uint64_t kLeastBytes = uint64_t{64} << 10;
constexpr uint64_t kSyncMs = 1000;

SpoolLimits sensible(SpoolLimits limits)
{
    limits.bytes = std::max(limits.bytes, kLeastBytes);
    limits.segment = std::clamp<uint64_t>(limits.segment, sizeof(SegmentHead), limits.bytes / 4);
    return limits;
}

/* The ordinal behind the last record of a segment, and the bytes up to there. */
uint64_t walk(const SegmentFile &file, uint64_t size, uint64_t &end)
{
    SegmentReader reader(file.fd.get(), file.salt);
    Frame frame;
    uint64_t next = file.first;
    while (reader.next(size, frame))
        next = std::max(next, frame.ordinal + 1);
    end = reader.offset();
    return next;
}

}  // namespace

Spool::Spool(std::string path, std::string origin, const SpoolLimits &limits)
    : path_(std::move(path)), origin_(std::move(origin)), limits_(sensible(limits))
{
}

Spool::~Spool()
{
    std::string ignored;
    if (directory_.fd)
        settle(UINT64_MAX - kSyncMs, ignored);
}

bool Spool::fail(int code, std::string &error) const
{
    if (code != 0)
        error = "spool " + path_ + ": " + strerror(code);
    return code == 0;
}

bool Spool::open(std::string &error)
{
    const common::Lock appending(append_lock_);
    const common::Lock lock(lock_);
    if (!open_spool_directory(path_, directory_, error))
        return false;
    int code = position_.open(directory_.fd.get());
    if (code == 0)
        code = load();
    if (code != 0) {
        directory_ = SpoolDirectory();
        position_ = SpoolPosition();
    }
    return fail(code, error);
}

int Spool::load()
{
    std::vector<uint64_t> firsts;
    if (const int code = list_segments(directory_.fd.get(), firsts); code != 0)
        return code;
    for (size_t i = 0; i < firsts.size(); i++) {
        struct stat st;
        if (fstatat(directory_.fd.get(), segment_name(firsts[i]).c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
            return errno;
        const uint64_t next = i + 1 < firsts.size() ? firsts[i + 1] : firsts[i];
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        state_.segments.push_back(std::make_shared<Segment>(Segment{firsts[i], next, size}));
        state_.bytes += size;
    }
    if (const int code = load_last(); code != 0)
        return code;
    state_.unacked = position_.value() + 1;
    if (!state_.segments.empty()) {
        state_.next = state_.segments.back()->next;
        state_.unacked = std::max(state_.unacked, state_.segments.front()->first);
    }
    state_.next = std::max(state_.next, state_.unacked);
    state_.unread = state_.unacked;
    remove_acknowledged();
    return 0;
}

/* The last segment ends where a crash has left it: what is no whole frame is cut off, and one without any goes. */
int Spool::load_last()
{
    while (!state_.segments.empty()) {
        Segment &last = *state_.segments.back();
        SegmentFile file;
        const int code = open_segment(directory_.fd.get(), last.first, O_RDWR, file);
        if (code != 0 && code != EBADMSG)
            return code;
        uint64_t end = 0;
        if (code == 0)
            last.next = walk(file, last.size, end);
        if (last.next > last.first)
            return resume(std::move(file), end);
        remove_segment(state_.segments.size() - 1);
    }
    return 0;
}

int Spool::resume(SegmentFile file, uint64_t end)
{
    const SegmentPtr &last = state_.segments.back();
    if (end < last->size && ftruncate(file.fd.get(), static_cast<off_t>(end)) != 0)
        return errno;
    state_.bytes -= last->size - end;
    last->size = end;
    if (*file.origin != origin_ || end >= limits_.segment)
        return 0;
    last->open = true;
    writer_.segment = last;
    writer_.file = std::move(file);
    return 0;
}

void Spool::remove_segment(size_t index)
{
    const SegmentPtr segment = state_.segments[index];
    state_.segments.erase(state_.segments.begin() + static_cast<ptrdiff_t>(index));
    state_.bytes -= segment->size;
    segment->gone = true;
    unlinkat(directory_.fd.get(), segment_name(segment->first).c_str(), 0);
}

void Spool::remove_acknowledged()
{
    while (!state_.segments.empty()) {
        const Segment &front = *state_.segments.front();
        if (front.open || front.next > state_.unacked)
            return;
        remove_segment(0);
    }
}

/* Takes the oldest segments away. What was read of them is on its way, and not lost. */
void Spool::make_room(uint64_t wanted)
{
    while (state_.bytes + wanted > limits_.bytes && state_.segments.size() > 1) {
        const uint64_t next = state_.segments.front()->next;
        if (next > state_.unread)
            state_.dropped += next - state_.unread;
        state_.unread = std::max(state_.unread, next);
        state_.unacked = std::max(state_.unacked, next);
        remove_segment(0);
    }
}

int Spool::start_segment()
{
    uint64_t first;
    {
        const common::Lock lock(lock_);
        first = state_.next;
    }
    const int directory = directory_.fd.get();
    if (const int code = make_segment(directory, first, origin_, writer_.file); code != 0)
        return code;
    writer_.made = limits_.sync == SpoolSync::kSecond;
    if (limits_.sync == SpoolSync::kBatch && fsync(directory) != 0) {
        const int code = errno;
        unlinkat(directory, segment_name(first).c_str(), 0);
        return code;
    }
    writer_.segment = std::make_shared<Segment>(Segment{first, first, sizeof(SegmentHead), true});
    const common::Lock lock(lock_);
    state_.segments.push_back(writer_.segment);
    state_.bytes += sizeof(SegmentHead);
    return 0;
}

/* Makes frames of the records until the segment is full; how many records are done with then. */
size_t Spool::gather(std::span<const SpoolRecord> records, uint64_t &frames)
{
    uint64_t next, room;
    {
        const common::Lock lock(lock_);
        next = state_.next;
        room = limits_.segment - std::min(limits_.segment, writer_.segment->size);
    }
    writer_.frames.clear();
    frames = 0;
    size_t taken = 0;
    while (taken < records.size() && (frames == 0 || writer_.frames.size() < room)) {
        const SpoolRecord &record = records[taken++];
        if (fits_frame(record))
            append_frame(writer_.file.salt, next + frames++, record, writer_.frames);
    }
    return taken;
}

int Spool::write_frames(uint64_t count)
{
    uint64_t size;
    {
        const common::Lock lock(lock_);
        make_room(writer_.frames.size());
        size = writer_.segment->size;
    }
    const int fd = writer_.file.fd.get();
    int code = write_at(fd, writer_.frames, size);
    if (code == 0 && limits_.sync == SpoolSync::kBatch && fdatasync(fd) != 0)
        code = errno;
    if (code != 0) {
        if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
            /* The next records are written over what is left there. */
        }
        return code;
    }
    const common::Lock lock(lock_);
    publish(count);
    return 0;
}

void Spool::publish(uint64_t count)
{
    Segment &segment = *writer_.segment;
    segment.size += writer_.frames.size();
    state_.bytes += writer_.frames.size();
    segment.next = state_.next += count;
    writer_.dirty = limits_.sync == SpoolSync::kSecond;
    if (segment.size < limits_.segment)
        return;
    segment.open = false;
    if (writer_.dirty)
        writer_.closing.push_back(std::move(writer_.file.fd));
    writer_.dirty = false;
    writer_.segment.reset();
    remove_acknowledged();
}

size_t Spool::append(std::span<const SpoolRecord> records, std::string &error)
{
    const common::Lock appending(append_lock_);
    size_t done = 0;
    while (done < records.size()) {
        if (!writer_.segment && !fail(start_segment(), error))
            break;
        uint64_t frames;
        const size_t taken = gather(records.subspan(done), frames);
        if (frames != 0 && !fail(write_frames(frames), error))
            break;
        done += taken;
        const common::Lock lock(lock_);
        state_.dropped += taken - frames;
    }
    return done;
}

/* The first segment with something to be read; null: nothing is. */
Spool::SegmentPtr Spool::unread_segment(Unread &out)
{
    const common::Lock lock(lock_);
    for (const SegmentPtr &segment : state_.segments) {
        if (segment->next <= state_.unread)
            continue;
        out = {segment->size, state_.unread, segment->next};
        return segment;
    }
    return nullptr;
}

/* False: the segment cannot be opened now. One that is broken is entered, and holds nothing. */
bool Spool::enter(const SegmentPtr &segment)
{
    if (reader_.segment == segment)
        return true;
    reader_ = Reader();
    const int code = open_segment(directory_.fd.get(), segment->first, O_RDONLY, reader_.file);
    if (code == EMFILE || code == ENFILE || code == ENOMEM)
        return false;
    reader_.segment = segment;
    reader_.frames = std::make_unique<SegmentReader>(reader_.file.fd.get(), reader_.file.salt);
    return true;
}

/* Whether nothing more is to be had of what is to be read in this segment. */
bool Spool::read_entries(size_t bytes, const Unread &unread)
{
    size_t got = 0;
    Frame frame;
    while (got < bytes) {
        if (!reader_.file.fd || !reader_.frames->next(unread.end, frame))
            return true;
        const uint64_t least = reader_.entries.empty() ? unread.from : reader_.entries.back().ordinal + 1;
        if (frame.ordinal < least || frame.ordinal >= unread.to)
            continue;
        const SpoolRecord &record = frame.record;
        SpoolEntry &entry = reader_.entries.emplace_back();
        entry.ordinal = frame.ordinal;
        entry.number = record.number;
        entry.own = record.own;
        entry.origin = reader_.file.origin;
        entry.bytes.reserve(record.kind.size() + record.key.size() + record.text.size());
        entry.bytes.append(record.kind).append(record.key).append(record.text);
        entry.kind_size = static_cast<uint32_t>(record.kind.size());
        entry.key_size = static_cast<uint32_t>(record.key.size());
        got += frame.size;
    }
    return false;
}

/* Hands the entries on, unless their segment was taken away meanwhile: then they have been counted as dropped. */
bool Spool::take_entries(const Unread &unread, uint64_t to, std::deque<SpoolEntry> &out)
{
    std::deque<SpoolEntry> entries = std::move(reader_.entries);
    reader_.entries.clear();
    const common::Lock lock(lock_);
    if (reader_.segment->gone)
        return false;
    state_.unread = to;
    state_.damaged += to - unread.from - entries.size();
    std::move(entries.begin(), entries.end(), std::back_inserter(out));
    return !entries.empty();
}

bool Spool::read(size_t bytes, std::deque<SpoolEntry> &out)
{
    Unread unread;
    while (const SegmentPtr segment = unread_segment(unread)) {
        if (!enter(segment))
            return false;
        const bool all = read_entries(bytes, unread);
        const uint64_t to = all || reader_.entries.empty() ? unread.to : reader_.entries.back().ordinal + 1;
        if (take_entries(unread, to, out))
            return true;
    }
    return false;
}

void Spool::acknowledge(uint64_t ordinal)
{
    const common::Lock lock(lock_);
    state_.unacked = std::max(state_.unacked, ordinal + 1);
    remove_acknowledged();
}

/* Full segments, and what stands in the one that is written to, without holding up who appends. */
int Spool::sync()
{
    std::vector<common::Fd> files;
    bool made;
    {
        const common::Lock appending(append_lock_);
        made = std::exchange(writer_.made, false);
        files = std::exchange(writer_.closing, {});
        if (writer_.dirty)
            files.emplace_back(fcntl(writer_.file.fd.get(), F_DUPFD_CLOEXEC, 0));
        writer_.dirty = false;
    }
    int code = made && fsync(directory_.fd.get()) != 0 ? errno : 0;
    for (const common::Fd &file : files)
        if (!file || fdatasync(file.get()) != 0)
            code = errno;
    return code;
}

bool Spool::settle(uint64_t now, std::string &error)
{
    uint64_t acked;
    {
        const common::Lock lock(lock_);
        acked = state_.unacked - 1;
    }
    int code = acked == position_.value() ? 0 : position_.store(acked);
    if (now < sync_at_)
        return fail(code, error);
    sync_at_ = now + kSyncMs;
    const int synced = sync();
    return fail(code != 0 ? code : synced, error);
}

SpoolFigures Spool::figures() const
{
    const common::Lock lock(lock_);
    return {state_.bytes, state_.segments.size(), state_.next - state_.unacked, state_.dropped, state_.damaged};
}

bool Spool::has_unread() const
{
    const common::Lock lock(lock_);
    return state_.unread < state_.next;
}

}  // namespace output
