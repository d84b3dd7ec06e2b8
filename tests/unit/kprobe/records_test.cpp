/* Records that wait in an instance: their order, their descriptors, and what becomes of each. */
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "kprobe_instance_fixture.h"

using namespace kprobe_fixture;

namespace
{

Fixture *current;

}  // namespace

TEST(KprobeRecords, TheOldestOfAllCpusFirst)
{
    Fixture f(true, {1 << 20, 1 << 20}, {0, 1, 2, 3});
    f.add_on("Kc");
    std::mt19937 random(3);
    Paths wanted;
    uint64_t time = 1000;
    for (int i = 0; i < 400; i++) {
        wanted.push_back("/f" + std::to_string(i));
        ASSERT_EQ(1, f.create(wanted.back(), time += 1 + random() % 50, static_cast<int>(random() % 4)));
    }
    f.sweep();
    Paths got;
    while (f.instance.parse(1 + random() % 90) > 0)
        for (const std::string &path : paths())
            got.push_back(path);
    EXPECT_EQ(wanted, got);
}

TEST(KprobeRecords, WhatIsNotYetSafeIsHeldBack)
{
    Fixture f;
    f.add_on("Kc");
    f.create("/later", 300, 0);
    f.create("/first", 100, 1);
    f.create("/second", 200, 1);
    EXPECT_TRUE(f.instance.sweep(99));
    EXPECT_FALSE(f.instance.is_waiting());
    EXPECT_EQ(0, f.instance.parse(10));
    EXPECT_TRUE(f.instance.sweep(150)) << "more is held back";
    EXPECT_TRUE(f.instance.is_waiting());
    EXPECT_EQ(1, f.instance.parse(10));
    EXPECT_EQ(Paths{"/first"}, paths());
    EXPECT_FALSE(f.instance.is_waiting());
    f.create("/third", 250, 1); /* another CPU was late */
    f.instance.sweep(300);
    EXPECT_EQ(3, f.instance.parse(10));
    EXPECT_EQ((Paths{"/second", "/third", "/later"}), paths());
    EXPECT_FALSE(f.instance.sweep(1)) << "nothing came and nothing waits";
}

TEST(KprobeRecords, TheDescriptorIsReadableAsLongAsARecordMayBeTaken)
{
    Fixture f;
    f.add_on("Kc");
    const kprobe::Fd copy = f.instance.copy_descriptor();
    const int fd = copy.get();
    EXPECT_GE(fd, 3);
    EXPECT_FALSE(is_readable(fd));
    f.create("/a", 100, 1);
    f.instance.sweep(50);
    EXPECT_FALSE(is_readable(fd)) << "not safe yet";
    f.instance.sweep(100);
    EXPECT_TRUE(is_readable(fd));
    EXPECT_TRUE(is_readable(fd)) << "however often it is asked";
    f.create("/b", 110, 1);
    f.create("/c", 120, 0);
    f.instance.sweep(120);
    f.instance.parse(2);
    EXPECT_TRUE(is_readable(fd));
    f.instance.parse(2);
    EXPECT_FALSE(is_readable(fd));
    f.create("/d", 130, 0);
    f.instance.sweep(130);
    EXPECT_TRUE(is_readable(fd));
    f.instance.clean();
    EXPECT_FALSE(is_readable(fd));
}

/* ---- what becomes of each hit ---- */

TEST(KprobeRecords, LostInTheRing)
{
    Fixture f(true, {8192, 1 << 18}, {0});
    f.add_on("Kc");
    for (int i = 0; i < 100; i++)
        f.create("/x");
    const size_t kept = f.parse().size();
    EXPECT_LT(kept, 20u);
    EXPECT_EQ(0u, f.losses().ring) << "the kernel reports them with the next record";
    f.create("/y");
    EXPECT_EQ(Paths{"/y"}, f.parse());
    EXPECT_EQ(100 - kept, f.losses().ring);
    EXPECT_EQ(kept + 1, f.losses().delivered);
}

TEST(KprobeRecords, LostInTheQueue)
{
    Fixture f(true, {1 << 18, 4096}, {0});
    f.add_on("Kc");
    for (int i = 0; i < 100; i++)
        f.create("/" + std::to_string(i));
    const Paths got = f.parse();
    ASSERT_EQ(9u, got.size()); /* 4096 bytes */
    EXPECT_EQ("/0", got.front()) << "the oldest are kept";
    EXPECT_EQ("/8", got.back());
    EXPECT_EQ(91u, f.losses().queue);
    EXPECT_EQ(9u, f.losses().delivered);
}

TEST(KprobeRecords, ThrownAway)
{
    Fixture f;
    f.add_on("Kc");
    for (int i = 0; i < 5; i++)
        f.create("/x", 0, i % 2);
    f.sweep();
    f.create("/in-the-ring");
    f.instance.clean();
    EXPECT_EQ(Paths{}, f.parse());
    EXPECT_EQ(6u, f.losses().cleaned);
    EXPECT_EQ(0u, f.losses().delivered);
}

TEST(KprobeRecords, MissedByTheKernel)
{
    Fixture f;
    f.add_on("Kc");
    const std::string event = f.kernel.definitions()[0].substr(strlen("p:orx_1_2_3_clt_file/"));
    f.kernel.file(f.kernel.tracing("kprobe_profile"), "  " + event.substr(0, event.find(' ')) + " 100 7\n  Kc_1 9 9\n");
    EXPECT_EQ(7u, f.losses().missed);
}

