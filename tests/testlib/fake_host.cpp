#include "testlib/fake_host.h"

#include <dlfcn.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <thread>

#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_event_loop.h"
#include "testlib/fault_switch.h"

/* The agent's own allocations are not the module's: they neither fail nor count. */
extern "C" void *__real_malloc(size_t size);

namespace
{

constexpr uint64_t kTicksPerMs = 1000;

struct Host {
    std::mutex mutex;
    std::vector<testlib::LogLine> lines;
    testlib::Ini ini;
    bool has_ini = false;
    std::vector<std::string> ini_loads;
    bool has_matches = false;
    std::vector<std::string> matches;
    std::string program_dir = "/agent/bin";
    testlib::ThreadMode thread_mode = testlib::ThreadMode::kRecord;
    int (*thread_fn)(void *) = nullptr;
    std::vector<std::thread> threads;
    std::vector<std::pair<std::string, int>> autolog_inits;
};

/* Never destroyed: a monitor thread may log until the process is gone. */
Host &host()
{
    static Host *const object = new Host;
    return *object;
}

std::atomic<uint64_t> now_ms{0};
std::atomic<int> ini_handles{0};
std::atomic<int> mutexes_live{0}, mutex_locks{0};
std::atomic<bool> mutex_init_fails{false};
thread_local int locks_held = 0;
std::atomic<int> threads_made{0}, nowait_calls{0}, once_calls{0}, loops{0};
std::atomic<int> autolog_ends{0}, dll_close_calls{0};

[[gnu::format(printf, 1, 0)]] std::string format_text(const char *fmt, va_list args)
{
    va_list again;
    va_copy(again, args);
    int size = vsnprintf(nullptr, 0, fmt, again);
    va_end(again);
    std::string text(static_cast<size_t>(size) + 1, '\0');
    vsnprintf(text.data(), text.size(), fmt, args);
    text.pop_back();
    return text;
}

}  // namespace

namespace testlib
{

/* ---- log ---- */

std::vector<LogLine> log_lines()
{
    std::lock_guard<std::mutex> guard(host().mutex);
    return host().lines;
}

void log_clear()
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().lines.clear();
}

int log_count(int level, const std::string &text)
{
    int n = 0;
    for (const LogLine &line : log_lines())
        n += line.level == level && line.text == text;
    return n;
}

int log_count_containing(const std::string &part)
{
    int n = 0;
    for (const LogLine &line : log_lines())
        n += line.text.find(part) != std::string::npos;
    return n;
}

bool logged(int level, const std::string &text) { return log_count(level, text) > 0; }

std::string log_text()
{
    std::string out;
    for (const LogLine &line : log_lines()) {
        out += std::to_string(line.level) + " " + line.file + ": " + line.text;
        if (out.back() != '\n')
            out += '\n';
    }
    return out;
}

/* ---- settings and readings ---- */

void set_now(uint64_t ms) { now_ms = ms; }
void advance(uint64_t ms) { now_ms += ms; }

void set_ini(const Ini &ini)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().ini = ini;
    host().has_ini = true;
}

void clear_ini()
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().ini.clear();
    host().has_ini = false;
}

std::vector<std::string> ini_loads()
{
    std::lock_guard<std::mutex> guard(host().mutex);
    return host().ini_loads;
}

int ini_open() { return ini_handles; }

void set_wildcard_matches(const std::vector<std::string> &paths)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().matches = paths;
    host().has_matches = true;
}

void clear_wildcard_matches()
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().matches.clear();
    host().has_matches = false;
}

void set_program_dir(const std::string &dir)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().program_dir = dir;
}

int mutex_live() { return mutexes_live; }
bool mutex_locked() { return locks_held > 0; }
int mutex_lock_calls() { return mutex_locks; }
void fail_mutex_init(bool on) { mutex_init_fails = on; }

void set_thread_mode(ThreadMode mode)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().thread_mode = mode;
}

int (*last_thread_fn())(void *)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    return host().thread_fn;
}

int threads_created() { return threads_made; }
int loop_nowait_calls() { return nowait_calls; }
int loop_once_calls() { return once_calls; }
int loop_calls() { return loops; }

std::vector<std::pair<std::string, int>> autolog_inits()
{
    std::lock_guard<std::mutex> guard(host().mutex);
    return host().autolog_inits;
}

int autolog_deinits() { return autolog_ends; }
int dll_closes() { return dll_close_calls; }

void join_threads()
{
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> guard(host().mutex);
        threads.swap(host().threads);
    }
    for (std::thread &thread : threads)
        thread.join();
}

void reset_host()
{
    join_threads();
    log_clear();
    clear_ini();
    clear_wildcard_matches();
    set_program_dir("/agent/bin");
    set_thread_mode(ThreadMode::kRecord);
    std::lock_guard<std::mutex> guard(host().mutex);
    host().ini_loads.clear();
    host().autolog_inits.clear();
    host().thread_fn = nullptr;
    mutex_init_fails = false;
    now_ms = 0;
    for (auto *counter : {&ini_handles, &mutexes_live, &mutex_locks, &threads_made, &nowait_calls, &once_calls, &loops,
                          &autolog_ends, &dll_close_calls})
        *counter = 0;
    error_output_level = ORX_LOG_DEBUG;
}

}  // namespace testlib

