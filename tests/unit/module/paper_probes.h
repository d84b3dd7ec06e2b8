/*
 * paper_probes.h: a kernel-probe library of plain functions that notes what it is asked; every symbol is there.
 *
 * What a source of the module found in it stays found until that source misses a symbol.
 */
#ifndef UNIT_PAPER_PROBES_H
#define UNIT_PAPER_PROBES_H

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "kp_thread_utils.h"
#include "testlib/fault.h"

extern "C" void *__real_dlopen(const char *, int);

namespace paper
{

struct Registration {
    void *instance;
    struct kp_probe_def def; /* as it was during the call */
    std::string fetch, filter;
    kp_record_cb record;
};

struct Library {
    struct kp_os_info os = {0, 6, 1, 0, KP_ARCH_X86_64, 2, 0, 4242};
    int32_t os_status = 0;
    bool os_null = false;
    bool instance_made = true;
    int32_t descriptors = 2; /* of an instance; numbers from 70 on, which nobody opens */
    bool array_null = false;
    std::string refused; /* event whose registration fails */
    int32_t refused_status = -7;
    int32_t parse_status = 3;
    std::vector<Registration> registered;
    std::vector<std::string> calls; /* but for registrations and the os-info */
    std::vector<struct kp_probe_def *> definitions;
};

inline Library library;

inline void *ins_crt(const char *name, int32_t **fds, int32_t *count)
{
    library.calls.push_back(std::string("ins_crt ") + name);
    *count = library.descriptors;
    const size_t room = library.descriptors > 0 ? static_cast<size_t>(library.descriptors) : 1;
    *fds = library.array_null ? nullptr : static_cast<int32_t *>(malloc(room * sizeof(int32_t)));
    for (int32_t i = 0; *fds && i < library.descriptors; i++)
        (*fds)[i] = 70 + i;
    return library.instance_made ? &library : nullptr;
}
inline int32_t os_info_get(const struct kp_os_info **out)
{
    *out = library.os_null ? nullptr : &library.os;
    return library.os_status;
}
inline std::string text_at(uint64_t address)
{
    return address ? reinterpret_cast<const char *>(static_cast<uintptr_t>(address)) : "(null)";
}
inline int32_t evt_reg(void *instance, struct kp_probe_def *def, kp_record_cb record)
{
    library.registered.push_back({instance, *def, text_at(def->fetch.u), text_at(def->filter.u), record});
    library.definitions.push_back(def);
    return !library.refused.empty() && library.refused == def->name ? library.refused_status : 0;
}
inline int32_t event_parse(int32_t index, void *)
{
    library.calls.push_back("parse " + std::to_string(index));
    return library.parse_status;
}
inline int32_t event_enable(uint8_t on, const char *name, void *)
{
    library.calls.push_back("enable " + std::to_string(on) + " " + name);
    return -1;
}
inline int32_t event_filter(const char *name, const char *filter, void *)
{
    library.calls.push_back(std::string("filter ") + name + " " + filter);
    return -1;
}
inline int32_t cache_clean(void *)
{
    library.calls.push_back("clean");
    return -1;
}

/* A handle that may be closed, also when the library is no longer installed: the program's own. */
inline void *open_library(const char *, int) { return __real_dlopen(nullptr, RTLD_NOW); }
inline void *find_symbol(void *, const char *symbol)
{
    static const std::map<std::string, void *> symbols = {
        {"_kp_ins_crt", reinterpret_cast<void *>(ins_crt)},
        {"_os_info_get", reinterpret_cast<void *>(os_info_get)},
        {"_kp_evt_reg", reinterpret_cast<void *>(evt_reg)},
        {"kp_event_parse", reinterpret_cast<void *>(event_parse)},
        {"_kp_event_enable", reinterpret_cast<void *>(event_enable)},
        {"_kp_event_filter", reinterpret_cast<void *>(event_filter)},
        {"_cache_clean", reinterpret_cast<void *>(cache_clean)},
    };
    const auto found = symbols.find(symbol);
    return found == symbols.end() ? nullptr : found->second;
}

/* Puts the library where the module looks for it. */
class Installed
{
public:
    Installed()
    {
        library = {};
        testlib::replace_dlopen(open_library);
        testlib::replace_dlsym(find_symbol);
    }
    ~Installed()
    {
        testlib::replace_dlopen(nullptr);
        testlib::replace_dlsym(nullptr);
    }
    Installed(const Installed &) = delete;
    Installed &operator=(const Installed &) = delete;
};

}  // namespace paper

#endif
