/*
 * The monitor started and stopped again and again in one process, over the test double of the kernel-probe library.
 *
 * Kept by a stop, and so part of what a round begins with: instances with their watches and queues, the backend's
 * arrays and tables, which the next start takes back. Records that are only held back are lost by a stop: their owner
 * is the table. The library keeps its two instances.
 */
#include <malloc.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <functional>

#include "event.h"
#include "list.h"
#include "orx_base.h"
#include "probe_fixture.h"

/* Bytes allocated, and how far the figure may rise by itself: the C library takes blocks in its caches for used ones.
 */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
/* of the sanitizer's run time, whose headers are not installed everywhere */
extern "C" size_t __sanitizer_get_current_allocated_bytes();
static size_t heap_in_use() { return __sanitizer_get_current_allocated_bytes(); }
static constexpr size_t kCaches = 0;
#else
static size_t heap_in_use()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
static constexpr size_t kCaches = 4096;
#endif

namespace
{

constexpr int kRounds = 20, kSettled = 10;

class StartStop : public ::testing::Test
{
protected:
    StartStop()
    {
        m.fanotify.marks.reserve(1000);
        forget();
    }

    /* What the test's own side notes would be taken for growth. */
    void forget()
    {
        m.reset_agent();
        m.fanotify.marks.clear();
        m.probes.forget_calls();
        error_output_level = 0;
    }

    /* A stop as the monitor thread makes it at its end. Records that only the table knows are freed here. */
    static void stop()
    {
        const std::vector<struct event *> lost = table_only();
        fmon_deinit();
        kp_inotify_destroy();
        kp_notify_destroy();
        for (struct event *ev : lost)
            _event_free(ev);
    }

    /* `round` starts and stops the monitor; after each, nothing may have been added but `left` descriptors. */
    void rounds(const std::function<void(int)> &round, int left = 0)
    {
        size_t settled = 0;
        int descriptors = 0;
        for (int i = 0; i < kRounds; i++) {
            SCOPED_TRACE(i);
            round(i);
            ASSERT_EQ(0u, fmon.inited);
            ASSERT_EQ(nullptr, clt_file.instance.load());
            ASSERT_EQ(0, clt_inotify_active());
            forget();
            if (i == 0)
                descriptors = testlib::open_fds();
            EXPECT_EQ(descriptors + i * left, testlib::open_fds());
            if (i == kSettled - 1)
                settled = heap_in_use();
        }
        EXPECT_LE(heap_in_use(), settled + kCaches);
    }

    void start()
    {
        ASSERT_EQ(0, m.start());
        ASSERT_EQ(0, get_inotify_event());
        ASSERT_EQ(1u, fmlnx.kp_global);
    }

    /* Watches of every kind, global ones too, and an event each, left in the queues. */
    void live(int id)
    {
        const std::string dir = m.tree.dir("w"), held = m.tree.dir("held");
        ASSERT_EQ(
            0, fmon_add_watch(id, dir.c_str(), FMON_CREATE | FMON_DELETE, FMON_DIR | FMON_RECURSIVE | FMON_SYNC, 0, 0));
        ASSERT_EQ(0, fmon_add_watch(id, held.c_str(), FMON_MODIFY | FMON_CLOSE_WRITE, FMON_DIR | FMON_DELAY, 0, 0));
        ASSERT_EQ(0, fmon_add_watch(id, m.tree.path("missing").c_str(), FMON_CREATE, FMON_DIR | FMON_DELETED, 0, 0));
        ASSERT_EQ(0, fmon_add_watch(id, m.tree.path("*/log").c_str(), FMON_CREATE, FMON_DIR, 0, 0));
        ASSERT_EQ(0, fmon_add_global_watch(id, FMON_CREATE | FMON_CLOSE_WRITE | FMON_DELETE));
        m.delivers(dir, IN_CREATE, "f");
        m.delivers(dir, IN_CREATE | IN_ISDIR, "sub");
        m.happen(3);
        m.turn();
        event_process(&fmon, dcache_find(&fmon.dcache, held.c_str()), "pending", FMON_MODIFY, 9, 5, nullptr);
        EXPECT_TRUE(held_back(held + "/pending"));
        ASSERT_NE(nullptr, fmon_peek_event(id));
    }
    /* Takes back everything that live() of an earlier round left. */
    void unlive(int id)
    {
        while (fmon_peek_event(id))
            fmon_drop_event(id);
        while (!list_empty(&fmon.instances[id].watches)) {
            const struct watch *w = FMON_RECORD(fmon.instances[id].watches.next, struct watch, inst_link);
            const std::string path = w->path;
            ASSERT_EQ(0, fmon_del_watch(id, path.c_str())) << path;
        }
    }

    /* The record is there, and in no queue. */
    static bool held_back(const std::string &path)
    {
        for (const struct event *ev : table_only())
            if (ev->path == path && ev->pending != 0)
                return true;
        return false;
    }

