/*
 * mutex.h: a mutex, its locks and a condition variable, with which clang checks at compile time that what a mutex
 * guards is touched only while the mutex is held: -Wthread-safety. For other compilers the annotations are empty.
 *
 *     common::Mutex lock_;
 *     int count_ GUARDED_BY(lock_) = 0;
 *     void grow() REQUIRES(lock_);      the caller holds the mutex
 *     int count() EXCLUDES(lock_);      the caller does not: the function takes the mutex itself
 *
 * The body of a lambda is checked by itself; one that runs while the mutex is held says so: [this]() REQUIRES(lock_)
 * {...}.
 */
#ifndef COMMON_MUTEX_H
#define COMMON_MUTEX_H

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <utility>

#ifdef __clang__
#define COMMON_THREAD_SAFETY(...) __attribute__((__VA_ARGS__))
#else
#define COMMON_THREAD_SAFETY(...)
#endif

/* On data. */
#define GUARDED_BY(mutex) COMMON_THREAD_SAFETY(guarded_by(mutex))
#define PT_GUARDED_BY(mutex) COMMON_THREAD_SAFETY(pt_guarded_by(mutex)) /* what the pointer points to */

/* On a mutex: the order in which mutexes are taken. Checked with -Wthread-safety-beta. */
#define ACQUIRED_BEFORE(...) COMMON_THREAD_SAFETY(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) COMMON_THREAD_SAFETY(acquired_after(__VA_ARGS__))

/* On functions. */
#define REQUIRES(...) COMMON_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) COMMON_THREAD_SAFETY(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) COMMON_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) COMMON_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) COMMON_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) COMMON_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) COMMON_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) COMMON_THREAD_SAFETY(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) COMMON_THREAD_SAFETY(release_generic_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(mutex) COMMON_THREAD_SAFETY(lock_returned(mutex))
#define NO_THREAD_SAFETY_ANALYSIS COMMON_THREAD_SAFETY(no_thread_safety_analysis) /* with the reason beside it */

/* On classes. */
#define CAPABILITY(what) COMMON_THREAD_SAFETY(capability(what))
#define SCOPED_CAPABILITY COMMON_THREAD_SAFETY(scoped_lockable)

namespace common
{

class CAPABILITY("mutex") Mutex
{
public:
    constexpr Mutex() = default;
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    friend class Condition;
    std::mutex mutex_;
};

/* Whoever holds it runs as soon as the most urgent of those that wait for it would, and it goes to that one next. */
class CAPABILITY("mutex") UrgentMutex
{
public:
    UrgentMutex()
    {
        pthread_mutexattr_t kind;
        pthread_mutexattr_init(&kind);
        pthread_mutexattr_setprotocol(&kind, PTHREAD_PRIO_INHERIT);
        pthread_mutex_init(&mutex_, &kind);
        pthread_mutexattr_destroy(&kind);
    }
    ~UrgentMutex() { pthread_mutex_destroy(&mutex_); }
    UrgentMutex(const UrgentMutex &) = delete;
    UrgentMutex &operator=(const UrgentMutex &) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_;
};

/* Held by one thread alone, or shared by any number. */
class CAPABILITY("mutex") SharedMutex
{
public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex &) = delete;
    SharedMutex &operator=(const SharedMutex &) = delete;

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }
    void lock_shared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() RELEASE_SHARED() { mutex_.unlock_shared(); }

private:
    std::shared_mutex mutex_;
};

/* Says that the mutex is held already: if (mutex.try_lock()) { const common::Lock lock(mutex, common::kAdopt); ... } */
struct Adopt {
};
inline constexpr Adopt kAdopt{};

/* Holds a mutex to the end of the block; may release it and take it again on the way. */
template <typename Held>
class SCOPED_CAPABILITY BasicLock
{
public:
    explicit BasicLock(Held &mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    BasicLock(Held &mutex, Adopt) REQUIRES(mutex) : mutex_(mutex) {}
    ~BasicLock() RELEASE()
    {
        if (held_)
            mutex_.unlock();
    }
    BasicLock(const BasicLock &) = delete;
    BasicLock &operator=(const BasicLock &) = delete;

    void lock() ACQUIRE()
    {
        mutex_.lock();
        held_ = true;
    }
    void unlock() RELEASE()
    {
        held_ = false;
        mutex_.unlock();
    }

private:
    Held &mutex_;
    bool held_ = true;
};

using Lock = BasicLock<Mutex>;
using UrgentLock = BasicLock<UrgentMutex>;
using ExclusiveLock = BasicLock<SharedMutex>;

/* Holds a mutex together with others to the end of the block. */
class SCOPED_CAPABILITY SharedLock
{
public:
    explicit SharedLock(SharedMutex &mutex) ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
    ~SharedLock() RELEASE_GENERIC() { mutex_.unlock_shared(); }
    SharedLock(const SharedLock &) = delete;
    SharedLock &operator=(const SharedLock &) = delete;

private:
    SharedMutex &mutex_;
};

/* A condition variable. Every wait releases the mutex meanwhile, and may end without any reason. */
class Condition
{
public:
    void notify_one() { condition_.notify_one(); }
    void notify_all() { condition_.notify_all(); }

    void wait(Mutex &mutex) REQUIRES(mutex)
    {
        Adopted held(mutex);
        condition_.wait(held.lock);
    }

    /* Until `ready` says true, which it is asked with the mutex held: [&]() REQUIRES(mutex) {...}. */
    template <typename Ready>
    void wait(Mutex &mutex, Ready ready) REQUIRES(mutex)
    {
        Adopted held(mutex);
        condition_.wait(held.lock, std::move(ready));
    }

    /* The same, and no longer than `time`. What `ready` said last. */
    template <typename Duration, typename Ready>
    bool wait_for(Mutex &mutex, const Duration &time, Ready ready) REQUIRES(mutex)
    {
        Adopted held(mutex);
        return condition_.wait_for(held.lock, time, std::move(ready));
    }

private:
    /* The caller's lock in the standard's clothes; still the caller's at the end. */
    struct Adopted {
        explicit Adopted(Mutex &mutex) : lock(mutex.mutex_, std::adopt_lock) {}
        ~Adopted() { lock.release(); }
        Adopted(const Adopted &) = delete;
        Adopted &operator=(const Adopted &) = delete;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable condition_;
};

}  // namespace common

#endif
