/*
 * reader.h: the thread that empties the kernel's rings into the queues.
 *
 * It sleeps as long as nothing happens, until a wake-up comes. While records come it looks once a millisecond with the
 * wake-ups disarmed, so that a burst costs a single one and not one a record, and releases what is so old that no CPU
 * can still be about to write an older one: thus the records of all CPUs are handed on in the order of their time.
 */
#ifndef KPROBE_READER_H
#define KPROBE_READER_H

#include <pthread.h>

#include <atomic>
#include <memory>
#include <vector>

#include "common/fd.h"
#include "common/mutex.h"
#include "hotplug.h"
#include "instance.h"

namespace kprobe
{

using common::Fd;

class Reader
{
public:
    // Starts the thread where it does not run yet. 0 or a negative errno.
    int start();
    void stop();

    // 0 or a negative errno.
    int add(const std::shared_ptr<Instance> &instance) EXCLUDES(lock_);
    // When it returns, the thread does not touch the instance any more.
    void remove(const std::shared_ptr<Instance> &instance) EXCLUDES(lock_);

    // The thread's id; 0: it does not run.
    int tid() const { return tid_; }

    common::Mutex &mutex() RETURN_CAPABILITY(lock_) { return lock_; }
    // In a process that was forked there is no thread.
    void abandon() REQUIRES(lock_);

private:
    int open_descriptors();
    int start_thread();
    static void *run(void *self);
    void loop();
    int listen_to(int fd);
    void ignore_wake_ups(Instance &instance);
    void wait();
    void forget();
    bool sweep_all() EXCLUDES(lock_);
    void follow_processors() EXCLUDES(lock_);
    bool follow(const std::vector<int> &online, Instance &instance) REQUIRES(lock_);
    void arm_all(bool on) EXCLUDES(lock_);

    common::Mutex lock_;
    std::vector<std::shared_ptr<Instance>> instances_ GUARDED_BY(lock_);
    std::set<int> renewed_ GUARDED_BY(lock_);  // processors that came or went
    Fd epoll_, wake_;                          // change only while the thread does not run
    Hotplug hotplug_;                          // the same; what it has is the thread's
    std::atomic<bool> look_again_ = false;
    pthread_t thread_ = {};
    std::atomic<int> tid_ = 0;
    std::atomic<bool> stopping_ = false;
    bool started_ = false;
};

}  // namespace kprobe

#endif
