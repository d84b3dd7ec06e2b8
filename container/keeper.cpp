#include "keeper.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>

#include "cgroup.h"
#include "common/guard.h"

namespace container
{

namespace
{

constexpr char kProc[] = "/proc";
constexpr uint64_t kDescriptionAge = 5000; /* ms: names change rarely, but they change */
constexpr size_t kMaxDescriptions = 1024;

uint64_t now_ms()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

bool is_directory(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// An agent in a container of its own has the host's files below /rootfs.
std::string default_files() { return is_directory("/rootfs/etc") && is_directory("/rootfs/proc") ? "/rootfs" : "/"; }

}  // namespace

Keeper::Keeper() : files_(default_files()) {}

// Never destroyed: look-ups of other threads may outlive the process's orderly part.
Keeper &Keeper::get()
{
    alignas(Keeper) static unsigned char place[sizeof(Keeper)];
    static Keeper *keeper = new (place) Keeper;
    return *keeper;
}

std::string Keeper::proc() const
{
    const common::Lock lock(lock_);
    return proc_;
}

std::string Keeper::files() const
{
    const common::Lock lock(lock_);
    return files_;
}

bool Keeper::start_thread()
{
    if (running_)
        return true;
    stop_ = false;
    if (!wakeup_)
        wakeup_ = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    polled_.assign(1, {wakeup_.get(), POLLIN, 0});
    const auto body = [](void *self) -> void * {
        static_cast<Keeper *>(self)->run();
        return nullptr;
    };
    sigset_t all, before;
    sigfillset(&all); /* the agent's signals are for its own threads */
    pthread_sigmask(SIG_SETMASK, &all, &before);
    running_ = wakeup_ && pthread_create(&thread_, nullptr, body, this) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return running_;
}

void Keeper::stop()
{
    common::Lock lock(lock_);
    if (!running_)
        return;
    stop_ = true;
    eventfd_write(wakeup_.get(), 1);
    const pthread_t thread = thread_;
    lock.unlock();
    pthread_join(thread, nullptr);
    lock.lock();
    running_ = false;
}

// The parent's descriptors of processes are the child's, too, where nobody would look at them.
void Keeper::after_fork(bool child)
{
    if (child) {
        running_ = false;
        wanted_ = false;
        wakeup_.reset();
        ends_.clear();
    }
    lock_.unlock();
}

// ---- look-ups ----

bool Keeper::request()
{
    if (!start_thread())
        return false;
    if (!wanted_)
        eventfd_write(wakeup_.get(), 1);
    wanted_ = true;
    return true;
}

// For the end of a census. False: it took too long.
bool Keeper::wait()
{
    const uint64_t before = generation_;
    const auto over = [&]() REQUIRES(lock_) { return generation_ != before; };
    return refreshed_.wait_for(lock_, std::chrono::milliseconds(kMaxWait), over);
}

bool Keeper::find(uint64_t mount, Found &out)
{
    const common::Lock lock(lock_);
    Table::Answer answer = table_.find(mount, now_ms());
    const bool fresh = answer.advice == Table::Advice::kRefresh && !wanted_; /* it will be asked for this mount */
    const bool coming = answer.advice == Table::Advice::kRefresh ? request() : wanted_;
    if (answer.unknown && coming) {
        const bool done = wait();
        answer = table_.find(mount, now_ms());
        if (done && fresh && answer.unknown)
            table_.give_up(mount);
    }
    if (answer.found)
        out = *answer.found;
    return answer.found;
}

// Null: it is to be read, for there is none, or an old one.
const Keeper::Description *Keeper::known_description(const std::string &id, uint64_t now)
{
    const auto old = std::find_if(descriptions_.begin(), descriptions_.end(),
                                  [&](const Description &description) { return description.id == id; });
    if (old != descriptions_.end() && now - old->read_ms < kDescriptionAge)
        return &*old;
    if (old != descriptions_.end())
        descriptions_.erase(old);
    if (descriptions_.size() >= kMaxDescriptions)
        descriptions_.erase(descriptions_.begin()); /* the one that was read first */
    return nullptr;
}

// Files are read without the lock: a look-up of a mount never waits for a disk.
bool Keeper::describe(const std::string &id, Details &details, Found &found)
{
    common::Lock lock(lock_);
    if (!table_.container(id) && (wanted_ || (table_.may_refresh(now_ms()) && request())))
        wait();
    const Found *row = table_.container(id);
    if (row)
        found = *row;
    if (row ? row->nested : !is_id(id)) /* files of that id on the host's disk would be somebody else's */
        return row;
    const bool running = row;
    const uint64_t now = now_ms();
    if (const Description *known = known_description(id, now)) {
        details = known->details;
    } else {
        const std::string root = files_;
        lock.unlock();
        details = read_details(root, id);
        lock.lock();
        descriptions_.push_back({id, now, details});
    }
    return running || details.known;
}

void Keeper::survey(const std::function<void(const Census &)> &look)
{
    const std::atomic<bool> never{false};
    Census census = take_census(proc(), files(), never);
    look(census);
    const common::Lock lock(lock_);
    table_.begin(now_ms());
    table_.replace(census);
    generation_++;
}

void Keeper::set_roots(std::string proc, std::string files)
{
    stop();
    const common::Lock lock(lock_);
    proc_ = std::move(proc);
    files_ = files.empty() ? default_files() : std::move(files);
    table_ = Table();
    descriptions_.clear();
    generation_ = 0;
    wanted_ = false;
}

// ---- the thread ----

void Keeper::run()
{
    while (!stop_) {
        wait_for_work();
        if (is_wanted())
            refresh();
    }
    const common::Lock lock(lock_);
    ends_.clear();
}

bool Keeper::is_wanted() const
{
    const common::Lock lock(lock_);
    return !stop_ && wanted_;
}

// A census that memory does not suffice for leaves everything as it was.
void Keeper::refresh()
{
    News news; /* afterwards what was known before, whose release takes time: without the lock */
    const bool complete = gather(news);
    const common::Lock lock(lock_);
    if (complete && !stop_)
        take_over(news);
    wanted_ = false;
    generation_++;
    refreshed_.notify_all();
}

// False: memory does not suffice.
bool Keeper::gather(News &news)
{
    std::string proc, files;
    return common::without_exceptions(false, [&] {
        {
            const common::Lock lock(lock_);
            table_.begin(now_ms());
            proc = proc_;
            files = files_;
        }
        news.census = take_census(proc, files, stop_);
        if (proc == kProc) /* others' numbers are made up */
            news.ends = watch_ends(news.census.containers);
        news.polled = what_to_poll(news.ends);
        return true;
    });
}

void Keeper::take_over(News &news)
{
    try {
        table_.replace(news.census);
        ends_.swap(news.ends);
        polled_.swap(news.polled);
        note_ends();
    } catch (const std::exception &) {
        return; /* too little memory for the new table: the old one stays */
    }
}

std::vector<struct pollfd> Keeper::what_to_poll(const Ends &ends) const
{
    std::vector<struct pollfd> polled = {{wakeup_.get(), POLLIN, 0}};
    for (const End &end : ends)
        polled.push_back({end.process.get(), POLLIN, 0}); /* a negative one is left out by the kernel */
    return polled;
}

void Keeper::wait_for_work()
{
    poll(polled_.data(), polled_.size(), -1);
    eventfd_t count;
    eventfd_read(wakeup_.get(), &count);
    const common::Lock lock(lock_);
    for (size_t i = 0; i < ends_.size(); i++)
        if (polled_[i + 1].revents != 0) {
            ends_[i].process.reset();
            polled_[i + 1].fd = -1;
        }
    note_ends();
}

void Keeper::note_ends()
{
    for (const End &end : ends_)
        if (!end.process)
            table_.end(end.id, end.pid);
}

}  // namespace container
