/*
 * bench_host.cpp: the agent as the benchmarks supply it. Lines up to warnings are formatted and dropped; there is no
 * configuration, no thread and no library beyond the C library's.
 */
#include <dlfcn.h>
#include <pthread.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "orx_autolog.h"
#include "orx_base.h"
#include "orx_event_loop.h"

int error_output_level = ORX_LOG_WARNING;

void error_output(int, const char *, int, const char *fmt, ...)
{
    static char text[1024];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
}

void *th_mutex_init(void)
{
    auto *mutex = static_cast<pthread_mutex_t *>(malloc(sizeof(pthread_mutex_t)));
    if (mutex)
        pthread_mutex_init(mutex, nullptr);
    return mutex;
}
int th_mutex_lock(void *mutex) { return pthread_mutex_lock(static_cast<pthread_mutex_t *>(mutex)); }
int th_mutex_unlock(void *mutex) { return pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex)); }
void th_mutex_destroy(void *mutex)
{
    pthread_mutex_destroy(static_cast<pthread_mutex_t *>(mutex));
    free(mutex);
}

void timer_init(void) {}
uint64_t timer_get_ticks(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}
uint64_t timer_ticks2ms(uint64_t ticks) { return ticks; }

void *orx_ini_file_load(const char *) { return nullptr; }
const char *orx_ini_file_get(void *, const char *, const char *) { return nullptr; }
void orx_ini_file_free(void *) {}

int orx_str_snprintf(char *out, size_t size, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(out, size, fmt, args);
    va_end(args);
    return length;
}
char *orx_strncpy(char *dst, const char *src, size_t n)
{
    const size_t length = strnlen(src, n);
    memcpy(dst, src, length);
    memset(dst + length, 0, n - length);
    return dst;
}
size_t orx_str_strlcpy(char *dst, const char *src, size_t size)
{
    const size_t length = strlen(src);
    if (size > 0) {
        const size_t copied = length < size ? length : size - 1;
        memcpy(dst, src, copied);
        dst[copied] = '\0';
    }
    return length;
}

int orx_dirutils_path_transform(const char *in, char *out, size_t out_size)
{
    return orx_str_strlcpy(out, in, out_size) < out_size ? 0 : -1;
}
int orx_wildcard_path_expand(const char *, list_head *) { return 0; }
int orx_dll_close(void *handle) { return dlclose(handle); }

void cJSON_AddItemToObject(cJSON *, const char *, cJSON *) {}
cJSON *cJSON_CreateString2(const char *) { return nullptr; }
cJSON *cJSON_CreateNumber2(double) { return nullptr; }

int cl_ev_create_isolated_thread(void **, void *, int (*)(void *), void *) { return -1; }
int cl_ev_loop_nowait(int) { return 0; }
int cl_event_loop_once(void) { return 0; }
int cl_event_loop(void) { return 0; }

int autolog_init(const char *, int) { return 0; }
void autolog_deinit(void) {}
