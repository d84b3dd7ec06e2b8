/*
 * kp_binding.h: calls into the kernel-probe library, which is loaded when the first of them is made.
 *
 * Every source that includes this has a copy of the library handle and of the function slots of its own, so that a
 * symbol missed by one does not take the library away from another. A binding answers as the library does; without
 * the library it answers KP_NOT_LOADED, without the symbol 0 (an event source must therefore look at what it was
 * given, see kp_os_info_get()). Handle and slots are atomic because probes are switched from clients' threads.
 */
#ifndef FMON_KP_BINDING_H
#define FMON_KP_BINDING_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "dll.h"
#include "fmon_status.h"
#include "kp_thread_utils.h"
#include "log.h"

namespace kp
{

enum { KP_NOT_LOADED = -100 };

enum symbol { INS_CRT, OS_INFO_GET, EVT_REG, EVENT_PARSE, EVENT_ENABLE, EVENT_FILTER, CACHE_CLEAN, SYMBOLS };

struct symbol_row {
    const char *name;
    const char *shown; /* in the log */
    int level;         /* of the message that it is missing */
};

/* One copy an including source. */
/* NOLINTBEGIN(misc-definitions-in-headers): that is what this header is for */
namespace
{

constexpr char kLog[] = "kp_thread_utils";
constexpr char kLibrary[] = "@/../lib/liborx_kp_thread.2.so";

constexpr symbol_row kSymbols[SYMBOLS] = {
    {"_kp_ins_crt", "_kp_ins_crt", 1},
    {"_os_info_get", "_os_info_get", 1},
    {"_kp_evt_reg", "_kp_evt_reg", 1},
    {"kp_event_parse", "_kp_event_parse", 1}, /* the log says it with an underscore, the library exports it without */
    {"_kp_event_enable", "_kp_event_enable", 4},
    {"_kp_event_filter", "_kp_event_filter", 4},
    {"_cache_clean", "_cache_clean", 4},
};

struct {
    std::atomic<void *> handle;
    std::atomic<void *> slots[SYMBOLS];
    /* What was met first since it was forgotten: a needed symbol that is missing, by its place from 1; the errno with
     * which the library could not be opened, as -1 - errno; 0: nothing. */
    std::atomic<int32_t> trouble;
} unit;

inline void meet_trouble(int32_t trouble)
{
    int32_t none = 0;
    unit.trouble.compare_exchange_strong(none, trouble);
}

/* The library, opened when it is not. Null: it cannot be. */
inline void *module()
{
    void *handle = unit.handle.load(std::memory_order_acquire);
    if (handle)
        return handle;
    void *opened = dll_open(kLibrary);
    if (!opened) {
        const int error = errno;
        FMON_LOG(1, kLog, "load kprobe thread module failed, errno: %d\n", error);
        meet_trouble(-1 - error);
        return nullptr;
    }
    if (unit.handle.compare_exchange_strong(handle, opened))
        return opened;
    orx_dll_close(opened); /* another thread was faster */
    return handle;
}

/* 0 also when the library lacks the symbol, which leaves the slot empty; -1: no name. */
inline int lookup(void *handle, const char *name, std::atomic<void *> *slot)
{
    if (!name || !*name)
        return -1;
    slot->store(dlsym(handle, name), std::memory_order_release);
    return 0;
}

inline void report_missing(const symbol_row &row)
{
    const int error = errno;
    const char *reason = dlerror();
    if (row.level == 1) {
        meet_trouble(static_cast<int32_t>(&row - kSymbols) + 1);
        FMON_LOG(1, kLog, "load kp_thread symbol: %s failed, errnp:%d", row.shown, error);
        return;
    }
    FMON_LOG(row.level, kLog, "load kp_thread symbol: %s failed, errno: %d\n", row.shown, error);
    FMON_LOG(row.level, kLog, "load kp_thread symbol:%s", reason ? reason : "");
}

/* The next call opens the library again. No slot may outlive the handle: its function may be unmapped. */
inline void drop_module()
{
    for (std::atomic<void *> &slot : unit.slots)
        slot.store(nullptr, std::memory_order_release);
    if (void *handle = unit.handle.exchange(nullptr))
        orx_dll_close(handle);
}

/* The library's function. Null: it cannot be had, and *status is what its binding answers. */
inline void *entry(symbol which, int32_t *status)
{
    std::atomic<void *> *slot = &unit.slots[which];
    if (void *found = slot->load(std::memory_order_acquire))
        return found;
    void *handle = module();
    if (!handle) {
        *status = KP_NOT_LOADED;
        return nullptr;
    }
    *status = lookup(handle, kSymbols[which].name, slot);
    if (void *found = slot->load(std::memory_order_acquire))
        return found;
    report_missing(kSymbols[which]);
    drop_module();
    return nullptr;
}

template <typename Fn, typename... Args>
inline int32_t call(symbol which, Args... args)
{
    int32_t status = 0;
    Fn *fn = reinterpret_cast<Fn *>(entry(which, &status));
    return fn ? fn(args...) : status;
}

/* ---- the bindings, as declared in kp_thread_utils.h ---- */

inline void *ins_crt(const char *name, int32_t **fds, int32_t *count)
{
    int32_t status = 0;
    auto *fn = reinterpret_cast<decltype(&_kp_ins_crt)>(entry(INS_CRT, &status));
    return fn ? fn(name, fds, count) : nullptr;
}

inline int32_t os_info_get(const struct kp_os_info **out) { return call<decltype(_os_info_get)>(OS_INFO_GET, out); }

inline int32_t evt_reg(void *inst, struct kp_probe_def *def, kp_record_cb cb)
{
    return call<decltype(_kp_evt_reg)>(EVT_REG, inst, def, cb);
}

inline int32_t event_parse(int32_t index, void *inst)
{
    return call<decltype(kp_event_parse)>(EVENT_PARSE, index, inst);
}

inline int32_t event_enable(uint8_t on, const char *event_name, void *inst)
{
    return call<decltype(_kp_event_enable)>(EVENT_ENABLE, on, event_name, inst);
}

inline int32_t event_filter(const char *event_name, const char *filter, void *inst)
{
    return call<decltype(_kp_event_filter)>(EVENT_FILTER, event_name, filter, inst);
}

inline int32_t cache_clean(void *inst) { return call<decltype(_cache_clean)>(CACHE_CLEAN, inst); }

/* An addition that other libraries may lack: nothing is said then, and the library stays. Neither is one opened for it.
 * Negative: nothing is known. */
inline int32_t losses_total(struct kp_losses *out)
{
    void *handle = unit.handle.load(std::memory_order_acquire);
    auto *fn = handle ? reinterpret_cast<decltype(&kp_losses_total)>(dlsym(handle, "kp_losses_total")) : nullptr;
    return fn ? fn(out) : -1;
}

/* Why the library does not work on this kernel, in its own words; null or empty: it does not tell. As above. */
inline const char *unavailable()
{
    void *handle = unit.handle.load(std::memory_order_acquire);
    auto *fn = handle ? reinterpret_cast<decltype(&kp_unavailable)>(dlsym(handle, "kp_unavailable")) : nullptr;
    return fn ? fn() : nullptr;
}

/* ---- what the event sources share ---- */

inline void forget_trouble() { unit.trouble = 0; }

/* Notes why the source cannot be had: that there is no such library, or that it lacks a function; else `reason`. */
inline void note_trouble(struct fmon_source *source, uint32_t reason)
{
    const int32_t met = unit.trouble;
    if (met > 0)
        account_trouble(source, FMON_WHY_SYMBOL, 0, 0, kSymbols[met - 1].shown);
    else if (met < 0)
        account_trouble(source, FMON_WHY_LIBRARY, KP_NOT_LOADED, -1 - met, nullptr);
    else
        account_trouble(source, reason, 0, 0, reason == FMON_WHY_KERNEL ? unavailable() : nullptr);
}

/* A probe instance with its array of descriptors. Null: none, and no array; logged under the source's name `file`. */
inline void *create_instance(const char *file, const char *name, int32_t **fds, int32_t *count)
{
    *fds = nullptr;
    *count = 0;
    void *instance = ins_crt(name, fds, count);
    if (instance)
        return instance;
    free(*fds);
    *fds = nullptr;
    *count = 0;
    FMON_LOG(2, file, "create kprobe instance failed!");
    return nullptr;
}

/* Hands a library's descriptors on, no more than there is room for. Returns how many. */
inline int32_t copy_descriptors(const int32_t *fds, int32_t count, int32_t room, int32_t *out)
{
    int32_t n = count < room ? count : room;
    if (!fds || n < 0)
        n = 0;
    for (int32_t i = 0; i < n; i++)
        out[i] = fds[i];
    return n;
}

}  // namespace
}  // namespace kp

/* One copy an including source. */
namespace
{

/* The library's record of the running kernel. Negative and null: the call failed, or reported success without a
 * record, as it does for a library that lacks the symbol. */
inline int32_t kp_os_info_get(const struct kp_os_info **out)
{
    *out = nullptr;
    const int32_t status = kp::os_info_get(out);
    return status >= 0 && !*out ? -1 : status;
}

}  // namespace
/* NOLINTEND(misc-definitions-in-headers) */

#endif
