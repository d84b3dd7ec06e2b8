/* C11's threads by way of POSIX's, for the thread sanitizer: it learns of a thread by its POSIX name only, and ends the
 * process in one that it has not learnt of. Kafka's client library uses C11's. */
#include <pthread.h>
#include <threads.h>

#include <cstdint>
#include <memory>

namespace
{

struct Start {
    thrd_start_t function;
    void *argument;
};

void *run(void *given)
{
    const std::unique_ptr<Start> start(static_cast<Start *>(given));
    return reinterpret_cast<void *>(static_cast<intptr_t>(start->function(start->argument)));
}

}  // namespace

#pragma GCC visibility push(default) /* they come before the C library's */
extern "C" {

int thrd_create(thrd_t *thread, thrd_start_t function, void *argument)
{
    auto start = std::make_unique<Start>(Start{function, argument});
    if (pthread_create(thread, nullptr, run, start.get()) != 0)
        return thrd_error;
    static_cast<void>(start.release()); /* the thread's */
    return thrd_success;
}

int thrd_join(thrd_t thread, int *result)
{
    void *returned = nullptr;
    if (pthread_join(thread, &returned) != 0)
        return thrd_error;
    if (result)
        *result = static_cast<int>(reinterpret_cast<intptr_t>(returned));
    return thrd_success;
}

}  // extern "C"
#pragma GCC visibility pop
