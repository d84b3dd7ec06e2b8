#include "testlib/fault.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "testlib/fault_switch.h"

namespace testlib
{

namespace
{

/* All atomic: a thread that saw a slot armed may still read what the next switch writes there. */
struct Slot {
    std::atomic<bool> armed;
    std::atomic<Call> call;
    std::atomic<int> nth, count, err; /* nth 0: counts only */
    std::atomic<ThreadScope> scope;
    std::atomic<pthread_t> owner;
    std::atomic<int> calls;
    std::atomic<bool> hit;
};

constexpr int kSlots = 16;
constinit Slot slots[kSlots] = {};

/* Read by every wrapped call, also by those that run before main and before the first switch. */
constinit std::atomic<int> armed_slots{0};
constinit std::mutex slots_mutex;

const char *const call_names[] = {
#define X(name) #name,
    TESTLIB_CALLS(X)
#undef X
};

[[noreturn]] void die(const char *what, const char *name)
{
    fprintf(stderr, "fault switch: %s: %s\n", what, name);
    abort();
}

Call call_by_name(const char *name)
{
    for (int i = 0; i < static_cast<int>(std::size(call_names)); i++)
        if (!strcmp(name, call_names[i]))
            return static_cast<Call>(i);
    die("no such call", name);
}

int arm(const char *name, int nth, int err, int count, ThreadScope scope)
{
    Call call = call_by_name(name);
    std::lock_guard<std::mutex> guard(slots_mutex);
    for (int i = 0; i < kSlots; i++) {
        if (slots[i].armed)
            continue;
        slots[i].call = call;
        slots[i].nth = nth;
        slots[i].count = count;
        slots[i].err = err;
        slots[i].scope = scope;
        slots[i].owner = pthread_self();
        slots[i].calls = 0;
        slots[i].hit = false;
        slots[i].armed = true;
        armed_slots++;
        return i;
    }
    die("too many armed", name);
}

void disarm(int slot)
{
    std::lock_guard<std::mutex> guard(slots_mutex);
    slots[slot].armed = false;
    armed_slots--;
}

/* Counts a call; whether this one is to fail. */
bool counts_and_fails(Slot &slot, Call call)
{
    if (!slot.armed || slot.call != call)
        return false;
    if (slot.scope == ThreadScope::kMine && !pthread_equal(slot.owner.load(), pthread_self()))
        return false;
    int n = ++slot.calls;
    if (slot.nth == 0 || n < slot.nth || n - slot.nth >= slot.count)
        return false;
    slot.hit = true;
    return true;
}

}  // namespace

int injected_error(Call call)
{
    if (armed_slots.load(std::memory_order_acquire) == 0)
        return 0;
    int err = 0;
    for (Slot &slot : slots)
        if (counts_and_fails(slot, call))
            err = slot.err;
    return err;
}

Fault::Fault(const char *name, int nth, int err, int count, ThreadScope scope)
    : slot_(arm(name, nth, err, count, scope))
{
}
Fault::~Fault() { disarm(slot_); }
bool Fault::hit() const { return slots[slot_].hit; }
int Fault::calls() const { return slots[slot_].calls; }

CallCount::CallCount(const char *name) : slot_(arm(name, 0, 0, 0, ThreadScope::kMine)) {}
CallCount::~CallCount() { disarm(slot_); }
int CallCount::calls() const { return slots[slot_].calls; }

int fail_each(const char *name, int err, const std::function<void(Fault &)> &body, int limit)
{
    for (int nth = 1; nth <= limit; nth++) {
        Fault fault(name, nth, err);
        body(fault);
        if (!fault.hit())
            return nth - 1;
    }
    ADD_FAILURE() << name << ": still hit after " << limit << " runs";
    return limit;
}

}  // namespace testlib
