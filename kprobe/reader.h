/*
 * reader.h: the thread that empties the kernel's rings into the queues.
 *
 * It sleeps as long as nothing happens, until a bell rings. While records come it looks once a millisecond with the
 * bells disarmed, so that a burst costs one wake-up and not one a record, and releases what is so old that no CPU can
 * still be about to write an older one: thus the records of all CPUs are handed on in the order of their time.
 */
#ifndef KPROBE_READER_H
#define KPROBE_READER_H

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "common/fd.h"
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
    int add(const std::shared_ptr<Instance> &instance);
    // When it returns, the thread does not touch the instance any more.
    void remove(const std::shared_ptr<Instance> &instance);

    // The thread's id; 0: it does not run.
    int tid() const { return tid_; }

    std::mutex &lock() { return lock_; }
    // In a process that was forked there is no thread.
    void abandon();

private:
    static void *run(void *self);
    void loop();
    int listen_to(int fd);
    void ignore_bells(Instance *instance);
    void wait();
    void forget();
    bool sweep_all();
    void follow_processors();
    bool follow(Instance *instance, const std::vector<int> &online);
    void arm_all(bool on);

    std::mutex lock_;  // instances_
    std::vector<std::shared_ptr<Instance>> instances_;
    Fd epoll_, wake_;
    Hotplug hotplug_;
    std::set<int> renewed_;  // processors that were told of
    std::atomic<bool> look_again_ = false;
    pthread_t thread_ = {};
    std::atomic<int> tid_ = 0;
    std::atomic<bool> stopping_ = false;
    bool started_ = false;
};

}  // namespace kprobe

#endif