/* The end of a watch has no name that could be fetched. */
TEST(KprobeRecords, AFailedFetchIsNoMiss)
{
    Fixture f;
    ASSERT_EQ(0, f.add(testlib::inotify_probe_of(true, 6, 1)));
    f.kernel.faults_are_misses = true;
    const auto end_a_watch = [&] {
        f.kernel.hit({"inotify_handle_inode_event",
                      {f.objects.mark(f.objects.inode(5, 0), 1), IN_IGNORED, 0, 0, /* its name */ 0, 0}});
    };
    end_a_watch();
    EXPECT_EQ(1u, f.losses().missed) << "a kernel that was not looked at";
    f.facts.faults_are_misses = true;
    EXPECT_EQ(0u, f.losses().missed);
    f.add_on("Kc");
    end_a_watch();
    f.create("/a");
    EXPECT_EQ(Paths{"/a"}, f.parse());
    EXPECT_EQ(0u, f.losses().missed);
    const std::string event = f.kernel.definitions()[1].substr(strlen("p:orx_1_2_3_clt_file/"));
    f.kernel.file(f.kernel.tracing("kprobe_profile"), event.substr(0, event.find(' ')) + " 100 7\n");
    EXPECT_EQ(7u, f.losses().missed) << "of files there is always something to fetch";
}

TEST(KprobeRecords, EveryHitIsAccountedFor)
{
    Fixture f(true, {16384, 8192});
    f.add_on("Kc");
    std::mt19937 random(9);
    const uint64_t known = f.super, unknown = f.objects.super_block(99);
    size_t hits = 0, handed = 0;
    for (int round = 0; round < 150; round++) {
        for (unsigned i = random() % 120; i > 0; i--) {
            f.super = random() % 10 ? known : unknown;
            hits += static_cast<size_t>(f.create("/x", 0, static_cast<int>(random() % 2)));
        }
        if (random() % 3 == 0)
            f.sweep();
        if (random() % 40 == 0)
            f.instance.clean();
        handed += f.parse(random() % 30).size();
    }
    for (const int cpu : {0, 1}) { /* so that the kernel reports the last losses */
        f.sweep();
        hits += static_cast<size_t>(f.create("/last", 0, cpu));
    }
    handed += f.parse(100000).size();
    const kp_losses losses = f.losses();
    EXPECT_EQ(handed, losses.delivered);
    EXPECT_EQ(hits, losses.delivered + losses.ring + losses.queue + losses.cleaned + losses.unreadable);
    EXPECT_GT(losses.ring, 0u);
    EXPECT_GT(losses.queue, 0u);
    EXPECT_GT(losses.cleaned, 0u);
    EXPECT_GT(losses.unreadable, 0u);
}

TEST(KprobeRecords, HitsOfAProbeThatHasGone)
{
    Fixture f;
    f.add_on("Kc");
    f.create("/old");
    ASSERT_EQ(0, f.add({"do_exit", "Kc", "a=%di", ""})); /* another probe of that name */
    EXPECT_EQ(Paths{"/old"}, f.parse()) << "as its own probe fetched it";
    ASSERT_EQ(0, f.instance.enable("Kc", true));
    f.kernel.hit({"do_exit", {0x1122334455667788}});
    f.sweep();
    f.instance.parse(10);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(8u, received[0].bytes.size());
    EXPECT_EQ(0x55667788u, received[0].word(0));
}

/* ---- callbacks ---- */

TEST(KprobeRecords, CallbacksMayCallTheLibrary)
{
    Fixture f;
    current = &f;
    static int answers[] = {-1, -1, -1, -1};
    const kp_record_cb callback = [](uint32_t pid, void *record, uint32_t size) {
        answers[0] = current->instance.parse(10); /* not again */
        answers[1] = current->instance.filter("Kc", "mnt==23");
        answers[2] = current->instance.enable("Kc", false);
        answers[3] = static_cast<int>(current->instance.losses().cleaned);
        current->instance.clean();
        keep(pid, record, size);
    };
    ASSERT_EQ(0, f.instance.add(testlib::file_probe(true, "Kc").record(), callback));
    ASSERT_EQ(0, f.instance.enable("Kc", true));
    f.create("/a", 100);
    f.create("/b", 200);
    f.instance.sweep(200);
    EXPECT_EQ(2, f.instance.parse(2)) << "a batch is copied before the first callback";
    EXPECT_EQ((Paths{"/a", "/b"}), paths());
    EXPECT_EQ(0, answers[0]);
    EXPECT_EQ(0, answers[1]);
    EXPECT_EQ(0, answers[2]);
    EXPECT_EQ(0, answers[3]);
}

TEST(KprobeRecords, LetGoInAFork)
{
    Fixture f;
    f.add_on("Kc");
    f.create("/a");
    f.instance.lock_for_fork();
    f.instance.abandon();
    f.instance.unlock_for_fork();
    EXPECT_EQ(0u, f.kernel.perf.open_events());
    EXPECT_EQ(1u, f.kernel.definitions().size()) << "they are the parent's";
    EXPECT_FALSE(f.sweep());
    EXPECT_EQ(Paths{}, f.parse());
}