/* ---- what the module imports ---- */

extern "C" {

int error_output_level = ORX_LOG_DEBUG;

/* Spoils errno, as an agent that writes to a file may: the module has to save what it still needs. */
void error_output(int level, const char *file, int, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    std::string text = format_text(fmt, args);
    va_end(args);
    std::lock_guard<std::mutex> guard(host().mutex);
    host().lines.push_back({level, file, text});
    errno = EBADMSG;
}

/* ---- mutex: one that finds out about wrong use ---- */

void *th_mutex_init(void)
{
    if (mutex_init_fails)
        return nullptr;
    pthread_mutex_t *mutex = new pthread_mutex_t;
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    mutexes_live++;
    return mutex;
}

int th_mutex_lock(void *mutex)
{
    int err = pthread_mutex_lock(static_cast<pthread_mutex_t *>(mutex));
    EXPECT_EQ(0, err) << "locked twice by one thread";
    mutex_locks++;
    if (!err)
        locks_held++;
    return err;
}

int th_mutex_unlock(void *mutex)
{
    int err = pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex));
    EXPECT_EQ(0, err) << "unlocked by a thread that does not hold it";
    if (!err)
        locks_held--;
    return err;
}

void th_mutex_destroy(void *mutex)
{
    EXPECT_EQ(0, pthread_mutex_destroy(static_cast<pthread_mutex_t *>(mutex))) << "destroyed while locked";
    delete static_cast<pthread_mutex_t *>(mutex);
    mutexes_live--;
}

/* ---- time: a tick is not a millisecond ---- */

void timer_init(void) {}
uint64_t timer_get_ticks(void) { return now_ms * kTicksPerMs; }
uint64_t timer_ticks2ms(uint64_t ticks) { return ticks / kTicksPerMs; }

/* ---- INI ---- */

void *orx_ini_file_load(const char *path)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().ini_loads.push_back(path);
    if (!host().has_ini)
        return nullptr;
    ini_handles++;
    return new testlib::Ini(host().ini);
}

const char *orx_ini_file_get(void *ini, const char *section, const char *key)
{
    const testlib::Ini &values = *static_cast<testlib::Ini *>(ini);
    auto found = values.find({section, key});
    return found == values.end() ? nullptr : found->second.c_str();
}

void orx_ini_file_free(void *ini)
{
    delete static_cast<testlib::Ini *>(ini);
    ini_handles--;
}

/* ---- text ---- */

int orx_str_snprintf(char *out, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(out, size, fmt, args);
    va_end(args);
    return n;
}

char *orx_strncpy(char *dst, const char *src, size_t n)
{
    size_t i = 0;
    for (; i < n && src[i]; i++)
        dst[i] = src[i];
    memset(dst + i, 0, n - i);
    return dst;
}

size_t orx_str_strlcpy(char *dst, const char *src, size_t size)
{
    size_t len = strlen(src);
    if (size) {
        size_t n = len < size ? len : size - 1;
        memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

/* ---- paths ---- */

int orx_dirutils_path_transform(const char *in, char *out, size_t out_size)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    std::string path = *in == '@' ? host().program_dir + (in + 1) : in;
    return orx_str_strlcpy(out, path.c_str(), out_size) < out_size ? 0 : -1;
}

static void add_match(const char *path, list_head *out)
{
    auto *entry = static_cast<orx_path_entry *>(__real_malloc(sizeof(orx_path_entry)));
    const size_t size = strlen(path) + 1;
    entry->path = static_cast<char *>(__real_malloc(size));
    memcpy(entry->path, path, size);
    entry->link.next = out;
    entry->link.prev = out->prev;
    out->prev->next = &entry->link;
    out->prev = &entry->link;
}

int orx_wildcard_path_expand(const char *pattern, list_head *out)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    if (host().has_matches) {
        for (const std::string &path : host().matches)
            add_match(path.c_str(), out);
        return 0;
    }
    glob_t found = {};
    if (glob(pattern, 0, nullptr, &found) == 0)
        for (size_t i = 0; i < found.gl_pathc; i++)
            add_match(found.gl_pathv[i], out);
    globfree(&found);
    return 0;
}

/* ---- libraries ---- */

int orx_dll_close(void *handle)
{
    dll_close_calls++;
    return testlib::is_test_handle(handle) ? 0 : dlclose(handle);
}

/* ---- event loop and thread ---- */

int cl_ev_create_isolated_thread(void **handle, void *, int (*fn)(void *), void *arg)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    if (host().thread_mode == testlib::ThreadMode::kFail)
        return -1;
    threads_made++;
    host().thread_fn = fn;
    *handle = &host().threads;
    if (host().thread_mode == testlib::ThreadMode::kStart)
        host().threads.emplace_back(fn, arg);
    return 0;
}

int cl_ev_loop_nowait(int)
{
    nowait_calls++;
    return 0;
}

int cl_event_loop_once(void)
{
    once_calls++;
    return 0;
}

int cl_event_loop(void)
{
    loops++;
    return 0;
}

/* ---- log files ---- */

int autolog_init(const char *path, int n)
{
    std::lock_guard<std::mutex> guard(host().mutex);
    host().autolog_inits.emplace_back(path, n);
    return 0;
}

void autolog_deinit(void) { autolog_ends++; }

} /* extern "C" */
