/*
 * placement.h: what the monitor marks, and what it cannot: reported while it happens, counted in its status.
 */
#ifndef AGENT_PLACEMENT_H
#define AGENT_PLACEMENT_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "module.h"

namespace agent
{

/* What has been found since the last look. */
struct Findings {
    struct fmon_left_out counts = {};
    struct fmon_refusal last = {}; /* code 0: nothing was refused */
    std::string first_denied;      /* path */
    bool ended = false;            /* the monitor has given up: see `monitor` */
    struct fmon_source monitor = {};

    uint64_t left_out() const; /* directories that are not watched, or not in full */
    bool limit_reached() const;
};

/* Whether that reason (FMON_LEFT_*) is a limit, or a cache, that may have room later. */
bool is_want_of_room(uint32_t reason);

/* A part of a sentence: what failed at the last refusal, as the monitor's log has it; empty: nothing did. */
std::string refusal_text(const struct fmon_refusal &last);

/* The same of a monitor that did not start, or has ended. */
std::string trouble_text(const struct fmon_source &monitor);

/* While it lives, what this thread marks is news to the other sessions of the process, too. What a session marks else,
 * when it places its watches or walks its trees, is not: nothing was made there. */
class MarksAreNews
{
public:
    MarksAreNews();
    ~MarksAreNews();
    MarksAreNews(const MarksAreNews &) = delete;
    MarksAreNews &operator=(const MarksAreNews &) = delete;
};

/* A session's: the monitor has one listener, who hands on to all that are started. */
class Placement
{
public:
    using Listener = std::function<void(const std::string &path)>;

    /* `changed` is called, on the thread that places, when there is something to look at. */
    explicit Placement(std::function<void()> changed) : changed_(std::move(changed)) {}
    ~Placement() { stop(); }
    Placement(const Placement &) = delete;
    Placement &operator=(const Placement &) = delete;

    /* Begins to listen to a monitor that has been started, or was to be. */
    void start(const Module &module);
    void stop();

    /* Where other sessions share the monitor: from now on only what is at or below these paths counts here, and
     * refusals are counted as they are reported. To be called before start(); reach() adds one more path. */
    void limit_to(const std::vector<std::string> &paths);
    void reach(const std::string &path);
    bool is_limited() const { return limited_; }

    /* `placed` hears of each inotify watch that is new, but for those that the calling thread places, of which `own`
     * hears; `denied` of each directory whose inotify watch was refused for want of a right. Once each; all must stay
     * valid until stop(). */
    void listen(
        Listener placed, Listener own = [](const std::string &) {});
    void listen_to_denials(Listener denied);

    Findings take();
    /* One refusal for that reason is left out of what take() returns next: it is of a directory that was reported. */
    void told_before(uint32_t reason);

    /* Of the thread that listens: the reason of the first refusal since the last call, 0: there was none. */
    uint32_t take_own_refusal() { return std::exchange(own_refusal_, 0); }

    /* The latest directory for which there was no room (a limit, a full cache), until found_room(); else empty. */
    std::string without_room() const;
    void found_room();

    bool any() const { return any_.load(std::memory_order_relaxed); }
    uint64_t placed() const { return count_.load(std::memory_order_relaxed); } /* new inotify watches until now */

private:
    static void on_mark(const char *path, const struct fmon_refusal *refusal);
    bool concerns(const char *path) const;
    void marked(const char *path);
    void refused(const struct fmon_refusal &refusal);
    void note(const struct fmon_refusal &refusal);
    void take_counted(const struct fmon_status &now, Findings &found);
    void take_noted(Findings &found);

    const Module *module_ = nullptr; /* null: nothing is listened to */
    bool limited_ = false;
    std::function<void()> changed_;
    Listener placed_, own_, denied_;
    std::thread::id listener_;                            /* the thread whose own watches are no news */
    std::atomic<const Listener *> to_placed_, to_denied_; /* null: not set yet */
    std::atomic<uint64_t> count_ = 0;
    std::atomic<bool> any_ = false;
    struct {
        struct fmon_left_out counts = {}, told_before = {};
        uint64_t refusals = 0;
    } seen_;
    uint32_t own_refusal_ = 0;
    mutable common::Mutex lock_;
    struct {
        std::string first_denied, without_room;
        std::vector<std::string> reached; /* where limited */
        Findings noted;                   /* where limited: since the last look */
    } found_ GUARDED_BY(lock_);
};

}  // namespace agent

#endif
