/*
 * spool.h: records on disk between their being accepted and their being acknowledged: in order, checked, bounded.
 *
 * Records stand in segments, files of some MiB. One that has been acknowledged as a whole is taken away; when the spool
 * is full, the oldest goes, and its records are counted as dropped. A record has an ordinal, its place in the spool,
 * and is acknowledged by that. After a crash reading begins behind the last position that was stored: what had been
 * acknowledged since then, for a fraction of a second, is read a second time.
 *
 * append() and figures() may be called by any thread, read(), acknowledge() and settle() by one.
 */
#ifndef OUTPUT_SPOOL_SPOOL_H
#define OUTPUT_SPOOL_SPOOL_H

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "directory.h"
#include "position.h"
#include "segment.h"

namespace output
{

/* When what was written is carried to the disk; a process that is killed loses nothing either way, a machine may. */
enum class SpoolSync { kNever, kSecond, kBatch };

struct SpoolLimits {
    uint64_t bytes = uint64_t{256} << 20; /* at least 64 KiB */
    uint64_t segment = uint64_t{8} << 20; /* a quarter of `bytes` at most */
    SpoolSync sync = SpoolSync::kSecond;
};

struct SpoolFigures {
    uint64_t bytes = 0;    /* on disk */
    uint64_t segments = 0; /* files */
    uint64_t waiting = 0;  /* records that are not acknowledged */
    uint64_t dropped = 0;  /* records that went because the spool was full */
    uint64_t damaged = 0;  /* records that could not be read back */
};

/* A record that was read back. */
struct SpoolEntry {
    uint64_t ordinal = 0;
    uint64_t number = 0;
    bool own = false;
    std::shared_ptr<const std::string> origin; /* boot:instance */
    std::string bytes;                         /* kind, key, text */
    uint32_t kind_size = 0, key_size = 0;

    std::string_view kind() const { return std::string_view(bytes).substr(0, kind_size); }
    std::string_view key() const { return std::string_view(bytes).substr(kind_size, key_size); }
    std::string_view text() const { return std::string_view(bytes).substr(kind_size + key_size); }
};

class Spool
{
public:
    /* `origin`: boot:instance of the records to come. */
    Spool(std::string path, std::string origin, const SpoolLimits &limits);
    ~Spool(); /* stores the position */

    /* Once, before everything else. False, with one line in `error`. */
    bool open(std::string &error);

    /* Appends the records in order. How many; fewer than all: `error` says why, in one line. Records that are too long
     * for a spool are counted as dropped. */
    size_t append(std::span<const SpoolRecord> records, std::string &error) EXCLUDES(append_lock_, lock_);

    /* Appends to `out` what comes next, up to about `bytes`. False: there was nothing. */
    bool read(size_t bytes, std::deque<SpoolEntry> &out) EXCLUDES(lock_);

    /* This record and all before it have arrived. */
    void acknowledge(uint64_t ordinal) EXCLUDES(lock_);

    /* Stores the position, and with SpoolSync::kSecond carries to the disk what was written, if that was not done
     * within the last second. `now`: milliseconds of a clock that does not run backwards. False: with one line in
     * `error`. */
    bool settle(uint64_t now, std::string &error) EXCLUDES(lock_);

    SpoolFigures figures() const EXCLUDES(lock_);
    bool has_unread() const EXCLUDES(lock_);

private:
    struct Segment {
        uint64_t first = 0;
        uint64_t next = 0; /* ordinal behind the last record; `first` where there is none */
        uint64_t size = 0; /* bytes up to the end of the last frame */
        bool open = false; /* is written to */
        bool gone = false; /* was taken away */
    };
    using SegmentPtr = std::shared_ptr<Segment>; /* what it points to is guarded by lock_ */
    struct Writer {
        SegmentPtr segment; /* null: a new one is due */
        SegmentFile file;
        std::string frames;
        bool dirty = false;              /* the file holds what is not on the disk */
        bool made = false;               /* the directory holds a name that is not on the disk */
        std::vector<common::Fd> closing; /* full segments that are not on the disk */
    };
    struct Reader {
        SegmentPtr segment;
        SegmentFile file;
        std::unique_ptr<SegmentReader> frames;
        std::deque<SpoolEntry> entries;
    };
    struct State {
        std::deque<SegmentPtr> segments;
        uint64_t bytes = 0;
        uint64_t next = 1;    /* ordinal of the next record */
        uint64_t unread = 1;  /* ordinal of the next record to be read */
        uint64_t unacked = 1; /* ordinal of the first record that is not acknowledged */
        uint64_t dropped = 0, damaged = 0;
    };
    /* What there is to be read in a segment. */
    struct Unread {
        uint64_t end;  /* of the frames, in bytes */
        uint64_t from; /* ordinals */
        uint64_t to;
    };

    bool fail(int code, std::string &error) const;
    int load() REQUIRES(append_lock_, lock_);
    int load_last() REQUIRES(append_lock_, lock_);
    int resume(SegmentFile file, uint64_t end) REQUIRES(append_lock_, lock_);
    int start_segment() REQUIRES(append_lock_) EXCLUDES(lock_);
    size_t gather(std::span<const SpoolRecord> records, uint64_t &frames) REQUIRES(append_lock_) EXCLUDES(lock_);
    int write_frames(uint64_t count) REQUIRES(append_lock_) EXCLUDES(lock_);
    void publish(uint64_t count) REQUIRES(append_lock_, lock_);
    void make_room(uint64_t wanted) REQUIRES(lock_);
    void remove_segment(size_t index) REQUIRES(lock_);
    void remove_acknowledged() REQUIRES(lock_);
    int sync() EXCLUDES(append_lock_);

    SegmentPtr unread_segment(Unread &out) EXCLUDES(lock_);
    bool enter(const SegmentPtr &segment) EXCLUDES(lock_);
    bool read_entries(size_t bytes, const Unread &unread);
    bool take_entries(const Unread &unread, uint64_t to, std::deque<SpoolEntry> &out) EXCLUDES(lock_);

    const std::string path_, origin_;
    const SpoolLimits limits_;
    SpoolDirectory directory_;
    SpoolPosition position_; /* the reading thread's */
    Reader reader_;          /* likewise */
    uint64_t sync_at_ = 0;   /* likewise; when the disk is due */
    mutable common::Mutex append_lock_;
    Writer writer_ GUARDED_BY(append_lock_);
    mutable common::Mutex lock_ ACQUIRED_AFTER(append_lock_);
    State state_ GUARDED_BY(lock_);
};

}  // namespace output

#endif
