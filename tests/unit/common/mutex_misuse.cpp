/* Right and wrong use of common/mutex.h, with what clang must say of each wrong one. Never linked: clang -verify
 * compares. */
#include "common/mutex.h"

struct Counter {
    common::Mutex first ACQUIRED_BEFORE(lock);
    common::Mutex lock;
    common::SharedMutex shared;
    common::Condition changed;
    int value GUARDED_BY(lock) = 0;
    int *far PT_GUARDED_BY(lock) = nullptr;
    int seen GUARDED_BY(shared) = 0;

    void grow() REQUIRES(lock) { value++; }
    int look() const REQUIRES_SHARED(shared) { return seen; }
    int get() EXCLUDES(lock)
    {
        const common::Lock hold(lock);
        return value;
    }
};

/* ---- right ---- */

int locked(Counter &counter)
{
    const common::Lock hold(counter.lock);
    counter.grow();
    return counter.value + *counter.far;
}

int released_meanwhile(Counter &counter)
{
    common::Lock hold(counter.lock);
    hold.unlock();
    const int value = counter.get();
    hold.lock();
    return value + counter.value;
}

int adopted(Counter &counter)
{
    if (!counter.lock.try_lock())
        return 0;
    const common::Lock hold(counter.lock, common::kAdopt);
    return counter.value;
}

int in_order(Counter &counter)
{
    const common::Lock before(counter.first);
    const common::Lock hold(counter.lock);
    return counter.value;
}

int shared(Counter &counter)
{
    const common::SharedLock hold(counter.shared);
    return counter.look();
}

int alone(Counter &counter)
{
    const common::ExclusiveLock hold(counter.shared);
    return ++counter.seen;
}

int waited_for(Counter &counter)
{
    const common::Lock hold(counter.lock);
    counter.changed.wait(counter.lock, [&]() REQUIRES(counter.lock) { return counter.value > 0; });
    return counter.value;
}

/* ---- wrong ---- */

int read_without(Counter &counter)
{
    return counter.value; /* expected-warning {{requires holding mutex 'counter.lock'}} */
}

void written_without(Counter &counter)
{
    counter.value = 1; /* expected-warning {{requires holding mutex 'counter.lock' exclusively}} */
}

int read_through_a_pointer(Counter &counter)
{
    return *counter.far; /* expected-warning {{requires holding mutex 'counter.lock'}} */
}

void called_without(Counter &counter)
{
    counter.grow(); /* expected-warning {{requires holding mutex 'counter.lock' exclusively}} */
}

int called_with(Counter &counter)
{
    const common::Lock hold(counter.lock);
    return counter.get(); /* expected-warning {{cannot call function 'get' while mutex 'counter.lock' is held}} */
}

int read_after_release(Counter &counter)
{
    common::Lock hold(counter.lock);
    hold.unlock();
    return counter.value; /* expected-warning {{requires holding mutex 'counter.lock'}} */
}

void never_released(Counter &counter)
{
    counter.lock.lock(); /* expected-note {{mutex acquired here}} */
} /* expected-warning {{mutex 'counter.lock' is still held at the end of function}} */

void never_taken(Counter &counter)
{
    counter.lock.unlock(); /* expected-warning {{releasing mutex 'counter.lock' that was not held}} */
}

void nothing_to_adopt(Counter &counter)
{
    /* expected-warning@+1 {{requires holding mutex 'counter.lock'}} */
    const common::Lock hold(counter.lock, common::kAdopt);
}

void out_of_order(Counter &counter)
{
    const common::Lock hold(counter.lock);
    const common::Lock late(counter.first); /* expected-warning {{mutex 'first' must be acquired before 'lock'}} */
}

void written_while_shared(Counter &counter)
{
    const common::SharedLock hold(counter.shared);
    counter.seen = 1; /* expected-warning {{requires holding mutex 'counter.shared' exclusively}} */
}

void waited_without(Counter &counter)
{
    counter.changed.wait(counter.lock); /* expected-warning {{requires holding mutex 'counter.lock' exclusively}} */
}

int lambda_that_does_not_say(Counter &counter)
{
    const common::Lock hold(counter.lock);
    auto later = [&] { return counter.value; }; /* expected-warning {{requires holding mutex 'counter.lock'}} */
    return later();
}