    /* Records that no queue holds. */
    static std::vector<struct event *> table_only()
    {
        std::vector<struct event *> found;
        for (int i = 0; i < fmon.hash_size; i++)
            for (hlink *node = fmon.hash[i]; node; node = node->next)
                if (struct event *ev = FMON_RECORD(node, struct event, link); ev->ref == 0)
                    found.push_back(ev);
        return found;
    }

    ProbeMachine m;
};

TEST_F(StartStop, WithNothing)
{
    rounds([this](int) {
        start();
        stop();
    });
}

TEST_F(StartStop, WithInstancesThatAreDestroyed)
{
    m.tree.dir("w/sub/deeper");
    m.tree.dir("x/log");
    rounds([this](int) {
        start();
        for (int id = 0; id < 3; id++)
            ASSERT_EQ(id, fmon_create_instance(std::to_string(id).c_str()));
        live(1);
        for (int id = 0; id < 3; id++)
            ASSERT_EQ(0, fmon_destroy_instance(id));
        EXPECT_EQ(0u, fmon.inst_mask);
        stop();
    });
}

TEST_F(StartStop, WithEverythingAlive)
{
    m.tree.dir("w/sub/deeper");
    m.tree.dir("x/log");
    rounds([this](int round) {
        start();
        if (round == 0) {
            ASSERT_EQ(0, fmon_create_instance("stays"));
        }
        EXPECT_EQ(round > 0, fmon_peek_event(0) != nullptr);
        unlive(0);
        live(0);
        stop();
    });
    ASSERT_EQ(0, m.start());
    EXPECT_EQ(0, fmon_destroy_instance(0));
    EXPECT_EQ(0, fmon.event_count);
}

/* Nobody takes anything off in between: the watches of twenty rounds ago are still listed, once. */
TEST_F(StartStop, WithAnInstanceThatIsNeverLookedAt)
{
    const std::string dir = m.tree.dir("w");
    rounds([&](int round) {
        start();
        if (round == 0) {
            ASSERT_EQ(0, fmon_create_instance("stays"));
            ASSERT_EQ(0, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
            m.delivers(dir, IN_CREATE, "f");
            m.turn();
        }
        EXPECT_EQ(FMON_EEXIST, fmon_add_watch(0, dir.c_str(), FMON_CREATE, FMON_DIR, 0, 0));
        EXPECT_EQ(1, fmon.event_count);
        stop();
    });
    ASSERT_EQ(0, m.start());
    EXPECT_EQ(Strings{dir + "/f:create 9"}, m.events());
}

TEST_F(StartStop, InTurnsWithAndWithoutTheInotifyInstance)
{
    rounds([this](int round) {
        m.probes.behave(round % 2 ? "fail _kp_ins_crt" : "");
        ASSERT_EQ(0, m.start());
        get_inotify_event();
        EXPECT_EQ(round % 2 ? 0u : 1u, fmlnx.kp_global);
        stop();
    });
}

/* Descriptors that the monitor did not take into its array stay with the library, which here does nothing about them.
 */
TEST_F(StartStop, WithRefusedProbes)
{
    m.probes.behave("fail _kp_evt_reg");
    const auto round = [this](int) {
        ASSERT_EQ(0, m.start());
        EXPECT_GT(0, get_inotify_event());
        EXPECT_EQ(0u, fmlnx.kp_global);
        stop();
    };
    rounds(round, 2);
}

TEST_F(StartStop, WithMoreDescriptorsThanTheLibrarySaid)
{
    m.probes.behave("descriptors 10");
    const auto round = [this](int) {
        ASSERT_EQ(0, m.start());
        EXPECT_EQ(6, fmlnx.inotify_num); /* none is left for the others */
        stop();
    };
    rounds(round, 14);
}

/* As a whole, with its thread. */
TEST_F(StartStop, WithTheThread)
{
    m.fanotify.has_init = false; /* it would be ready all the time */
    rounds([this](int round) {
        testlib::set_thread_mode(testlib::ThreadMode::kStart);
        ASSERT_EQ(0, orx_fmon_init(0, nullptr));
        if (round == 0) {
            ASSERT_EQ(0, _orx_fmon_create_instance("stays", [](struct event *) -> int32_t { return 0; }));
        }
        ASSERT_EQ(0, _orx_fmon_global_watch(0, FMON_CREATE, 1));
        EXPECT_TRUE(m.probes.await_calls("evt_reg Ki", 1));
        testlib::Fault broken("select", 1, EBADF, 1000, testlib::ThreadScope::kAll);
        m.happen(1); /* wakes it */
        testlib::join_threads();
        EXPECT_EQ(FMON_STOPPED, fmon_shell.run_state);
        EXPECT_EQ(0, testlib::mutex_live());
    });
    EXPECT_EQ(0, fmon_init(10, 10, 1000));
    _orx_fmon_del_instance(0);
}

}  // namespace
