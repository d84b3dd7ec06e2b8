/*
 * status_fixture.h: a monitor over a tree, asked for its status.
 */
#ifndef UNIT_STATUS_FIXTURE_H
#define UNIT_STATUS_FIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "event.h"
#include "fmon_status.h"
#include "linux/fmon_linux.h"
#include "linux/inotify.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/fault.h"
#include "testlib/tree.h"
#include "tree_flags.h"

namespace testlib
{

using Strings = std::vector<std::string>;

inline struct fmon_status status_now()
{
    struct fmon_status status = {};
    status.size = sizeof status;
    EXPECT_EQ(0, _orx_fmon_status(&status));
    EXPECT_EQ(sizeof status, status.size);
    return status;
}

/* Marked directories of the cache, looked for. */
inline uint64_t marked_directories()
{
    uint64_t count = 0;
    struct dcache_traverse walk;
    dcache_traverse_start(&walk, fmon.dcache.root, nullptr);
    while (struct dentry *d = dcache_traverse_next_safe(&walk))
        count += walk.state != DCACHE_ENTER && fmon_linux_marked(d) && !(d->owner_bits & DENTRY_FILE);
    dcache_traverse_end(&walk);
    return count;
}

inline Strings told; /* "+ PATH" for a new mark, "REASON STEP ERRNO PATH" for a refusal */

inline void take_mark(const char *path, const struct fmon_refusal *refusal)
{
    if (!refusal) {
        told.push_back(std::string("+ ") + path);
        return;
    }
    EXPECT_STREQ(path, refusal->path);
    told.push_back(std::to_string(refusal->reason) + " " + std::to_string(refusal->step) + " " +
                   std::to_string(refusal->error) + " " + path);
}

inline uint64_t sum(const struct fmon_left_out &left)
{
    return left.inotify_limit + left.fanotify_limit + left.cache_full + left.denied + left.descriptors + left.too_long +
           left.gone + left.other;
}

class Status : public ::testing::Test
{
protected:
    Status()
    {
        t = tree.dir("t");
        EXPECT_EQ(0, m.result);
        told.clear();
    }
    ~Status() override { _orx_fmon_on_mark(nullptr); }

    int watch(uint32_t mask = FMON_CREATE) { return m.add(t, mask, kSyncedTree); }
    void pump_all() { m.pump_all(); }
    void expect_directories(uint64_t count)
    {
        EXPECT_EQ(count, status_now().directories);
        EXPECT_EQ(count, marked_directories());
    }
    /* One directory below a watched one is refused: what is counted, and what the last refusal says. */
    void expect_one(uint64_t fmon_left_out::*counter, const struct fmon_refusal &want)
    {
        const struct fmon_status now = status_now();
        EXPECT_EQ(1u, now.left_out.*counter);
        EXPECT_EQ(1u, sum(now.left_out));
        EXPECT_LE(1u, now.refusals);
        EXPECT_EQ(want.code, now.last_refusal.code);
        EXPECT_EQ(want.error, now.last_refusal.error);
        EXPECT_EQ(want.reason, now.last_refusal.reason);
        EXPECT_EQ(want.step, now.last_refusal.step);
        EXPECT_STREQ(want.path, now.last_refusal.path);
    }
    static struct fmon_refusal refusal(int32_t code, int32_t error, uint32_t reason, uint32_t step,
                                       const std::string &path)
    {
        struct fmon_refusal out = {code, error, reason, step, ""};
        memcpy(out.path, path.c_str(), path.size() + 1);
        return out;
    }

    TempTree tree;
    LinuxMonitor m;
    std::string t;
};

}  // namespace testlib

#endif
