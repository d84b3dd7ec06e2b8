/* Probes of an instance: from a definition to the records that are handed on. */
#include "instance.h"

#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <sys/inotify.h>

#include <cerrno>

#include "kprobe_instance_fixture.h"

using namespace kprobe_fixture;
using testlib::has_line;
using testlib::take_log;

namespace
{

const std::string kLong = std::string(60, 'n');

}  // namespace

class KprobeInstance : public ::testing::TestWithParam<bool>
{
};
INSTANTIATE_TEST_SUITE_P(words, KprobeInstance, ::testing::Values(true, false),
                         [](const auto &param) { return param.param ? "of_64_bits" : "of_32_bits"; });

TEST_P(KprobeInstance, PathsOfEveryDepth)
{
    Fixture f(GetParam());
    f.add_on("Kc");
    std::string path;
    for (int depth = 0; depth <= 10; depth++) {
        EXPECT_EQ(1, f.create(path + "/leaf"));
        EXPECT_EQ(Paths{path + "/leaf"}, f.parse()) << depth;
        path += "/dir" + std::to_string(depth);
    }
    f.create(path + "/leaf"); /* the root is the twelfth: for the monitor to find out */
    EXPECT_EQ("no root:", f.parse()[0].substr(0, 8));
}

TEST_P(KprobeInstance, WhatARecordSays)
{
    Fixture f(GetParam());
    f.add_on("Kc");
    f.create("/home/file", 0, 1, 4711);
    f.sweep();
    EXPECT_EQ(1, f.instance.parse(10));
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(4711u, received[0].pid);
    EXPECT_EQ(420u, received[0].bytes.size());
    EXPECT_EQ(23u, received[0].mount());
    EXPECT_EQ(0, f.instance.parse(10));
}

TEST_P(KprobeInstance, LongNames)
{
    Fixture f(GetParam());
    f.add_on("Kc");
    f.create("/a/" + kLong + "/leaf");
    EXPECT_EQ(Paths{"/a/" + kLong.substr(0, 32) + "/leaf"}, f.parse()) << "cut, as the record is";
    f.create("/" + kLong + "123456789");
    EXPECT_EQ(Paths{"/" + (kLong + "123456789").substr(0, 64)}, f.parse());
    /* so far out that only the short name beside the entry can be fetched, which is empty then */
    f.create("/" + kLong + "/9/8/7/6/5/4/3/2/1/leaf");
    EXPECT_EQ(Paths{}, f.parse());
    EXPECT_EQ(1u, f.losses().unreadable);
    EXPECT_EQ(2u, f.losses().delivered);
}

TEST_P(KprobeInstance, CloseRecords)
{
    Fixture f(GetParam());
    f.add_on("Km");
    const uint64_t entry = f.objects.path(f.super, "/d/f", f.objects.inode(5, 0100644));
    EXPECT_EQ(1, f.kernel.hit({"__fsnotify_parent", {entry, 8, 0}}));
    f.sweep();
    f.instance.parse(10);
    ASSERT_EQ(1u, received.size());
    ASSERT_EQ(426u, received[0].bytes.size());
    EXPECT_EQ(8u, received[0].word(420));
    EXPECT_EQ(0100644u, received[0].bytes[424] | received[0].bytes[425] << 8);
    EXPECT_EQ(Paths{"/d/f"}, paths());
}

TEST_P(KprobeInstance, InotifyRecords)
{
    Fixture f(GetParam());
    const kprobe::Fd own(inotify_init1(IN_CLOEXEC));
    ASSERT_EQ(0, f.add(testlib::inotify_probe_of(GetParam(), 6, 1)));
    ASSERT_EQ(0, f.instance.enable("Ki", true));
    const uint64_t mark = f.objects.mark(f.objects.inode(0x12345, 040755), 7, f.kernel.group_of(own.get()));
    const uint64_t longest = f.objects.qstr(std::string(200, 'x'));
    for (const uint64_t name : {f.objects.qstr("new"), uint64_t{0}, longest})
        f.kernel.hit({"inotify_handle_inode_event", {mark, 0x08000100, 0, 0, name, 0}});
    f.sweep();
    EXPECT_EQ(3, f.instance.parse(10));
    ASSERT_EQ(3u, received.size());
    for (const Received &record : received) {
        ASSERT_EQ(144u, record.bytes.size());
        EXPECT_EQ(0x12345u, record.word(0));
        EXPECT_EQ(0u, record.word(4));
        EXPECT_EQ(7u, record.word(8));
        EXPECT_EQ(0x100u, record.word(12));
    }
    EXPECT_EQ("new", received[0].text(16, 128));
    EXPECT_EQ("", received[1].text(16, 128)) << "what the fetch left is the name before";
    EXPECT_EQ(std::string(128, 'x'), received[2].text(16, 128));
}

