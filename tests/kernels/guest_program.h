/*
 * guest_program.h: what the programs of a guest share: how an outcome is reported, and the installation's libraries.
 * For one program's sources.
 */
#ifndef GUEST_PROGRAM_H
#define GUEST_PROGRAM_H

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern const char kArea[];  // results are called AREA.NAME; a program defines it

inline bool any_failed = false;

inline void result(const std::string &name, bool good, const std::string &words = "")
{
    printf("RESULT %s.%s %s %s\n", kArea, name.c_str(), good ? "ok" : "FAIL", words.c_str());
    fflush(stdout);
    any_failed |= !good;
}

// The rest cannot be tried.
[[noreturn]] inline void stop(const char *what)
{
    result("setup", false, std::string(what) + ": " + strerror(errno));
    _exit(1);
}

// A library of the installation under test.
inline void *load(const std::string &name, int mode)
{
    const std::string stage = getenv("STAGE") ? getenv("STAGE") : ".";
    void *library = dlopen((stage + "/lib/" + name).c_str(), RTLD_NOW | mode);
    if (!library)
        stop(dlerror());
    return library;
}

template <typename Fn>
void bind(void *library, const char *name, Fn *out)
{
    *out = reinterpret_cast<Fn>(dlsym(library, name));
    if (!*out)
        stop(name);
}

#endif
