/*
 * library.h: the library as a whole: one in a process.
 *
 * Handles are numbers in a pointer's clothes, never addresses: one that is null, made up, or of an instance that has
 * gone is recognised.
 */
#ifndef KPROBE_LIBRARY_H
#define KPROBE_LIBRARY_H

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "facts.h"
#include "instance.h"
#include "kp_thread_utils.h"
#include "reader.h"
#include "tracefs.h"

namespace kprobe
{

class Library
{
public:
    static Library &get();

    // Null: probes cannot work here, see why_not().
    const kp_os_info *os_info() EXCLUDES(lock_);
    // Stays valid.
    const char *why_not() EXCLUDES(lock_);

    void *create(const char *name, int32_t **fds, int32_t *count) EXCLUDES(lock_);
    int remove(void *handle) EXCLUDES(lock_);
    std::shared_ptr<Instance> find(void *handle) EXCLUDES(lock_);

    int parse(int32_t index, void *handle) EXCLUDES(lock_);

    // Of all instances, with those that have ended. 0 or a negative errno.
    int losses(kp_losses &out) EXCLUDES(lock_);

    // The definitions go with the process.
    void shut_down() EXCLUDES(lock_);

    void before_fork();
    void after_fork(bool child);

private:
    struct Slot {
        std::string name;
        std::shared_ptr<Instance> instance;
        uintptr_t generation = 0x6b70;  // no small number is a handle
    };

    bool start() REQUIRES(lock_);
    bool look_around(std::string &why) REQUIRES(lock_);
    void say(const std::string &why) REQUIRES(lock_);
    bool prove(std::string &why) REQUIRES(lock_);
    Slot *slot_of(void *handle) REQUIRES(lock_);
    void *handle_of(const Slot &slot) const REQUIRES(lock_);
    Slot *free_slot(const std::string &name) REQUIRES(lock_);
    std::shared_ptr<Instance> make_instance(const char *name) REQUIRES(lock_);
    void end(Slot &slot) REQUIRES(lock_);
    void keep_losses(Instance &instance) noexcept REQUIRES(lock_);
    std::vector<std::shared_ptr<Instance>> instances() REQUIRES(lock_);
    size_t share(size_t order) REQUIRES(lock_);

    common::Mutex lock_;
    enum { kNew, kWorking, kUnavailable } state_ GUARDED_BY(lock_) = kNew;
    std::list<std::string> texts_ GUARDED_BY(lock_);
    const char *why_ GUARDED_BY(lock_) = "";
    Tracefs tracefs_ GUARDED_BY(lock_);  // once found, this and the facts change no more: instances refer to them
    Facts facts_ GUARDED_BY(lock_);
    kp_os_info info_ GUARDED_BY(lock_) = {};
    Owner owner_ GUARDED_BY(lock_);
    unsigned serial_ GUARDED_BY(lock_) = 0;
    std::vector<Slot> slots_ GUARDED_BY(lock_);
    kp_losses ended_ GUARDED_BY(lock_) = {};  // of instances that have
    size_t pass_left_ GUARDED_BY(lock_) = 0, pass_order_ GUARDED_BY(lock_) = SIZE_MAX;

    Reader reader_;
};

}  // namespace kprobe

#endif
