/* The log of orx_base.h and orx_autolog.h: where lines go, their level, sinks and captures of orx_host.h. */

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "common/mutex.h"
#include "guard.h"
#include "log_file.h"
#include "log_line.h"
#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_host.h"

int error_output_level = ORX_LOG_WARNING;

namespace
{

constexpr char kFile[] = "log.c";
constexpr size_t kMaxText = 32 << 10; /* bytes of a text that reach the log */

struct Log {
    common::Mutex lock; /* also the order of lines */
    host::LogFile file GUARDED_BY(lock);
    common::SharedMutex sink_lock; /* shared while the sink runs: removing it waits for calls under way */
    orx_log_sink sink GUARDED_BY(sink_lock) = nullptr;
    void *sink_arg GUARDED_BY(sink_lock) = nullptr;
};

Log &the_log()
{
    static Log *const log = new Log; /* never destroyed: threads log while the process ends */
    return *log;
}

/* While threads take their lines away, error_output_level is raised for all; `level` is what it was, -1 otherwise. */
struct Raised {
    common::Mutex lock;
    int captures GUARDED_BY(lock) = 0;
    std::atomic<int> level = -1;
} raised;

/* Where the calling thread's lines go; null: to the log. */
struct Capture {
    orx_log_sink sink;
    void *arg;
};
thread_local Capture capture;

void set_level(int level) { __atomic_store_n(&error_output_level, level, __ATOMIC_RELAXED); }

int get_level() { return __atomic_load_n(&error_output_level, __ATOMIC_RELAXED); }

/* Whether the log takes a line that has passed error_output_level. */
bool is_for_log(int level)
{
    const int normal = raised.level.load(std::memory_order_relaxed);
    return normal < 0 || level <= normal;
}

void raise_level()
{
    const common::Lock hold(raised.lock);
    if (raised.captures++ > 0)
        return;
    raised.level.store(get_level(), std::memory_order_relaxed);
    set_level(ORX_LOG_DEBUG);
}

void restore_level()
{
    const common::Lock hold(raised.lock);
    if (--raised.captures > 0)
        return;
    set_level(raised.level.load(std::memory_order_relaxed));
    raised.level.store(-1, std::memory_order_relaxed);
}

/* False where the process was started without it: 2 is then the number of some other file sooner or later. */
bool stderr_exists = true;

[[gnu::constructor]] void read_environment()
{
    stderr_exists = fcntl(STDERR_FILENO, F_GETFD) >= 0;
    const char *text = secure_getenv("FMON_LOG_LEVEL");
    if (text && text[0] >= '0' && text[0] <= '0' + ORX_LOG_DEBUG && text[1] == 0)
        error_output_level = text[0] - '0';
}

/* A text made from a format: on the stack as long as it is short, cut where it is absurdly long. */
class Text
{
public:
    Text(const char *fmt, va_list args) __attribute__((format(printf, 2, 0)))
    {
        int error = errno;
        va_list again;
        va_copy(again, args);
        /* NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has started it, which is not seen */
        int needed = vsnprintf(small_, sizeof small_, fmt, args);
        if (needed < 0)
            orx_str_strlcpy(small_, fmt, sizeof small_);
        else if (static_cast<size_t>(needed) >= sizeof small_)
            format_large(fmt, again, static_cast<size_t>(needed), error);
        va_end(again);
    }

    /* Without the newline at its end, if it has one; terminated. */
    const char *without_newline()
    {
        char *text = large_ ? large_.get() : small_;
        size_t length = strlen(text);
        if (length > 0 && text[length - 1] == '\n')
            text[length - 1] = 0;
        return text;
    }

private:
    /* Without memory the beginning in small_ has to do. `error` is what "%m" stands for. */
    void format_large(const char *fmt, va_list args, size_t needed, int error) __attribute__((format(printf, 2, 0)))
    {
        constexpr size_t kNote = 48;
        size_t kept = std::min(needed, kMaxText);
        large_.reset(static_cast<char *>(malloc(kept + kNote)));
        if (!large_)
            return;
        errno = error;
        vsnprintf(large_.get(), kept + 1, fmt, args);
        if (kept < needed)
            snprintf(large_.get() + kept, kNote, "... (%zu more bytes)", needed - kept);
    }

    struct Free {
        void operator()(char *block) const { free(block); }
    };
    char small_[1024];
    std::unique_ptr<char, Free> large_;
};

/* Calls the sink, unless this line comes from the sink itself. */
void show_to_sink(int level, const char *file, int line, const char *text)
{
    static thread_local bool in_sink = false;
    if (in_sink)
        return;
    Log &log = the_log();
    const common::SharedLock hold(log.sink_lock);
    if (!log.sink)
        return;
    in_sink = true;
    log.sink(level, file, line, text, log.sink_arg);
    in_sink = false;
}

void write_stderr(std::string_view line)
{
    if (!stderr_exists)
        return;
    while (!line.empty()) {
        ssize_t written = write(STDERR_FILENO, line.data(), line.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        line.remove_prefix(static_cast<size_t>(written));
    }
}

/* To the file where there is one; a line that it cannot take is better seen on stderr than not at all. */
void write_line(std::string_view line)
{
    Log &log = the_log();
    const common::Lock hold(log.lock);
    if (!log.file.is_open() || !log.file.write(line))
        write_stderr(line);
}

void emit(int level, const char *file, int line, const char *text)
{
    show_to_sink(level, file, line, text);
    host::LogOrigin origin = {{}, level, file, line, static_cast<pid_t>(syscall(SYS_gettid))};
    clock_gettime(CLOCK_REALTIME, &origin.time);
    bool written = host::without_exceptions(false, [&] {
        write_line(host::log_line(origin, text));
        return true;
    });
    if (!written)
        write_line("(a log line was lost: out of memory)\n");
}

bool stderr_is_wanted()
{
    const char *where = secure_getenv("FMON_LOG");
    return where && strcmp(where, "stderr") == 0;
}

}  // namespace

/* The level is read anew each time, as the program may change it while threads log. */
void error_output(int level, const char *file, int line, const char *fmt, ...)
{
    if (level > get_level())
        return;
    const bool logged = is_for_log(level);
    if (!logged && !capture.sink)
        return;
    host::ErrnoKeeper keep;
    va_list args;
    va_start(args, fmt);
    Text text(fmt, args);
    va_end(args);
    const char *const shown = text.without_newline();
    if (capture.sink)
        capture.sink(level, file ? file : "?", line, shown, capture.arg);
    if (logged)
        emit(level, file ? file : "?", line, shown);
}

int autolog_init(const char *path, int n)
{
    if (!path || !*path)
        return -1;
    if (stderr_is_wanted())
        return 0;
    host::LogFile file;
    if (!file.open(path, n)) {
        error_output(ORX_LOG_INFO, kFile, __LINE__, "the log stays where it is: %s: %s", path, strerror(errno));
        return -1;
    }
    Log &log = the_log();
    const common::Lock hold(log.lock);
    log.file = std::move(file);
    return 0;
}

void autolog_deinit(void)
{
    Log &log = the_log();
    const common::Lock hold(log.lock);
    log.file = host::LogFile();
}

void orx_host_log_sink(orx_log_sink sink, void *arg)
{
    Log &log = the_log();
    const common::ExclusiveLock hold(log.sink_lock);
    log.sink = sink;
    log.sink_arg = arg;
}

void orx_host_log_capture(orx_log_sink sink, void *arg)
{
    const bool before = capture.sink;
    capture = {sink, arg};
    if (sink && !before)
        raise_level();
    else if (!sink && before)
        restore_level();
}