/* Of the threads that the filter leaves out: the ends of watched files and of their watches, as nobody's doing. */
TEST_P(KprobeInstance, InotifyRecordsOfTheMonitorItself)
{
    Fixture f(GetParam());
    kp_probe_def def;
    const testlib::ModuleProbe probe =
        testlib::inotify_probe_of(GetParam(), 6, 1, "common_pid!=500&&common_pid!=501&&w!=0");
    def = probe.record();
    def.c0 = '1'; /* never switched on by anybody */
    const kprobe::Fd own(inotify_init1(IN_CLOEXEC));
    ASSERT_EQ(0, f.instance.add(def, keep));
    const uint64_t mark = f.objects.mark(f.objects.inode(0x12345, 040755), 7, f.kernel.group_of(own.get()));
    for (const auto &[mask, tid] : std::vector<std::pair<uint64_t, uint32_t>>{
             {IN_CREATE, 500}, {IN_IGNORED, 501}, {IN_DELETE_SELF, 500}, {IN_IGNORED, 500}, {IN_CREATE, 499}})
        f.kernel.hit({"inotify_handle_inode_event", {mark, mask, 0, 0, 0, 0}, 498, tid});
    f.sweep();
    f.instance.parse(10);
    std::vector<std::pair<uint32_t, uint32_t>> reported;
    for (const Received &record : received)
        reported.emplace_back(record.word(12), record.pid);
    EXPECT_EQ((decltype(reported){{IN_DELETE_SELF, 0}, {IN_IGNORED, 0}, {IN_CREATE, 498}}), reported);
    const kp_losses losses = f.losses();
    EXPECT_EQ(3u, losses.delivered);
    EXPECT_EQ(0u, losses.unreadable) << "what is left out is no loss";
}

TEST_P(KprobeInstance, BothSidesOfARenameInOrder)
{
    Fixture f(GetParam());
    f.add_on("Krf");
    f.add_on("Krt");
    const uint64_t from = f.objects.path(f.super, "/from/a"), to = f.objects.path(f.super, "/to/b");
    f.kernel.hit({"security_inode_rename", {0, from, 0, to}});
    f.kernel.hit({"d_move", {from, to}});
    EXPECT_EQ((Paths{"/from/a", "/to/b"}), f.parse());
}

/* ---- definitions ---- */

TEST(KprobeInstanceProbes, Defined)
{
    Fixture f;
    for (const auto &probe : testlib::file_probes(true, "mnt==23"))
        EXPECT_EQ(0, f.add(probe)) << probe.name;
    EXPECT_EQ(6u, f.kernel.definitions().size());
    for (const char *name : {"Kc", "Ku", "Km", "Krf", "Krt", "Kl"}) {
        EXPECT_EQ((Paths{"mnt==20", "mnt==20"}), f.kernel.perf.filters(f.kernel.id_of(name))) << name;
        EXPECT_FALSE(f.kernel.perf.enabled(f.kernel.id_of(name))) << name;
    }
    for (const std::string &line : take_log())
        EXPECT_EQ('3', line[0]) << line;
    {
        const kprobe::Instance none(f.tracefs, f.facts, "orx_1_2_4_x");
    }
    EXPECT_EQ(6u, f.kernel.definitions().size()) << "each deletes its own";
}

TEST(KprobeInstanceProbes, AnEndThatLeavesNothing)
{
    testlib::KernelDouble kernel;
    kernel.default_files();
    kprobe::Tracefs tracefs;
    std::string why;
    ASSERT_TRUE(tracefs.find(why));
    const kprobe::Facts facts = kprobe_facts::amd64_6_1();
    {
        kprobe::Instance instance(tracefs, facts, "orx_1_2_3_x");
        ASSERT_EQ(0, instance.open({0, 1}, {65536, 65536}));
        for (const auto &probe : testlib::file_probes(true))
            ASSERT_EQ(0, instance.add(probe.record(), keep));
        EXPECT_EQ(6u, kernel.definitions().size());
        EXPECT_EQ(4u + 6 * 4, kernel.perf.open_events());
    }
    EXPECT_TRUE(kernel.definitions().empty());
    EXPECT_EQ(0u, kernel.perf.open_events());
}

