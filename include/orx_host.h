/*
 * orx_host.h: what the embedded host (liborx_base.so) offers to a program beyond the interfaces that plug-ins use.
 *
 * libfmon.so never calls these; an agent with a base library of its own does not have them.
 */
#ifndef ORX_HOST_H
#define ORX_HOST_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sees every log line that passes error_output_level, after formatting and before it is written; `text` has no
 * trailing newline and is valid during the call only. It is not escaped: a file name in it may hold any byte but NUL.
 * Called on the thread that logs: it must be quick, must not log (such lines do not come back to it), must not set the
 * sink and must not call the module. */
typedef void (*orx_log_sink)(int level, const char *file, int line, const char *text, void *arg);

/* Sets the sink (null removes it). `arg` is handed to each call. Calls of the sink before are over when this returns.
 */
void orx_host_log_sink(orx_log_sink sink, void *arg);

/* Takes the log lines of the calling thread, of every level, to `sink` instead of the log; null ends it. Meanwhile
 * error_output_level reads ORX_LOG_DEBUG for the whole process, so that plug-ins make all their lines; those of other
 * threads, and the sink above, get no more than before. A line of the calling thread that would have been logged
 * without this is logged as well. Not to be nested within a thread. */
void orx_host_log_capture(orx_log_sink sink, void *arg);

/* Makes every INI file loaded from now on answer `value` for that key, whatever it holds, and makes a missing file
 * load as an empty one. Values are copied. 0, or -1 when memory runs out. A null value takes the override back. */
int orx_host_ini_override(const char *section, const char *key, const char *value);

/* Makes orx_dirutils_path_transform answer `target`, as it is, for exactly `path` ("@/../lib/libx.so"): a plug-in then
 * finds another file, or none, in its place. Values are copied. 0, or -1 when memory runs out. A null target takes the
 * override back. */
int orx_host_path_override(const char *path, const char *target);

/* Waits until some plug-in has called timer_init(), `ms` milliseconds at most. The monitor's thread does so when its
 * kernel probes are placed, some time after the monitor has started: events before that may be missed. 0, or -1 when
 * nobody has called it by then. Any thread. */
int orx_host_await_timers(int ms);

/* How often th_mutex_lock has succeeded in this process, whatever the mutex. The monitor reads events and hands them to
 * its clients within one hold of its lock, so callbacks that get the same number are about events that had all been
 * read when the first of them was called; the number may be another one within a hold, too. Any thread. */
unsigned long long orx_host_lock_count(void);

/* ---- the kernel's release ----
 *
 * The monitor takes its kernel probes only where the release is MAJOR.MINOR.PATCH-BUILD, and many are not. So the
 * library exports uname, too, which then stands before the C library's for plug-ins and for the program that is linked
 * with it: its release has that shape, with the kernel's own numbers, 0 for the build that a release does not name and
 * the rest behind it ("6.12.107+deb13-cloud-amd64" becomes "6.12.107-0+deb13-cloud-amd64"). All else is the kernel's.
 */

/* What the kernel itself says. 0, or -1 and errno. Any thread. */
struct utsname;
int orx_host_uname(struct utsname *out);

/* What uname() makes of a kernel's release; one that does not begin with MAJOR.MINOR stays as it is. Cut at size - 1
 * bytes. The length of the whole, or -1 when memory runs out. Any thread. */
int orx_host_release(const char *kernel, char *out, size_t size);

#ifdef __cplusplus
}
#endif

#endif
