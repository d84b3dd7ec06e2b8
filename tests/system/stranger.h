/*
 * stranger.h: what another user of the machine does, one without any right over the monitor: in a process of his own
 * with another user id, no capabilities and no further groups, or in a user namespace and mount namespace of his own,
 * in which he may mount what he likes.
 *
 *   TempTree tree;
 *   std::string home = strangers_dir(tree, "home");
 *   EXPECT_TRUE(run(as_stranger([&] { make_dir(home + "/a"); })));
 *   Background attack(in_own_namespace([&] { for (;;) ...; }));
 */
#ifndef SYSTEM_STRANGER_H
#define SYSTEM_STRANGER_H

#include <sys/types.h>

#include <functional>
#include <string>

#include "harness.h"

namespace systest
{

constexpr uid_t kStranger = 65534; /* user and group */

using Body = std::function<void()>;

/* Whether this process may become somebody else who reaches temporary trees; whether that one may have namespaces of
 * his own. Use as: NEED(can_be_stranger(), "needs root, and a directory of temporary files that others may enter"). */
bool can_be_stranger();
bool can_have_namespace();

/* `body` as it is run by a stranger, for any of the classes below: the process that calls the result is one for good.
 */
Body as_stranger(Body body);
/* The same in namespaces of his own, where his user and group ids are 0 and no mount is seen from outside. */
Body in_own_namespace(Body body);

/* A directory below the tree that belongs to the stranger; the tree's root becomes one that he may enter. */
std::string strangers_dir(testlib::TempTree &tree, const std::string &below);

/* Runs `body` in a child for `ms` milliseconds at most. False, with a failure of the test: time was up, or a check in
 * it failed. */
bool run(const Body &body, int ms = kPatienceMs);

/* Runs `body` in a child that is killed with the object, unless it ended before. */
class Background
{
public:
    explicit Background(const Body &body);
    ~Background();
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;
    pid_t pid() const { return pid_; }
    bool runs();
    /* Whether it ends by itself within `ms` with no failed check. */
    bool wait(int ms = kPatienceMs);

private:
    bool reap(int options);

    pid_t pid_;
    int status_ = -1; /* as waitpid gives it; -1: not ended */
};

/* ---- what he does; each fails the test when the call fails ---- */
void bind_mount(const std::string &from, const std::string &to);
void mount_tmpfs(const std::string &dir);
void unmount(const std::string &dir);
void make_link(const std::string &target, const std::string &path); /* symbolic */
void exchange(const std::string &one, const std::string &other);    /* in one step: renameat2 with RENAME_EXCHANGE */

/* Opens his own file for reading and writing and takes a lease on it: F_WRLCK makes whoever opens the file wait until
 * it is given back, /proc/sys/fs/lease-break-time seconds at most. The signal that asks for it back is ignored. Returns
 * the descriptor; the lease ends with it. */
int take_lease(const std::string &file, int type);

}  // namespace systest

#endif
