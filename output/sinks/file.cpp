/* A file, rotated by size and age; see generations.h for what that leaves. */

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/time_format.h"
#include "compression.h"
#include "generations.h"
#include "log_file.h"
#include "queued_sink.h"
#include "rows.h"

namespace output
{

namespace
{

constexpr uint64_t kLookMs = 1000;          /* how often it is looked whether somebody has moved the file */
constexpr uint64_t kRotateAgainMs = 10'000; /* after a rotation that failed */
constexpr uint64_t kCompressAgainMs = 60'000;
constexpr uint64_t kFarMs = UINT64_MAX;

enum class Sync { kNever, kTime, kBatch };

struct FileOptions {
    std::string path;
    mode_t mode = 0;
    uint64_t max_size = 0, max_age_ms = 0; /* 0: no limit */
    uint64_t keep = 0;
    bool compress = false;
    Sync sync = Sync::kNever;
    uint64_t sync_ms = 0;
};

class FileTransport : public Transport
{
public:
    explicit FileTransport(const FileOptions &options) : options_(options), generations_(options.path, options.keep) {}

    bool open(std::string &error) override;
    Carried carry(const Packets &packets, const Patience &patience) override;
    int idle() override;
    bool finish(uint64_t deadline_ms, const Patience &patience) override;

private:
    LogFile::Opened open_file(std::string &error);
    bool is_ready(const Packets &packets, std::string &trouble);
    bool has_moved();
    size_t fitting(const Packets &packets) const;
    Carried write(const Packets &packets);
    Carried trouble(size_t done, const char *what, int error) const;
    void sync_if_due(uint64_t now);
    void rotate(uint64_t now);
    void compress(uint64_t now);
    void put_compressed(uint64_t now);
    void begin_compression();

