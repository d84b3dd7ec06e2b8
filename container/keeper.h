/*
 * keeper.h: the process's one table of containers, and the thread that keeps it true.
 *
 * A census reads thousands of files, so a thread of the library's own takes it: who looks up an id that is not known
 * waits for it, but never longer than kMaxWait. The thread also waits for the end of every container's first process.
 */
#ifndef CONTAINER_KEEPER_H
#define CONTAINER_KEEPER_H

#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "common/fd.h"
#include "common/mutex.h"
#include "details.h"
#include "ends.h"
#include "table.h"

namespace container
{

using common::Fd;

class Keeper
{
public:
    static constexpr int kMaxWait = 200; /* milliseconds */

    static Keeper &get(); /* one for the process's life */

    /* The container of a mount. False: the host's. */
    bool find(uint64_t mount, Found &out);

    /* What is known of a container. False: nothing. */
    bool describe(const std::string &id, Details &details, Found &found);

    /* Takes a census at once, in the caller's thread, which counts as any other; `look` sees it before it does. */
    void survey(const std::function<void(const Census &)> &look);

    /* Other directories for /proc and for the files of the engines; what was known is forgotten. */
    void set_roots(std::string proc, std::string files);
    std::string proc() const;
    std::string files() const;

    void stop(); /* ends the thread; it starts anew when it is needed */

    /* Around fork(2): a child has no thread, and starts one when it needs it. */
    void before_fork() ACQUIRE(lock_) { lock_.lock(); }
    void after_fork(bool child) RELEASE(lock_);

private:
    Keeper();

    struct Description {
        std::string id;
        uint64_t read_ms;
        Details details;
    };

    using Ends = std::vector<End>;

    /* What the thread's census found. */
    struct News {
        Census census;
        Ends ends;
        std::vector<struct pollfd> polled;
    };

    bool start_thread() REQUIRES(lock_); /* false: there is none */
    bool request() REQUIRES(lock_);      /* a census, of the thread; false: there is no thread */
    bool wait() REQUIRES(lock_);
    const Description *known_description(const std::string &id, uint64_t now_ms) REQUIRES(lock_);

    void run();
    bool is_wanted() const;
    void refresh();
    bool gather(News &news);
    void take_over(News &news) REQUIRES(lock_);
    void wait_for_work();
    std::vector<struct pollfd> what_to_poll(const Ends &ends) const;
    void note_ends() REQUIRES(lock_);

    mutable common::Mutex lock_;
    common::Condition refreshed_;
    std::string proc_ GUARDED_BY(lock_) = "/proc", files_ GUARDED_BY(lock_);
    Table table_ GUARDED_BY(lock_);
    std::vector<Description> descriptions_ GUARDED_BY(lock_);
    uint64_t generation_ GUARDED_BY(lock_) = 0; /* counts censuses that ended */
    bool wanted_ GUARDED_BY(lock_) = false, running_ GUARDED_BY(lock_) = false;
    pthread_t thread_ GUARDED_BY(lock_) = {};
    std::atomic<bool> stop_{false};

    /* What the thread waits for: made before it starts, and its own while it runs. */
    Fd wakeup_;
    std::vector<struct pollfd> polled_; /* the descriptor that wakes it, then one for each of ends_ */
    Ends ends_ GUARDED_BY(lock_);
};

}  // namespace container

#endif
