/*
 * fake_host.h: the agent, as unit tests supply it: a captured log, a hand-moved timer, an INI file in memory.
 * It defines every symbol of orx_base.h, orx_event_loop.h and orx_autolog.h and is linked statically.
 */
#ifndef TESTLIB_FAKE_HOST_H
#define TESTLIB_FAKE_HOST_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

typedef struct cJSON cJSON;

namespace testlib
{

/* ---- log ---- */
struct LogLine {
    int level;
    std::string file;
    std::string text; /* as formatted, with its newline if it has one */
};
std::vector<LogLine> log_lines();
void log_clear();
int log_count(int level, const std::string &text); /* lines equal in level and text */
int log_count_containing(const std::string &part); /* any level */
bool logged(int level, const std::string &text);
std::string log_text(); /* everything, for failure messages */

/* ---- timer ---- */
void set_now(uint64_t ms);
void advance(uint64_t ms);

/* ---- INI: what orx_ini_file_load finds, whatever the path; absent: load fails ---- */
using Ini = std::map<std::pair<std::string, std::string>, std::string>; /* (section, key) -> value */
void set_ini(const Ini &ini);
void clear_ini();
std::vector<std::string> ini_loads(); /* paths asked for */
int ini_open();                       /* handles not freed yet */

/* ---- wildcard expander: real glob() unless set ---- */
void set_wildcard_matches(const std::vector<std::string> &paths);
void clear_wildcard_matches();

/* ---- "@" expands to this; default "/agent/bin" ---- */
void set_program_dir(const std::string &dir);

/* ---- mutex: live count, locked now by this thread, next init fails ---- */
int mutex_live();
bool mutex_locked();
int mutex_lock_calls();
void fail_mutex_init(bool on);

/* ---- event loop and thread: by default cl_ev_create_isolated_thread records and does not start ---- */
enum class ThreadMode { kRecord, kStart, kFail };
void set_thread_mode(ThreadMode mode);
int threads_created();
int (*last_thread_fn())(void *);
int loop_nowait_calls();
int loop_once_calls();
int loop_calls();

/* ---- autolog ---- */
std::vector<std::pair<std::string, int>> autolog_inits();
int autolog_deinits();
int dll_closes();

/* Waits for the threads that were really started; whoever started one must have told it to end. */
void join_threads();

/* ---- JSON objects of the agent's library ---- */
cJSON *json_object();
std::string json_text(const cJSON *item); /* {"a":1,"b":"x"}, members in the order they came */
void json_free(cJSON *item);

/* Everything back to its start; joins threads. */
void reset_host();

}  // namespace testlib

#endif