TEST(KprobeInstanceProbes, Refused)
{
    Fixture f;
    f.kernel.refuse("security_inode_unlink", "Invalid probed address or symbol");
    EXPECT_GT(0, f.add("Ku"));
    EXPECT_TRUE(has_line(take_log(), "1 probe Ku at security_inode_unlink refused: Invalid probed address or symbol"));
    EXPECT_GT(0, f.add({"vfs_link", "K", "a=%di b", ""}));
    EXPECT_TRUE(has_line(take_log(), "cannot be understood"));
    EXPECT_GT(0, f.add({"vfs_link", "K", "a=%di:string", ""}));
    EXPECT_TRUE(has_line(take_log(), "probe K cannot be placed: a field of type string"));
    EXPECT_GT(0, f.add({"vfs_link", "K", "a=+0(" + std::string(60, '9') + "(%di))", ""}));
    EXPECT_TRUE(has_line(take_log(), "refused: Argument expression is too long"));
    EXPECT_GT(0, f.instance.add(testlib::file_probe(true, "Kc").record(), nullptr));
    EXPECT_TRUE(f.kernel.definitions().empty());
    EXPECT_EQ(4u, f.kernel.perf.open_events());
    EXPECT_EQ(0, f.add("Kc"));
}

TEST(KprobeInstanceProbes, ANameGivenAgain)
{
    Fixture f;
    f.add_on("Kc");
    f.create("/old");
    ASSERT_EQ(0, f.add("Kc"));
    EXPECT_EQ(1u, f.kernel.definitions().size());
    EXPECT_EQ(0, f.create("/off"));
    ASSERT_EQ(0, f.instance.enable("Kc", true));
    EXPECT_EQ(1, f.create("/new"));
    EXPECT_EQ((Paths{"/old", "/new"}), f.parse());
}

TEST(KprobeInstanceProbes, Switched)
{
    Fixture f;
    f.add_on("Kc");
    EXPECT_EQ(0, f.instance.enable("Kc", false));
    EXPECT_EQ(0, f.create("/a"));
    EXPECT_EQ(0, f.instance.enable("Kc", true));
    EXPECT_EQ(1, f.create("/b"));
    EXPECT_EQ(Paths{"/b"}, f.parse());
    for (const char *name : {"", "K", "Kcc", "kc", "Ku"}) {
        EXPECT_EQ(-ENOENT, f.instance.enable(name, true)) << name;
        EXPECT_EQ(-ENOENT, f.instance.filter(name, "mnt==1")) << name;
    }
}

/* ---- filters ---- */

TEST(KprobeInstanceFilter, Replaced)
{
    Fixture f;
    ASSERT_EQ(0, f.add("Kc", "mnt==20"));
    ASSERT_EQ(0, f.instance.enable("Kc", true));
    EXPECT_EQ(0, f.instance.filter("Kc", "mnt==23||mnt==99"));
    EXPECT_EQ(12u, f.kernel.perf.open_events()) << "a hit may be on its way through the old ones";
    EXPECT_TRUE(f.instance.close_replaced()) << "it is too early";
    f.settle();
    EXPECT_EQ(8u, f.kernel.perf.open_events());
    const int id = f.kernel.id_of("Kc");
    EXPECT_EQ((Paths{"mnt==20||mnt==4294967295", "mnt==20||mnt==4294967295"}), f.kernel.perf.filters(id));
    EXPECT_TRUE(f.kernel.perf.enabled(id));
    EXPECT_EQ(1, f.create("/a"));
    EXPECT_EQ(Paths{"/a"}, f.parse());
    EXPECT_EQ(0, f.instance.filter("Kc", ""));
    f.settle();
    EXPECT_EQ((Paths{"", ""}), f.kernel.perf.filters(id));
    EXPECT_EQ(8u, f.kernel.perf.open_events());
}

