/*
 * ground.h: where the attacks take place, and what their processes share with the one that is attacked.
 *
 *   ROOT/tree/NAME   watched recursively, one directory an attack
 *   ROOT/files/NAME  not watched, but single files in there are
 *   ROOT/flat        watched recursively for kinds of fanotify only, and for names in its first level
 *   ROOT/wait/NAME   watched by commands that wait for paths
 *   ROOT/out/NAME    not watched: no mark may ever be found there
 *   ROOT/tree/fence  files by which an attacker waits for the monitor
 *
 * An attacker runs some rounds as fast as it can and then waits until the monitor has told of a fence, a file that it
 * made after them: so the monitor is always busy and the kernel's queues never overflow, which would excuse anything.
 */
#ifndef HOSTILE_GROUND_H
#define HOSTILE_GROUND_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "system/stranger.h"

namespace hostile
{

constexpr int kMaxAttacks = 16;
constexpr int kHeldMs = 5000;        /* a lease is held */
constexpr int kNobody = kMaxAttacks; /* the fence of the process that is attacked */

/* Who has to tell of a fence, and of which half: the kernel's two queues are apart from each other. */
enum Queue { kModuleNames, kModuleFiles, kCommandNames, kCommandFiles, kQueues };

/* One attacker's part of the shared memory. */
struct Post {
    std::atomic<uint64_t> rounds;
    std::atomic<int> rested;                          /* the latest rest that it keeps */
    std::atomic<int> failures;                        /* of calls that had to succeed: the attack is none then */
    char failure[200];                                /* the first of them */
    std::array<std::atomic<uint64_t>, kQueues> fence; /* the latest that was told of */
};

struct Shared {
    std::atomic<int> stage; /* even: a rest; odd: attack; kLeave: the end */
    std::array<Post, kMaxAttacks + 1> posts;
};

constexpr int kLeave = -1;
inline bool is_rest(int stage) { return stage % 2 == 0; }

/* Memory that children share with their parent; never given back. */
Shared *make_shared_memory();

/* One attacker's view: its directories, its random numbers, its fence. Plain system calls, which change nothing but the
 * file system; the ones called need_* or given to need() must succeed. */
class Ground
{
public:
    Ground(Shared *shared, std::string root, int index, std::string name, uint64_t seed)
        : shared_(shared), root_(std::move(root)), index_(index), name_(std::move(name)), random_(seed + 1)
    {
    }

    std::string tree(const std::string &below = "") const { return at("tree/" + name_, below); }
    std::string files(const std::string &below = "") const { return at("files/" + name_, below); }
    std::string flat(const std::string &below = "") const { return at("flat", below); }
    std::string wait(const std::string &below = "") const { return at("wait/" + name_, below); }
    std::string out(const std::string &below = "") const { return at("out/" + name_, below); }
    std::string at(const std::string &dir, const std::string &below = "") const
    {
        return root_ + "/" + dir + (below.empty() ? "" : "/" + below);
    }
    const std::string &name() const { return name_; }
    Post &post() const { return shared_->posts[static_cast<size_t>(index_)]; }

    uint32_t random(uint32_t below); /* 0..below-1 */
    bool attacking() const { return !is_rest(shared_->stage.load()); }
    int stage() const { return shared_->stage.load(); }

    /* Whether the monitor has told of everything before, within `ms`; given up when the stage changes. */
    bool fence(int ms = 60000);
    /* Its parts: makes one and gives its number; whether it was told of; removes it. */
    uint64_t raise_fence();
    bool fence_told(uint64_t number) const;
    void lower_fence(uint64_t number);

    /* Records a call that failed. */
    void need(bool done, const std::string &what);

private:
    std::string fence_file(uint64_t number) const;

    Shared *shared_;
    std::string root_;
    int index_;
    std::string name_;
    uint64_t random_, fences_ = 0;
};

/* Files and directories; true where the call succeeded. */
bool touch(const std::string &path, mode_t mode = 0644); /* made where missing; one byte is written */
bool read_byte(const std::string &path);
bool make(const std::string &dir);
bool rename_to(const std::string &from, const std::string &to);
bool swap(const std::string &one, const std::string &other);
void remove_tree(const std::string &path); /* of any depth; what is not there is gone already */

}  // namespace hostile

#endif
