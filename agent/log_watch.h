/*
 * log_watch.h: what the monitor says in its log and nowhere else: that a directory could not be watched.
 *
 * The monitor goes on when one directory of a tree cannot be marked, and only its log tells. So the command reads every
 * line as it is written, counts what was left out, and tells the user.
 */
#ifndef AGENT_LOG_WATCH_H
#define AGENT_LOG_WATCH_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

namespace agent
{

enum class Finding {
    kNone,
    kWatchLimit,   /* a directory without inotify watch: fs.inotify.max_user_watches */
    kMarkLimit,    /* a directory without fanotify mark: fs.fanotify.max_user_marks */
    kCacheFull,    /* a directory that has no room in the monitor's cache */
    kUnreadable,   /* a directory that may not be opened (with its path) */
    kDenied,       /* a directory that may not be watched */
    kUnopened,     /* a directory that is not marked because no descriptor was left to open it */
    kDescriptors,  /* a directory that is not watched because no descriptor was left to read it */
    kTooLong,      /* a directory whose path is longer than the monitor takes */
    kOther,        /* a directory that is not watched for another reason */
    kMonitorEnded, /* the monitor thread has given up */
};

struct LogLine {
    Finding finding = Finding::kNone;
    std::string_view path; /* where the line names one */
};

/* What a log line means. Failures because something vanished meanwhile mean nothing: that is no loss. */
LogLine read_log_line(std::string_view text);

/* What has been found since the last look. */
struct Findings {
    uint64_t watch_limit = 0, mark_limit = 0, cache_full = 0, unreadable = 0, denied = 0, unopened = 0, descriptors = 0,
             too_long = 0, other = 0;
    bool monitor_ended = false;
    std::string first_unreadable; /* path */
    std::string last_error;       /* the last line that gives a reason: why a request was refused */

    /* Directories that are not watched. One that may not be read is refused twice, when it is marked and when it is
     * opened, but either can be missing. A directory without watch counts for both limits, too. */
    uint64_t left_out() const;
    bool limit_reached() const { return watch_limit || mark_limit || cache_full || unopened || descriptors; }
};

class LogWatch
{
public:
    /* `changed` is called, on the thread that logs, when there is something to look at. */
    explicit LogWatch(std::function<void()> changed) : changed_(std::move(changed)) {}
    ~LogWatch() { stop(); }
    LogWatch(const LogWatch &) = delete;
    LogWatch &operator=(const LogWatch &) = delete;

    void start(); /* becomes the host's log sink */
    void stop();
    void line(int level, std::string_view text);
    Findings take();
    bool any() const { return any_.load(std::memory_order_relaxed); }

private:
    void count(const LogLine &line);

    std::function<void()> changed_;
    mutable std::mutex lock_;
    Findings findings_; /* under lock_ */
    std::atomic<bool> any_ = false;
};

}  // namespace agent

#endif
