/* Processors that go offline, come back, or come for the first time. */
#include <gtest/gtest.h>

#include "hotplug.h"
#include "kprobe_instance_fixture.h"
#include "testlib/fault.h"

using namespace kprobe_fixture;
using testlib::Fault;

TEST(KprobeCpus, MessagesOfTheKernel)
{
    using kprobe::parse_cpu_message;
    EXPECT_EQ(3, parse_cpu_message("online@/devices/system/cpu/cpu3"));
    EXPECT_EQ(127, parse_cpu_message("offline@/devices/system/cpu/cpu127"));
    EXPECT_EQ(1, parse_cpu_message(std::string_view("online@/devices/system/cpu/cpu1\0ACTION=online", 45)));
    for (const char *other : {"", "online", "online@", "add@/devices/system/cpu/cpu3", "online@/devices/system/cpu/cpu",
                              "online@/devices/system/cpu/cpu3/x", "xonline@/devices/system/cpu/cpu3",
                              "online@/devices/system/cpu/cpux", "libudev", "offline@/devices/system/memory/memory3"})
        EXPECT_EQ(-1, parse_cpu_message(other)) << other;
}

TEST(KprobeCpus, OneThatIsOfflineMakesNothingFail)
{
    Fixture f;
    f.add_on("Kc");
    f.kernel.perf.go_offline(1);
    EXPECT_EQ(0, f.instance.filter("Kc", "mnt==23"));
    EXPECT_EQ(0, f.add("Ku"));
    EXPECT_EQ(0, f.instance.enable("Ku", true));
    f.settle();
    EXPECT_EQ(1, f.create("/a"));
    EXPECT_EQ(Paths{"/a"}, f.parse());
}

TEST(KprobeCpus, OneThatWentSinceTheyWereCounted)
{
    testlib::KernelDouble kernel;
    kernel.default_files();
    kernel.perf.go_offline(1);
    kprobe::Tracefs tracefs;
    const kprobe::Facts facts = kprobe_facts::amd64_6_1();
    kprobe::Instance instance(tracefs, facts, "orx_1_2_3_x");
    EXPECT_EQ(0, instance.open({0, 1}, {1 << 16, 1 << 18}));
    EXPECT_EQ(1u, instance.wake_ups().list().size());
}

TEST(KprobeCpus, OneThatComesBackIsHeard)
{
    Fixture f;
    f.add_on("Kc");
    ASSERT_EQ(1, f.create("/before", 0, 1));
    const size_t events = f.kernel.perf.open_events();
    f.kernel.perf.go_offline(1);
    ASSERT_TRUE(f.instance.follow({0}, {}));
    EXPECT_LT(f.kernel.perf.open_events(), events) << "what is of no use costs nothing";
    EXPECT_EQ(Paths{"/before"}, f.parse());
    EXPECT_EQ(1, f.create("/meanwhile", 0, 0));
    f.kernel.perf.come_online(1);
    ASSERT_TRUE(f.instance.follow({0, 1}, {}));
    EXPECT_EQ(events, f.kernel.perf.open_events());
    EXPECT_EQ(1, f.create("/after", 0, 1));
    EXPECT_EQ((Paths{"/meanwhile", "/after"}), f.parse());
}

TEST(KprobeCpus, OneThatWentAndCameBeforeAnybodyLooked)
{
    Fixture f;
    f.add_on("Kc");
    f.kernel.perf.go_offline(1);
    f.kernel.perf.come_online(1);
    ASSERT_TRUE(f.instance.follow({0, 1}, {}));
    EXPECT_EQ(0, f.create("/deaf", 0, 1)) << "its events have gone";
    ASSERT_TRUE(f.instance.follow({0, 1}, {1}));
    EXPECT_EQ(1, f.create("/heard", 0, 1));
    EXPECT_EQ(Paths{"/heard"}, f.parse());
}

TEST(KprobeCpus, OneThatComesIsAsTheOthersAre)
{
    Fixture f(true, {1 << 16, 1 << 18}, {0});
    f.add_on("Kc");
    ASSERT_EQ(0, f.add("Ku"));
    ASSERT_EQ(0, f.instance.filter("Kc", "mnt==23"));
    f.settle();
    ASSERT_TRUE(f.instance.follow({0, 5}, {}));
    const auto filters = f.kernel.perf.filters(f.kernel.id_of("Kc"));
    ASSERT_EQ(2u, filters.size());
    EXPECT_EQ(filters[0], filters[1]);
    EXPECT_FALSE(f.kernel.perf.enabled(f.kernel.id_of("Ku")));
    EXPECT_EQ(1, f.create("/a", 100, 5));
    EXPECT_EQ(1, f.create("/b", 50, 0));
    EXPECT_EQ((Paths{"/b", "/a"}), f.parse());
    ASSERT_EQ(0, f.instance.enable("Kc", false));
    EXPECT_EQ(0, f.create("/c", 0, 5));
}

TEST(KprobeCpus, OneForWhichThereAreNoDescriptors)
{
    Fixture f(true, {1 << 16, 1 << 18}, {0});
    f.add_on("Kc");
    const size_t events = f.kernel.perf.open_events();
    for (int nth = 1; nth <= 4; nth++) { /* ring, wake_up, and the probe's events in both */
        testlib::take_log();
        const Fault fault("perf_event_open", nth, EMFILE);
        ASSERT_TRUE(f.instance.follow({0, 1}, {}));
        EXPECT_TRUE(testlib::has_line(testlib::take_log(), "processor 1 came, and what happens there cannot be seen"));
        EXPECT_EQ(events, f.kernel.perf.open_events()) << nth;
    }
    ASSERT_TRUE(f.instance.follow({0, 1}, {}));
    EXPECT_EQ(1, f.create("/heard", 0, 1)) << "when there are some again";
}

TEST(KprobeCpus, RingsOfThoseThatComeKeepToWhatIsLeft)
{
    Fixture f(true, {1 << 17, 1 << 18, (1 << 18) + (1 << 16)}, {0, 1});
    ASSERT_TRUE(f.instance.follow({0, 1, 2, 3}, {}));
    f.add_on("Kc");
    for (int cpu = 0; cpu < 4; cpu++)
        EXPECT_EQ(1, f.create("/x", 0, cpu)) << cpu;
    EXPECT_EQ(4u, f.parse().size());
    EXPECT_EQ((std::vector<size_t>{1 << 16, 1 << 16, 1 << 17, 1 << 17}), f.kernel.perf.ring_sizes());
}
