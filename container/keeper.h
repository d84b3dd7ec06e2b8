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
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/fd.h"
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

    /* Other folders for /proc and for the files of the engines; what was known is forgotten. */
    void set_roots(std::string proc, std::string files);
    std::string proc() const;
    std::string files() const;

    void stop(); /* ends the thread; it starts anew when it is needed */

    /* Around fork(2): a child has no thread, and starts one when it needs it. */
    void before_fork() { lock_.lock(); }
    void after_fork(bool child);

private:
    Keeper();

    struct Description {
        std::string id;
        uint64_t read_ms;
        Details details;
    };

    using Ends = std::vector<End>;

    bool start_thread(); /* false: there is none */
    bool request();      /* a census, of the thread; false: there is no thread */
    bool wait(std::unique_lock<std::mutex> &lock);
    void run();
    void refresh(std::unique_lock<std::mutex> &lock);
    void wait_for_work();
    std::vector<struct pollfd> what_to_poll(const Ends &ends) const;
    void note_ends();
    bool read_again(const std::string &id, uint64_t now_ms);

    mutable std::mutex lock_; /* over all below */
    std::condition_variable refreshed_;
    std::string proc_ = "/proc", files_;
    Table table_;
    std::vector<Description> descriptions_;
    uint64_t generation_ = 0; /* counts censuses that ended */
    bool wanted_ = false, running_ = false;
    pthread_t thread_ = {};
    std::atomic<bool> stop_{false};
    Fd bell_;

    /* What the thread waits for; it alone changes them, with the lock held. */
    Ends ends_;
    std::vector<struct pollfd> polled_; /* the bell, then one for each of ends_ */
};

}  // namespace container

#endif
