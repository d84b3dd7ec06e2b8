/*
 * dll.h: opens libraries of the agent's installation.
 */
#ifndef FMON_DLL_H
#define FMON_DLL_H

#include <dlfcn.h>

#include "orx_base.h"

/* Deep binding: a library's own names go before the agent's. Sanitizers end a process that asks for it. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kDllFlags = RTLD_NOW;
#else
constexpr int kDllFlags = RTLD_NOW | RTLD_DEEPBIND;
#endif

/* `path` may begin with "@", the agent's directory. Null with errno. Closed with orx_dll_close. */
inline void *dll_open(const char *path)
{
    char full[1024] = "";
    orx_dirutils_path_transform(path, full, sizeof(full));
    return dlopen(full, kDllFlags);
}

#endif
