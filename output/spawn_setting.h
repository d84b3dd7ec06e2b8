/*
 * spawn_setting.h: attributes of processes that run commands of the user's.
 */
#ifndef OUTPUT_SPAWN_SETTING_H
#define OUTPUT_SPAWN_SETTING_H

#include <spawn.h>

#include <csignal>

namespace output
{

/* Signals as they were before the command changed them. */
class SpawnSetting
{
public:
    SpawnSetting()
    {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&files);
        sigset_t none, reset;
        sigemptyset(&none);
        sigemptyset(&reset);
        sigaddset(&reset, SIGPIPE);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &reset);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetting()
    {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&files);
    }
    SpawnSetting(const SpawnSetting &) = delete;
    SpawnSetting &operator=(const SpawnSetting &) = delete;

    /* The process gets a group of its own: what it starts can be ended with it, and a terminal's signals pass it by. */
    void own_group()
    {
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }

    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;
};

}  // namespace output

#endif
