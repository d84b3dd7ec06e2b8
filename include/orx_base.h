/*
 * orx_base.h: what the agent's base library supplies to its plug-ins: log lines, mutexes, time, INI files, bounded
 * text functions, paths and JSON objects. libfmon.so imports these; liborx_base.so is one implementation.
 *
 * All functions may be called from any thread. Memory that a function returns is freed as it says.
 */
#ifndef ORX_BASE_H
#define ORX_BASE_H

#include <stddef.h>
#include <stdint.h>

#include "orx_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- log ---- */

enum { ORX_LOG_ERROR = 1, ORX_LOG_WARNING = 2, ORX_LOG_INFO = 3, ORX_LOG_DEBUG = 4 };

/* Writes one log line. `file` is the source's name in the log ("fmon.c"). The text may or may not end in a newline;
 * the log adds one where it is missing. */
void error_output(int level, const char *file, int line, const char *fmt, ...) __attribute__((format(printf, 4, 5)));

/* Lines above this level are dropped before they are formatted. Optional: where an agent does not define it, every
 * line is handed to error_output. Set it before the module starts; a plain int. */
extern int error_output_level __attribute__((weak));

/* ---- mutex ---- */

void *th_mutex_init(void);        /* null: out of memory. Freed by th_mutex_destroy. */
int th_mutex_lock(void *mutex);   /* 0 */
int th_mutex_unlock(void *mutex); /* 0 */
void th_mutex_destroy(void *mutex);

/* ---- time ---- */

void timer_init(void);                   /* may be called more than once */
uint64_t timer_get_ticks(void);          /* ticks of a monotonic clock */
uint64_t timer_ticks2ms(uint64_t ticks); /* ticks as milliseconds */

/* ---- INI files ---- */

void *orx_ini_file_load(const char *path); /* null: the file cannot be read. Freed by orx_ini_file_free. */
/* The value of a key, or null. Valid until the file is freed. */
const char *orx_ini_file_get(void *ini, const char *section, const char *key);
void orx_ini_file_free(void *ini);

/* ---- text ---- */

/* As snprintf; the buffer is always terminated when size > 0. Whether the result counts what would have been written
 * or what was is the agent's business: clamp it. */
int orx_str_snprintf(char *out, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
char *orx_strncpy(char *dst, const char *src, size_t n);         /* as strncpy: may leave dst without a NUL */
size_t orx_str_strlcpy(char *dst, const char *src, size_t size); /* as strlcpy: returns strlen(src) */

/* ---- paths ---- */

/* Expands a leading "@" to the directory of the running program and copies the rest. 0, or -1 when it does not fit (out
 * then holds what fits, terminated). */
int orx_dirutils_path_transform(const char *in, char *out, size_t out_size);

/* One path that a pattern matched. Both the entry and its path are freed with free() by the caller. */
struct orx_path_entry {
    list_head link;
    char *path;
};

/* Appends every existing path that matches to `out` (an initialised list). 0, or -1 when memory ran out (what was
 * found so far is in the list). */
int orx_wildcard_path_expand(const char *pattern, list_head *out);

/* ---- libraries ---- */

int orx_dll_close(void *handle); /* as dlclose */

/* ---- JSON objects. Optional: an agent that lacks one of them gets no information about containers. ---- */

typedef struct cJSON cJSON;

/* The object owns the item from now on. */
void cJSON_AddItemToObject(cJSON *object, const char *key, cJSON *item) __attribute__((weak));
cJSON *cJSON_CreateString2(const char *text) __attribute__((weak)); /* null: out of memory */
cJSON *cJSON_CreateNumber2(double number) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
