/* The library in its process: turns of the monitor, descriptors, memory, processors, many threads. */
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <thread>

#include "kprobe_library_fixture.h"

using namespace kprobe_fixture;

TEST(KprobeLibraryTurns, MoreProcessorsThanThereAreDescriptorsFor)
{
    {
        const DescriptorLimit limit(1000);
        Whole w;
        w.kernel.file("/sys/devices/system/cpu/online", "0-63\n");
        EXPECT_FALSE(w.works());
        const std::string why = w.probes.why_not();
        EXPECT_EQ(0u,
                  why.find("for 64 processors they take 1296 descriptors, of which the process may have 1000 with "))
            << why;
        EXPECT_NE(std::string::npos, why.find("(ulimit -n)"));
    }
    const DescriptorLimit limit(1000);
    Whole w;
    w.kernel.file("/sys/devices/system/cpu/online", "0-39\n");
    EXPECT_TRUE(w.works()) << w.probes.why_not();
}

TEST(KprobeLibraryTurns, RingsHaveACeilingWhateverProcessorsThereAre)
{
    const DescriptorLimit limit(4096);
    for (const int cpus : {4, 32, 128}) {
        Whole w;
        w.kernel.file("/sys/devices/system/cpu/online", "0-" + std::to_string(cpus - 1) + "\n");
        Source file, other;
        ASSERT_TRUE(file.open(w.probes, "clt_file"));
        ASSERT_TRUE(other.open(w.probes, "other"));
        size_t sum = 0;
        for (const size_t size : w.kernel.perf.ring_sizes())
            sum += size;
        EXPECT_LE(sum, size_t{64} << 20) << cpus;
        EXPECT_EQ(cpus == 4 ? size_t{8} << 20 : size_t{64} << 20, sum);
    }
}

/* Whatever it sleeps on, the thread looks when an instance comes. */
TEST(KprobeLibraryTurns, ProcessorsThatComeAreHeard)
{
    Whole w;
    w.kernel.file("/sys/devices/system/cpu/online", "0\n");
    Source file, other;
    ASSERT_TRUE(file.open(w.probes, "clt_file"));
    w.add(file.handle, "Kc");
    EXPECT_EQ(0, w.create("/deaf", 1));
    w.kernel.file("/sys/devices/system/cpu/online", "0-1\n");
    ASSERT_TRUE(other.open(w.probes, "other"));
    int heard = 0;
    for (int i = 0; i < 100 && heard == 0; i++) {
        EXPECT_TRUE(testlib::await_turn());
        heard = w.create("/heard", 1);
    }
    EXPECT_EQ(1, heard);
    EXPECT_EQ(Paths{"/heard"}, w.wait_for(file, 1));
}

/* The most that a turn may take before the monitor throws away what waits. */
constexpr int kTurn = 100;

TEST(KprobeLibraryTurns, NoTurnTakesMoreThanTheMonitorReads)
{
    constexpr int kCpus = 128;
    const DescriptorLimit limit(4096);
    Whole w;
    w.kernel.file("/sys/devices/system/cpu/online", "0-" + std::to_string(kCpus - 1) + "\n");
    const Environment small("FMON_PROBE_RING_KB", "64");
    Source source;
    ASSERT_TRUE(source.open(w.probes, "clt_file"));
    w.add(source.handle, "Kc");
    size_t hits = 0;
    for (int i = 0; i < 5 * kCpus; i++)
        hits += static_cast<size_t>(w.create("/x", i % kCpus));
    ASSERT_EQ(5u * kCpus, hits);
    EXPECT_TRUE(testlib::await_sleep());
    size_t got = 0;
    for (int turn = 0; turn < 100 && got < hits; turn++) {
        const int in_turn = is_readable(source.fds[0]) ? w.probes.parse(0, source.handle) : 0;
        EXPECT_GT(in_turn, 0) << turn;
        EXPECT_LE(in_turn, kTurn) << turn;
        got += static_cast<size_t>(in_turn);
    }
    EXPECT_EQ(hits, got);
    EXPECT_FALSE(is_readable(source.fds[0]));
    received.clear();
}

/* The monitor visits its inotify source first. Who has taken all in a turn gets nothing more of it. */
TEST(KprobeLibraryTurns, ATurnIsOneBudgetForAllSources)
{
    Whole w;
    const kprobe::Fd own(inotify_init1(IN_CLOEXEC));
    Source inotify, file;
    ASSERT_TRUE(inotify.open(w.probes, "clt_inotify"));
    ASSERT_TRUE(file.open(w.probes, "clt_file"));
    w.add(file.handle, "Kc");
    const auto instance = w.probes.find(inotify.handle);
    ASSERT_EQ(0, instance->add(testlib::inotify_probe_of(true, 6, 1).record(), keep));
    ASSERT_EQ(0, instance->enable("Ki", true));
    const uint64_t mark = w.objects.mark(w.objects.inode(7, 040755), 7, w.kernel.group_of(own.get()));
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(1, w.create("/x", i % 2));
        ASSERT_EQ(1, w.kernel.hit({"inotify_handle_inode_event", {mark, IN_OPEN, 0, 0, 0, 0}, 1, 1, i % 2}));
    }
    EXPECT_TRUE(testlib::await_sleep());
    int got = 0, from_file = 0;
    for (int turn = 0; turn < 100 && got < 600; turn++) {
        int in_turn = w.probes.parse(0, inotify.handle);
        const int more = w.probes.parse(0, file.handle);
        from_file += more;
        in_turn += more;
        EXPECT_GT(in_turn, 0) << turn;
        EXPECT_LE(in_turn, kTurn) << turn;
        got += in_turn;
        if (turn == 1) {
            EXPECT_GT(from_file, 50) << "none keeps the other waiting";
        }
    }
    EXPECT_EQ(600, got);
    received.clear();
}

TEST(KprobeLibraryTurns, HitsFromManyThreadsWhileItIsUsed)
{
    Whole w;
    Source source;
    ASSERT_TRUE(source.open(w.probes, "clt_file"));
    w.add(source.handle, "Kc");
    const uint64_t entry = w.objects.path(w.super, "/same");
    constexpr uint32_t kRounds = 60, kHits = 20;
    std::atomic<size_t> hits = 0;
    std::barrier<> round(3);
    std::vector<std::thread> threads;
    for (const int cpu : {0, 1})
        threads.emplace_back([&, cpu] {
            for (uint32_t tid = 0; tid < kRounds * kHits; tid++) { /* equal ones of a thread may be reported as one */
                if (tid % kHits == 0)
                    round.arrive_and_wait();
                hits += w.kernel.hit({"security_inode_create", {0, entry, 0}, 1, tid + 1, cpu}) > 0 ? 1 : 0;
            }
        });
    const auto instance = w.probes.find(source.handle);
    for (uint32_t i = 0; i < kRounds; i++) {
        round.arrive_and_wait();
        w.probes.parse(0, source.handle);
        if (i % 10 == 3) {
            EXPECT_EQ(0, instance->filter("Kc", i % 20 == 3 ? "mnt==23" : ""));
        }
        if (i % 10 == 7) {
            EXPECT_EQ(0, instance->enable("Kc", false));
            EXPECT_EQ(0, instance->enable("Kc", true));
        }
        EXPECT_TRUE(testlib::await_turn());
    }
    for (std::thread &thread : threads)
        thread.join();
    w.wait_for(source, SIZE_MAX); /* until nothing comes */
    const kp_losses losses = instance->losses();
    EXPECT_GT(losses.delivered, 100u);
    EXPECT_EQ(hits, losses.delivered + losses.ring + losses.queue);
}
