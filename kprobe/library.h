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
#include <mutex>
#include <string>
#include <vector>

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
    const kp_os_info *os_info();
    // Stays valid.
    const char *why_not();

    void *create(const char *name, int32_t **fds, int32_t *count);
    int remove(void *handle);
    std::shared_ptr<Instance> find(void *handle);

    int parse(int32_t index, void *handle);

    // Of all instances, with those that have ended. 0 or a negative errno.
    int losses(kp_losses *out);

    // The definitions go with the process.
    void shut_down();

    void before_fork();
    void after_fork(bool child);

private:
    struct Slot {
        std::string name;
        std::shared_ptr<Instance> instance;
        uintptr_t generation = 0x6b70;  // no small number is a handle
    };

    bool start();
    bool look_around(std::string *why);
    void say(const std::string &why);
    bool prove(std::string *why);
    Slot *slot_of(void *handle);
    void *handle_of(const Slot &slot) const;
    Slot *free_slot(const std::string &name);
    void end(Slot *slot);
    void keep_losses(Instance &instance) noexcept;
    std::vector<std::shared_ptr<Instance>> instances();
    size_t share(size_t order);

    std::mutex lock_;  // all below, but not the reader
    enum { kNew, kWorking, kUnavailable } state_ = kNew;
    std::list<std::string> texts_;
    const char *why_ = "";
    Tracefs tracefs_;
    Facts facts_;
    kp_os_info info_ = {};
    Owner owner_;
    unsigned serial_ = 0;
    std::vector<Slot> slots_;
    kp_losses ended_ = {};  // of instances that have
    size_t pass_left_ = 0, pass_order_ = SIZE_MAX;

    Reader reader_;
};

}  // namespace kprobe

#endif
