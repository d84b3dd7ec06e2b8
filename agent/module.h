/*
 * module.h: libfmon.so, loaded at run time as any agent loads it.
 */
#ifndef AGENT_MODULE_H
#define AGENT_MODULE_H

#include <string>
#include <vector>

#include "common/mutex.h"
#include "orx_fmon.h"

namespace agent
{

/* What all sessions of a process have in common. */
struct Shared {
    int short_lived = -1; /* instance for watches that are taken back at once; -1: not made yet */
};

/* Held around whatever adds watches, by all sessions of the process: what the monitor's counters say before and after
 * is then about this watch. Never taken with the monitor's lock held. */
common::Mutex &placing_lock();

/* The functions of the module that the command uses. */
struct Module {
    decltype(&orx_fmon_init) init;
    decltype(&_orx_fmon_create_instance) create_instance;
    decltype(&_orx_fmon_del_instance) del_instance;
    decltype(&_orx_fmon_add_watch) add_watch;
    decltype(&_orx_fmon_del_watch) del_watch;
    decltype(&_orx_fmon_spare) spare;
    decltype(&_orx_fmon_resync) resync;
    decltype(&_orx_fmon_global_watch) global_watch;
    decltype(&_orx_fmon_global_update) global_update;
    decltype(&_orx_fmon_status) status;
    decltype(&_orx_fmon_on_mark) on_mark;
    decltype(&_orx_fmon_dump) dump;
    decltype(&_orx_fmon_event_details) event_details;
    decltype(&g_container_flag) container_flag;
    Shared *shared = nullptr; /* null: there is one session in this process */

    /* False: the monitor has not started. */
    bool read_status(struct fmon_status &out) const
    {
        out = {};
        out.size = sizeof out;
        return status(&out) == 0;
    }
    bool is_container() const { return *container_flag != 0; } /* from the start on */
};

/* $FMON_HOME/lib where that is set, else where the installation of the running program has its libraries. */
std::string library_directory();

/* Loads libfmon.so from `directory`; it stays loaded. False: `error` says what is missing and where it was looked for.
 */
bool load_module(const std::string &directory, Module &module, std::string &error);

/* An instance whose recursive watches spare these absolute paths. Its id, or the monitor's code. */
int make_instance(const Module &module, const char *name, fmon_client_cb callback,
                  const std::vector<std::string> &spared);

/* Makes the monitor's thread take a turn soon, which it else does once a second while nothing happens. */
void wake_monitor(const Module &module);

}  // namespace agent

#endif
