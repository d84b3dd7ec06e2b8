#include "reader.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>

#include "clock.h"

namespace kprobe
{

namespace
{

constexpr long kPauseNs = 1000000;
constexpr int kQuietPauses = 20;       // then the wake-ups are armed again
constexpr uint64_t kSlackNs = 500000;  // from the time that a record shows to when it stands in its ring

void pause_a_little()
{
    const timespec pause = {0, kPauseNs};
    nanosleep(&pause, nullptr);
}

}  // namespace

int Reader::start()
{
    if (started_)
        return 0;
    int status = open_descriptors();
    if (status == 0)
        status = start_thread();
    if (status < 0) {
        forget();
        return status;
    }
    started_ = true;
    while (tid_ == 0)
        sched_yield();
    return 0;
}

int Reader::open_descriptors()
{
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!epoll_ || !wake_)
        return -errno;
    if (const int status = listen_to(wake_.get()); status < 0)
        return status;
    // Without it the processors are looked at whenever something happens.
    if (hotplug_.open() && listen_to(hotplug_.fd()) < 0)
        hotplug_.close();
    return 0;
}

// No signal of the process is handled there.
int Reader::start_thread()
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    stopping_ = false;
    const int error = pthread_create(&thread_, nullptr, run, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return -error;
}

void Reader::stop()
{
    if (!started_)
        return;
    stopping_ = true;
    eventfd_write(wake_.get(), 1);
    pthread_join(thread_, nullptr);
    forget();
}

void Reader::forget()
{
    started_ = false;
    tid_ = 0;
    epoll_.reset();
    wake_.reset();
    hotplug_.close();
}

void Reader::abandon()
{
    forget();
    for (const auto &instance : instances_)
        instance->abandon();
}

// 0 or a negative errno.
int Reader::listen_to(int fd)
{
    epoll_event event = {EPOLLIN, {.fd = fd}};
    return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) < 0 ? -errno : 0;
}

void Reader::ignore_wake_ups(Instance &instance)
{
    instance.wake_ups().each_descriptor([this](int fd) { epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr); });
}

int Reader::add(const std::shared_ptr<Instance> &instance)
{
    const common::Lock lock(lock_);
    instances_.reserve(instances_.size() + 1);
    int status = 0;
    instance->wake_ups().each_descriptor([&](int fd) { status = status < 0 ? status : listen_to(fd); });
    if (status < 0)
        return status;  // what is listened to goes with the instance
    instance->wake_ups().wake_by(wake_.get());
    instances_.push_back(instance);
    look_again_ = true;             // processors that came since it was made
    eventfd_write(wake_.get(), 1);  // its wake-ups are to be armed
    return 0;
}

void Reader::remove(const std::shared_ptr<Instance> &instance)
{
    const common::Lock lock(lock_);
    std::erase(instances_, instance);
    ignore_wake_ups(*instance);
}

void *Reader::run(void *self)
{
    auto *reader = static_cast<Reader *>(self);
    pthread_setname_np(pthread_self(), "orx_kp_reader");
    reader->tid_ = static_cast<int>(syscall(SYS_gettid));
    reader->loop();
    return nullptr;
}

void Reader::wait()
{
    epoll_event events[64];
    const int n = epoll_wait(epoll_.get(), events, static_cast<int>(std::size(events)), -1);
    for (int i = 0; i < n; i++) {
        eventfd_t value;
        if (events[i].data.fd == wake_.get())
            eventfd_read(wake_.get(), &value);
        else if (events[i].data.fd == hotplug_.fd())
            continue;                                       // follow_processors() takes what it has
        else if (events[i].events & (EPOLLHUP | EPOLLERR))  // its CPU went offline; it would be ready for ever
            epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, events[i].data.fd, nullptr);
    }
    // Somebody closed a descriptor of ours, as daemons do with all: nothing wakes this thread, but records must not
    // stay.
    if (n < 0 && errno != EINTR)
        pause_a_little();
}

// False: nothing came and nothing is held back.
bool Reader::sweep_all()
{
    const common::Lock lock(lock_);
    const uint64_t safe = now_ns() - kSlackNs;
    bool busy = false;
    for (const auto &instance : instances_) {
        try {
            busy |= instance->close_replaced();
            busy |= instance->sweep(safe);
        } catch (const std::exception &) {  // out of memory: what is in the rings waits
            busy = true;
        }
    }
    return busy;
}

// Wake-ups that the instance has from now on come here. False: it must be asked again.
bool Reader::follow(const std::vector<int> &online, Instance &instance)
{
    ignore_wake_ups(instance);
    const bool followed = instance.follow(online, renewed_);
    instance.wake_ups().each_descriptor([this](int fd) { listen_to(fd); });
    return followed;
}

void Reader::follow_processors()
{
    const common::Lock lock(lock_);
    if (hotplug_.take(renewed_))
        look_again_ = true;
    if (!look_again_)
        return;
    try {
        const std::vector<int> online = online_cpus();
        bool all = !online.empty();
        for (const auto &instance : instances_)
            all &= follow(online, *instance);
        look_again_ = !all;
        if (all)
            renewed_.clear();
    } catch (const std::exception &) {  // out of memory: again
    }
}

void Reader::arm_all(bool on)
{
    const common::Lock lock(lock_);
    for (const auto &instance : instances_)
        instance->wake_ups().arm(on);
}

void Reader::loop()
{
    while (!stopping_) {
        if (hotplug_.fd() < 0)
            look_again_ = true;
        follow_processors();
        arm_all(true);
        // What came before the wake-ups were armed has caused none.
        if (!sweep_all() && (!look_again_ || hotplug_.fd() < 0))
            wait();
        sweep_all();  // to disarm the wake-ups takes a while, and then what caused them is old enough
        arm_all(false);
        for (int quiet = 0; !stopping_ && quiet < kQuietPauses; quiet++) {
            if (sweep_all())
                quiet = 0;
            follow_processors();
            pause_a_little();
        }
    }
}

}  // namespace kprobe
