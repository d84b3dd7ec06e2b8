/*
 * library.h: libraries that few outputs need: loaded when one does, so that nobody else pays for them, and machines
 * without them go without that output.
 */
#ifndef OUTPUT_SINKS_LIBRARY_H
#define OUTPUT_SINKS_LIBRARY_H

#include <dlfcn.h>

#include <string>

namespace output
{

/* Stays loaded. Null: `error` is one line, which names the package. */
inline void *load_library(const char *name, const char *package, std::string &error)
{
    void *const library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        error = std::string("needs ") + name + ", which cannot be loaded: install " + package;
    return library;
}

/* False: it is not in there. */
template <typename Function>
bool find_function(void *library, const char *name, Function *&function)
{
    function = reinterpret_cast<Function *>(dlsym(library, name));
    return function != nullptr;
}

}  // namespace output

#endif
