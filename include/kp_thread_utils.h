/*
 * kp_thread_utils.h: the kernel-probe library, liborx_kp_thread.2.so, as the monitor uses it.
 *
 * The monitor loads the library at run time and does without it where it is missing. Structures and prototypes only:
 * a monitor source calls through bindings of its own, never these symbols; a library implements them.
 *
 * Conventions: text is NUL-terminated and copied by the library during the call. A negative status is a failure. All
 * functions but _kp_event_enable are called by one thread.
 */
#ifndef KP_THREAD_UTILS_H
#define KP_THREAD_UTILS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { KP_ARCH_X86_32 = 1, KP_ARCH_X86_64 = 2 }; /* kp_os_info.arch */

/* The running kernel, as the library found it. The record belongs to the library and stays valid. */
struct kp_os_info {
    uint8_t b0; /* not read by the monitor */
    uint8_t major, minor, patch;
    uint16_t arch;
    uint8_t count; /* descriptors of one instance */
    uint8_t b7;
    uint32_t pid; /* a process whose events are left out */
};

/* A probe to register: a wire format, the same in 32-bit and 64-bit builds. */
struct kp_probe_def {
    char c0;   /* '1': switched on at once; '0': by _kp_event_enable */
    char kind; /* 'p': at function entry */
    char pad[6];
    union {
        const char *p;
        uint64_t u;
    } fetch, filter;
    char point[64]; /* kernel function */
    char name[64];  /* event name; empty: not registered */
    uint64_t tail;
};

/* One probe hit, called from inside kp_event_parse. The record is writable and gone when the callback returns. */
typedef void (*kp_record_cb)(uint32_t pid, void *record, uint32_t size);

/* Creates a probe instance: an opaque handle, or null. One named "clt_inotify" reports deliveries to this process's
 * inotify descriptors only: those that are open when its probe is registered, switched on or given a filter. *fds
 * becomes an array of *count descriptors to wait on; the array, not the descriptors, is freed by the caller with
 * free(). */
void *_kp_ins_crt(const char *name, int32_t **fds, int32_t *count);

int32_t _os_info_get(const struct kp_os_info **out);

int32_t _kp_evt_reg(void *inst, struct kp_probe_def *def, kp_record_cb cb);

/* Decodes what waits on the index-th descriptor of the instance; over all instances no more than the monitor takes in a
 * pass. */
int32_t kp_event_parse(int32_t index, void *inst);

/* Switches one registered probe. Any thread. */
int32_t _kp_event_enable(uint8_t on, const char *event_name, void *inst);

/* Replaces the filter of one registered probe. */
int32_t _kp_event_filter(const char *event_name, const char *filter, void *inst);

/* Throws away the records that wait in the library. */
int32_t _cache_clean(void *inst);

/* ---- additions of our own: other libraries may lack them ---- */

/* What became of the probe hits of an instance that are not among the records handed on. */
struct kp_losses {
    uint64_t delivered;  /* handed on, for comparison */
    uint64_t ring;       /* the kernel had no room for the record */
    uint64_t queue;      /* the library had no room for it */
    uint64_t cleaned;    /* thrown away by _cache_clean */
    uint64_t unreadable; /* a name could not be read, or no mount is known for it */
    uint64_t missed;     /* the kernel could not run the probe */
};

/* Any thread. 0; negative: no such instance. */
int32_t kp_loss_counts(void *inst, struct kp_losses *out);

/* All instances that the process has or has had, summed. Any thread. 0; negative: not known. */
int32_t kp_losses_total(struct kp_losses *out);

/* Ends an instance and deletes its probes; creating one of the same name again does so as well. The descriptors that
 * were handed out are the caller's and stay open. 0; negative: no such instance. */
int32_t kp_ins_del(void *inst);

/* Why _os_info_get fails, in words for a person; empty where it does not. Stays valid. It fails also where the process
 * may not have the descriptors that all probes take: some twenty a processor. */
const char *kp_unavailable(void);

static_assert(sizeof(struct kp_os_info) == 12, "os-info record");
static_assert(offsetof(struct kp_os_info, major) == 1, "os-info record");
static_assert(offsetof(struct kp_os_info, minor) == 2, "os-info record");
static_assert(offsetof(struct kp_os_info, patch) == 3, "os-info record");
static_assert(offsetof(struct kp_os_info, arch) == 4, "os-info record");
static_assert(offsetof(struct kp_os_info, count) == 6, "os-info record");
static_assert(offsetof(struct kp_os_info, pid) == 8, "os-info record");

static_assert(sizeof(struct kp_probe_def) == 160, "probe definition");
static_assert(offsetof(struct kp_probe_def, kind) == 1, "probe definition");
static_assert(offsetof(struct kp_probe_def, fetch) == 8, "probe definition");
static_assert(offsetof(struct kp_probe_def, filter) == 16, "probe definition");
static_assert(offsetof(struct kp_probe_def, point) == 24, "probe definition");
static_assert(offsetof(struct kp_probe_def, name) == 88, "probe definition");
static_assert(offsetof(struct kp_probe_def, tail) == 152, "probe definition");

#ifdef __cplusplus
}
#endif

#endif