    const FileOptions options_;
    const Generations generations_;
    LogFile file_;
    Compression compression_;
    uint64_t looked_ms_ = 0;
    uint64_t old_ms_ = kFarMs;      /* when the file's age is reached */
    uint64_t rotate_ms_ = 0;        /* no rotation before */
    uint64_t sync_ms_ = kFarMs;     /* when what was written is to be on the disk */
    uint64_t compress_ms_ = kFarMs; /* when the next step or the search for what is to be compressed is due */
};

bool FileTransport::open(std::string &error) { return open_file(error) != LogFile::Opened::kNever; }

LogFile::Opened FileTransport::open_file(std::string &error)
{
    const LogFile::Opened opened = file_.open(options_.path, options_.mode, error);
    if (opened != LogFile::Opened::kYes)
        return opened;
    if (!compression_.under_way())
        generations_.tidy();
    compress_ms_ = options_.compress ? 0 : kFarMs;
    const uint64_t wall = agent::wall_clock_ns() / 1'000'000, now = agent::steady_ms();
    const uint64_t age = wall > file_.begun_ms() ? wall - file_.begun_ms() : 0;
    const bool has_age = options_.max_age_ms != 0 && file_.size() != 0;
    old_ms_ = has_age ? now + (age < options_.max_age_ms ? options_.max_age_ms - age : 0) : kFarMs;
    if (file_.cut() != 0)
        say("the last line of " + options_.path + " had no end: cut " + std::to_string(file_.cut()) + " bytes");
    return opened;
}

Carried FileTransport::carry(const Packets &packets, const Patience &)
{
    std::string why;
    if (!is_ready(packets, why))
        return {.trouble = why};
    return write(packets.first(fitting(packets)));
}

bool FileTransport::is_ready(const Packets &packets, std::string &trouble)
{
    const uint64_t now = agent::steady_ms();
    if (file_ && has_moved())
        file_.close();
    if (!file_ && open_file(trouble) != LogFile::Opened::kYes)
        return false;
    const bool is_full = options_.max_size != 0 && file_.size() + packets[0].size() > options_.max_size;
    if (file_.size() != 0 && (is_full || now >= old_ms_))
        rotate(now);
    return file_ || open_file(trouble) == LogFile::Opened::kYes;
}

bool FileTransport::has_moved()
{
    const uint64_t now = agent::steady_ms();
    if (now < looked_ms_ + kLookMs)
        return false;
    looked_ms_ = now;
    return !file_.is_at(options_.path);
}

// One at least: a record above the limit has a file of its own, and after a rotation that failed the old file grows.
size_t FileTransport::fitting(const Packets &packets) const
{
    if (options_.max_size == 0 || file_.size() >= options_.max_size)
        return packets.size();
    const uint64_t room = options_.max_size - file_.size();
    return std::max<size_t>(packets.whole_in(static_cast<size_t>(std::min<uint64_t>(room, SIZE_MAX / 2))), 1);
}

// What could not be brought to the disk may never be written again by the kernel: it is written anew.
Carried FileTransport::write(const Packets &packets)
{
    const uint64_t before = file_.size(), now = agent::steady_ms();
    size_t done;
    if (const int failed = file_.write(packets, done))
        return trouble(done, "cannot write to ", failed);
    if (before == 0 && options_.max_age_ms != 0)
        old_ms_ = now + options_.max_age_ms;
    if (options_.sync == Sync::kTime)
        sync_ms_ = std::min(sync_ms_, now + options_.sync_ms);
    const int failed = options_.sync == Sync::kBatch ? file_.sync() : 0;
    if (failed == 0)
        return {done};
    file_.take_back(before);
    return trouble(0, "cannot bring to the disk ", failed);
}

Carried FileTransport::trouble(size_t done, const char *what, int error) const
{
    return {.done = done, .trouble = what + options_.path + ": " + strerror(error)};
}

int FileTransport::idle()
{
    const uint64_t now = agent::steady_ms();
    if (file_ && now >= sync_ms_)
        sync_if_due(now);
    if (file_ && now >= old_ms_ && now >= rotate_ms_)
        rotate(now);
    if (now >= compress_ms_)
        compress(now);
    const uint64_t of_file = std::min(sync_ms_, std::max(old_ms_, rotate_ms_));
    const uint64_t next = std::min(file_ ? of_file : kFarMs, compress_ms_);
    if (next == kFarMs)
        return -1;
    return next > now ? static_cast<int>(std::min<uint64_t>(next - now, INT32_MAX)) : 0;
}

void FileTransport::sync_if_due(uint64_t now)
{
    const int failed = file_.sync();
    sync_ms_ = failed ? now + options_.sync_ms : kFarMs;
    if (failed)
        say("cannot bring to the disk " + options_.path + ": " + strerror(failed));
}

// Where the names cannot be changed the file grows on.
void FileTransport::rotate(uint64_t now)
{
    if (now < rotate_ms_)
        return;
    if (options_.sync != Sync::kNever)
        sync_if_due(now);
    if (const int failed = generations_.rotate()) {
        rotate_ms_ = now + kRotateAgainMs;
        say("cannot rotate " + options_.path + ", which grows on: " + strerror(failed));
        return;
    }
    file_.close();
    sync_ms_ = old_ms_ = kFarMs;
    if (options_.compress && !compression_.under_way())
        compress_ms_ = now;
    std::string later;
    open_file(later);  // where that fails the next record says so
}

void FileTransport::compress(uint64_t now)
{
    std::string error;
    Compression::Step step = Compression::Step::kMore;
    if (!compression_.under_way())
        begin_compression();
    else
        step = compression_.step(error);
    if (step == Compression::Step::kWhole)
        put_compressed(now);
    if (step == Compression::Step::kFailed) {
        compress_ms_ = now + kCompressAgainMs;
        say(error);
    }
}

// What was compressed may be beyond those to be kept meanwhile.
void FileTransport::put_compressed(uint64_t now)
{
    const int failed = generations_.put_compressed(compression_.inode());
    if (failed == 0)
        return;
    unlink(generations_.unfinished().c_str());
    if (failed == ENOENT)
        return;
    compress_ms_ = now + kCompressAgainMs;
    say("cannot rename " + generations_.unfinished() + ": " + strerror(failed));
}

void FileTransport::begin_compression()
{
    const std::string oldest = generations_.uncompressed();
    std::string error;
    if (oldest.empty()) {
        compress_ms_ = kFarMs;
    } else if (!compression_.begin(oldest, generations_.unfinished(), error)) {
        compress_ms_ = agent::steady_ms() + kCompressAgainMs;
        say(error);
    }
}

bool FileTransport::finish(uint64_t, const Patience &)
{
    return !file_ || options_.sync == Sync::kNever || file_.sync() == 0;
}

// ---- settings ----

constexpr Setting kSettings[] = {
    {"path", SettingType::kText, "the file, by its absolute path", nullptr, true},
    {"mode", SettingType::kText, "the permissions that it is made with", "0640"},
    {"max_size", SettingType::kBytes, "it is rotated before it gets larger; 0: whatever its size", "100 MiB"},
    {"max_age", SettingType::kTime, "it is rotated when it is so old; 0: whatever its age", "0"},
    {"keep", SettingType::kNumber, "how many rotated files are kept: PATH.1 is the newest", "10"},
    {"compress", SettingType::kText, "what rotated files are compressed by: none, or zstd (PATH.1.zst)", "none"},
    {"sync", SettingType::kText,
     "when what was written is brought to the disk: never (the kernel does, within half a minute), batch (each time, "
     "before it counts as safe), or time (after sync_time)",
     "never"},
    {"sync_time", SettingType::kTime, "how long that may take with sync = \"time\"", "5 s"},
    kBufferSetting,
};

bool read_mode(const std::string &text, mode_t &mode)
{
    mode = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '7' || mode > 077)
            return false;
        mode = mode * 8 + static_cast<mode_t>(digit - '0');
    }
    return !text.empty();
}

// The first thing that is wrong; empty: nothing.
std::string read_options(const Settings &settings, FileOptions &options)
{
    const std::string sync = settings.text("sync"), compress = settings.text("compress");
    options.path = settings.text("path");
    options.max_size = settings.number("max_size");
    options.max_age_ms = settings.number("max_age");
    options.keep = settings.number("keep");
    options.sync_ms = settings.number("sync_time");
    options.compress = compress == "zstd";
    options.sync = sync == "batch" ? Sync::kBatch : sync == "time" ? Sync::kTime : Sync::kNever;
    if (!options.path.starts_with('/') || options.path.ends_with('/'))
        return "path: the absolute path of a file is needed";
    if (!read_mode(settings.text("mode"), options.mode) || (options.mode & 0600) != 0600 || (options.mode & 0133) != 0)
        return "mode: octal digits such as 0640 are needed, with which the owner may read and write, and others not "
               "write";
    if (compress != "none" && compress != "zstd")
        return "compress: none or zstd";
    if (sync != "never" && sync != "time" && sync != "batch")
        return "sync: never, time or batch";
    return "";
}

std::unique_ptr<Sink> make(const Settings &settings, const Origin &, std::string &error)
{
    FileOptions options;
    error = read_options(settings, options);
    if (!error.empty())
        return nullptr;
    return std::make_unique<QueuedSink>(std::make_unique<FileTransport>(options), limits_of(settings));
}

}  // namespace

constinit const SinkRow kFileRow = {"file", "a file, rotated by size and age", kSettings, make};

}  // namespace output
