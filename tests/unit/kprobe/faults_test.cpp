/* Every call that may fail, at every place: what fails is reported, and nothing is left. */
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

#include "kprobe_instance_fixture.h"
#include "testlib/fault.h"

using namespace kprobe_fixture;
using testlib::Fault;
using testlib::KernelDouble;

namespace
{

/* What the monitor does with an instance. False: some step failed. */
bool use_instance(KernelDouble &kernel, const kprobe::Facts &facts)
{
    kprobe::Tracefs tracefs;
    std::string why;
    if (!tracefs.find(why))
        return false;
    kprobe::Instance instance(tracefs, facts, "orx_1_2_3_x");
    bool good = instance.open({0, 1}, {65536, 65536}) == 0;
    for (const auto &probe : testlib::file_probes(facts.is_64, "mnt==23"))
        good = good && instance.add(probe.record(), keep) == 0 && instance.enable(probe.name, true) == 0;
    good = good && instance.filter("Kc", "mnt==20||mnt==23") == 0;
    if (!good)
        return false;
    testlib::KernelObjects objects(&kernel.memory);
    const uint64_t super = objects.super_block(kDevice);
    kernel.hit({"security_inode_create", {0, objects.path(super, "/a"), 0}});
    instance.sweep(UINT64_MAX);
    return instance.parse(10) == 1;
}

}  // namespace

TEST(KprobeFaults, NothingIsLeftWhateverFails)
{
    const struct {
        const char *call;
        int error, at_least;
    } rows[] = {{"perf_event_open", EMFILE, 30},
                {"mmap", ENOMEM, 6},
                {"eventfd", EMFILE, 1},
                {"access", ENOENT, 1},
                {"read", EIO, 30}};
    KernelDouble kernel;
    kernel.default_files();
    const kprobe::Facts facts = kprobe_facts::amd64_6_1();
    const int before = open_descriptors();
    for (const auto &row : rows) {
        int failed = 0;
        const int runs = testlib::fail_each(row.call, row.error, [&](Fault &fault) {
            const bool good = use_instance(kernel, facts);
            failed += fault.hit() && !good;
            EXPECT_TRUE(good || fault.hit()) << row.call;
            EXPECT_TRUE(kernel.definitions().empty()) << row.call;
            EXPECT_EQ(0u, kernel.perf.open_events()) << row.call;
            EXPECT_EQ(before, open_descriptors()) << row.call;
        });
        EXPECT_GE(runs, row.at_least) << row.call;
        EXPECT_GT(failed, 0) << row.call;
        testlib::take_log();
    }
}

TEST(KprobeFaults, DefinitionsThatCannotBeWritten)
{
    for (const char *call : {"open", "write"}) {
        Fixture f;
        testlib::fail_each(call, EBUSY, [&](Fault &fault) {
            const int status = f.add("Kc");
            EXPECT_TRUE(fault.hit() || status == 0) << call;
            if (status < 0) {
                EXPECT_FALSE(testlib::take_log().empty()) << call;
                EXPECT_EQ(4u, f.kernel.perf.open_events()) << call;
            }
        });
        EXPECT_EQ(0, f.instance.enable("Kc", true));
        EXPECT_EQ(1, f.create("/a"));
        EXPECT_EQ(Paths{"/a"}, f.parse()) << call;
    }
}

/* Somebody else reads the probe when it is to go: it stays, and the next one of its name is another. */
TEST(KprobeFaults, ADefinitionThatStays)
{
    KernelDouble kernel;
    kernel.default_files();
    const kprobe::Facts facts = kprobe_facts::amd64_6_1();
    kprobe::Tracefs tracefs;
    std::string why;
    ASSERT_TRUE(tracefs.find(why));
    {
        kprobe::Instance instance(tracefs, facts, "orx_1_2_3_x");
        ASSERT_EQ(0, instance.open({0}, {65536, 65536}));
        ASSERT_EQ(0, instance.add(testlib::file_probe(true, "Ku").record(), keep));
        testlib::take_log();
        {
            const Fault fault("write", 1, EBUSY);
            EXPECT_EQ(0, instance.add(testlib::file_probe(true, "Ku").record(), keep));
        }
        EXPECT_TRUE(testlib::has_line(testlib::take_log(), "2 probe Ku stays in the kernel: Device or resource busy"));
        EXPECT_EQ(2u, kernel.definitions().size());
    }
    EXPECT_EQ(1u, kernel.definitions().size());
}

TEST(KprobeFaults, FiltersThatCannotBeOpened)
{
    Fixture f;
    ASSERT_EQ(0, f.add("Kc", "mnt==23"));
    f.instance.enable("Kc", true);
    for (const char *call : {"perf_event_open", "ioctl"}) {
        int failed = 0;
        testlib::fail_each(call, ENOMEM, [&](Fault &fault) {
            const int status = f.instance.filter("Kc", "mnt==20");
            failed += status < 0;
            EXPECT_TRUE(fault.hit() || status == 0) << call;
            f.settle();
            EXPECT_EQ(8u, f.kernel.perf.open_events()) << call;
            f.instance.enable("Kc", true);
        });
        EXPECT_GE(failed, 4) << call;
        EXPECT_EQ(1, f.create("/a"));
        EXPECT_EQ(Paths{"/a"}, f.parse());
    }
}

TEST(KprobeFaults, DescriptorsThatCannotBeCopied)
{
    Fixture f;
    const int before = open_descriptors();
    const Fault fault("fcntl", 1, EMFILE);
    EXPECT_FALSE(f.instance.copy_descriptor());
    EXPECT_EQ(before, open_descriptors());
}

TEST(KprobeFaults, Marks)
{
    Fixture f;
    f.kernel.file("/proc/self/mountinfo", "23 1 0:20 / /tmp rw - tmpfs tmpfs rw\n");
    ASSERT_EQ(0, f.add("Km", "mnt==23"));
    testlib::take_log();
    const int before = open_descriptors();
    {
        const Fault fault("inotify_add_watch", 1, ENOSPC);
        EXPECT_EQ(0, f.instance.enable("Km", true));
        EXPECT_TRUE(testlib::has_line(testlib::take_log(), "closes on mount /tmp cannot be seen: No space left"));
    }
    EXPECT_EQ(before + 1, open_descriptors());
    EXPECT_EQ(0, f.instance.enable("Km", false));
    EXPECT_EQ(before, open_descriptors());
    const Fault fault("inotify_init1", 1, EMFILE);
    EXPECT_EQ(0, f.instance.enable("Km", true));
    EXPECT_TRUE(testlib::has_line(testlib::take_log(), "cannot be seen"));
}