TEST(KprobeInstanceFilter, ABadOneChangesNothing)
{
    Fixture f;
    ASSERT_EQ(0, f.add("Kc", "mnt==23"));
    f.instance.enable("Kc", true);
    take_log();
    EXPECT_EQ(-EINVAL, f.instance.filter("Kc", "nofield==23"));
    EXPECT_EQ(Paths{"1 filter of Kc refused: nofield==23: Field not found"}, take_log());
    EXPECT_EQ(-EINVAL, f.instance.filter("Kc", std::string(kprobe::kMaxFilter + 1, 'x')));
    EXPECT_EQ((Paths{"mnt==20", "mnt==20"}), f.kernel.perf.filters(f.kernel.id_of("Kc")));
    EXPECT_EQ(1, f.create("/a"));
    EXPECT_EQ(Paths{"/a"}, f.parse());
    EXPECT_EQ(-EINVAL, f.add("Ku", "nofield"));
    EXPECT_EQ(1u, f.kernel.definitions().size()) << "a probe that cannot be filtered is none";
}

TEST(KprobeInstanceFilter, AHitThatBothFiltersSeeCountsOnce)
{
    Fixture f;
    f.add_on("Kc");
    f.create("/before");
    int n = 0, records = 0;
    f.kernel.on_control = [&](unsigned long request) {
        if (request == PERF_EVENT_IOC_ENABLE || request == PERF_EVENT_IOC_DISABLE)
            for (const int cpu : {0, 1})
                records += f.create("/during" + std::to_string(n++), 0, cpu);
    };
    ASSERT_EQ(0, f.instance.filter("Kc", "mnt==23"));
    f.kernel.on_control = nullptr;
    f.create("/after");
    Paths wanted = {"/before"}, got = f.parse();
    for (int i = 0; i < n; i++)
        wanted.push_back("/during" + std::to_string(i));
    wanted.push_back("/after");
    std::sort(wanted.begin(), wanted.end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(wanted, got);
    EXPECT_GT(records, n) << "some were written twice";
}

/* The kernel drops what comes to an event that was just switched off. */
TEST(KprobeInstanceFilter, AHitOnItsWayIsRecordedByTheOldOne)
{
    Fixture f;
    f.add_on("Kc");
    f.kernel.perf.begin_hits();
    ASSERT_EQ(0, f.instance.filter("Kc", "mnt==23"));
    EXPECT_EQ(1, f.create("/a"));
    f.kernel.perf.end_hits();
    EXPECT_EQ(2, f.create("/b"));
    EXPECT_EQ((Paths{"/a", "/b"}), f.parse());
    f.settle();
    EXPECT_EQ(1, f.create("/c"));
    EXPECT_EQ(Paths{"/c"}, f.parse());
}

TEST(KprobeInstanceFilter, ManyAtOnce)
{
    Fixture f;
    f.add_on("Kc");
    for (int i = 0; i < 10; i++)
        ASSERT_EQ(0, f.instance.filter("Kc", "mnt==23"));
    EXPECT_EQ(2, f.create("/a")) << "events with older filters do not pile up";
    EXPECT_EQ(Paths{"/a"}, f.parse());
    EXPECT_EQ(0, f.instance.enable("Kc", false));
    EXPECT_EQ(0, f.create("/b")) << "off is off";
    EXPECT_EQ(8u, f.kernel.perf.open_events());
}

TEST(KprobeInstanceFilter, EqualHitsAreNotOne)
{
    Fixture f;
    f.add_on("Kc");
    const uint64_t entry = f.objects.path(f.super, "/same");
    for (int i = 0; i < 3; i++)
        f.kernel.hit({"security_inode_create", {0, entry, 0}});
    ASSERT_EQ(0, f.instance.filter("Kc", "mnt==23"));
    for (int i = 0; i < 3; i++)
        f.kernel.hit({"security_inode_create", {0, entry, 0}});
    EXPECT_EQ(6u, f.parse().size());
}

/* ---- mounts ---- */

TEST(KprobeInstanceMounts, UnknownAndNew)
{
    Fixture f;
    f.super = f.objects.super_block(77);
    f.add_on("Kc");
    f.create("/lost");
    EXPECT_EQ(Paths{}, f.parse());
    EXPECT_EQ(1u, f.losses().unreadable);
    f.kernel.file("/proc/self/mountinfo", "50 1 0:77 / /new rw - tmpfs tmpfs rw\n");
    testlib::pass_time(110000000); /* the table is not read for every record */
    f.create("/a");
    f.sweep();
    f.instance.parse(10);
    ASSERT_EQ(1u, received.size());
    EXPECT_EQ(50u, received[0].mount());
}
