/* Offsets found by experiment, where the kernel does not describe its types. */
#include "calibrate.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "kprobe_facts.h"
#include "kprobe_subjects.h"
#include "testlib/fault.h"
#include "testlib/kernel_double/agent_log.h"
#include "tracefs.h"

using namespace kprobe;
using kprobe_fixture::Subjects;
using testlib::Fault;
using testlib::KernelDouble;

namespace
{

struct Calibration {
    KernelDouble kernel;
    Subjects subjects;
    Tracefs tracefs;
    std::string why;

    explicit Calibration(bool is_64) : kernel(is_64, "6.1.0-test"), subjects(prepared(&kernel)) {}
    static KernelDouble *prepared(KernelDouble *kernel)
    {
        kernel->default_files();
        return kernel;
    }
    Facts gather()
    {
        Facts facts;
        EXPECT_TRUE(tracefs.find(why) && gather_facts(tracefs, facts, why)) << why;
        EXPECT_TRUE(kernel.definitions().empty()) << "experiments leave nothing";
        EXPECT_EQ(0u, kernel.perf.open_events());
        return facts;
    }
};

void expect_equal(const DentryLayout &wanted, const DentryLayout &got)
{
    EXPECT_EQ(wanted.parent, got.parent);
    EXPECT_EQ(wanted.name, got.name);
    EXPECT_EQ(wanted.inode, got.inode);
    EXPECT_EQ(wanted.super, got.super);
    EXPECT_EQ(wanted.inline_name, got.inline_name);
    EXPECT_EQ(wanted.s_dev, got.s_dev);
    EXPECT_EQ(wanted.i_mode, got.i_mode);
    EXPECT_EQ(wanted.i_ino, got.i_ino);
}

}  // namespace

TEST(KprobeCalibrate, FindsAllOffsets)
{
    for (const bool is_64 : {true, false}) {
        Calibration c(is_64);
        const Facts wanted = is_64 ? kprobe_facts::amd64_6_1() : kprobe_facts::i386_6_1(), got = c.gather();
        expect_equal(wanted.dentry, got.dentry);
        EXPECT_EQ(wanted.mark.wd, got.mark.wd);
        EXPECT_EQ(wanted.mark.connector, got.mark.connector);
        EXPECT_EQ(wanted.mark.object, got.mark.object);
        EXPECT_EQ(wanted.mark.inode_back, got.mark.inode_back);
        EXPECT_EQ(wanted.mark.group, got.mark.group);
        EXPECT_EQ(wanted.mark.file_group, got.mark.file_group);
        EXPECT_TRUE(got.new_parent);
    }
}

/* The kernel waits for all its processors when a probe goes: some fifty milliseconds of each start. */
TEST(KprobeCalibrate, TakesFewExperiments)
{
    for (const bool is_64 : {true, false}) {
        Calibration c(is_64);
        c.gather();
        EXPECT_EQ(7, c.kernel.defined());
    }
}

TEST(KprobeCalibrate, BelievesNothingThatDoesNotFit)
{
    Calibration c(false);
    c.subjects.seen_twice = true; /* more hits than it made */
    EXPECT_FALSE(c.gather().dentry.complete());
    c.subjects.seen_twice = false;
    c.kernel.on_open = nullptr; /* no hit at all */
    const Facts facts = c.gather();
    EXPECT_TRUE(facts.dentry.complete());
    EXPECT_FALSE(facts.mark.complete());
}

TEST(KprobeCalibrate, WatchesOfOtherNumbers)
{
    KernelDouble kernel(false);
    kernel.default_files();
    const Subjects subjects(&kernel, 7);
    Tracefs tracefs;
    Facts facts;
    std::string why;
    ASSERT_TRUE(tracefs.find(why) && gather_facts(tracefs, facts, why));
    EXPECT_EQ(kUnknown, facts.mark.wd);
}

TEST(KprobeCalibrate, Refused)
{
    Calibration c(false);
    c.kernel.refuse(" security_inode_getattr", "Failed to register probe event");
    testlib::take_log();
    const Facts facts = c.gather();
    EXPECT_FALSE(facts.dentry.complete());
    EXPECT_TRUE(facts.mark.complete());
    EXPECT_TRUE(testlib::has_line(testlib::take_log(),
                                  "2 calibration at security_inode_getattr refused: Failed to register probe event"));
}

TEST(KprobeCalibrate, WhetherFailedFetchesCountAsMisses)
{
    for (const bool is_64 : {true, false}) {
        Calibration c(is_64);
        Facts facts;
        facts.is_64 = is_64;
        ASSERT_TRUE(c.tracefs.find(c.why));
        EXPECT_FALSE(counts_failed_fetches(c.tracefs, facts));
        c.kernel.faults_are_misses = true;
        EXPECT_TRUE(counts_failed_fetches(c.tracefs, facts));
        for (const char *call : {"inotify_init1", "perf_event_open", "mmap"}) {
            const Fault fault(call, 1, EMFILE, 5);
            EXPECT_FALSE(counts_failed_fetches(c.tracefs, facts)) << call;
        }
        EXPECT_TRUE(c.kernel.definitions().empty()) << "experiments leave nothing";
        EXPECT_EQ(0u, c.kernel.perf.open_events());
        c.kernel.refuse(" inotify_ioctl", "no such function");
        EXPECT_FALSE(counts_failed_fetches(c.tracefs, facts));
    }
}

/* What cannot be found stays unknown, and never becomes something else. */
TEST(KprobeCalibrate, CallsThatFail)
{
    const Facts wanted = kprobe_facts::i386_6_1();
    const struct {
        const char *call;
        int step, in_a_row;
    } rows[] = {{"perf_event_open", 11, 1}, {"mmap", 13, 5}, {"ioctl", 31, 1}, {"read", 17, 1}};
    for (const auto &row : rows) {
        int incomplete = 0;
        for (int nth = 1;; nth += row.step) {
            Calibration c(false);
            const Fault fault(row.call, nth, EIO, row.in_a_row);
            Facts facts;
            if (!c.tracefs.find(c.why) || !gather_facts(c.tracefs, facts, c.why))
                continue;
            if (!fault.hit())
                break;
            incomplete += !facts.dentry.complete() || !facts.mark.complete();
            for (const auto &[got, right] : {std::pair(facts.dentry.parent, wanted.dentry.parent),
                                             {facts.dentry.name, wanted.dentry.name},
                                             {facts.dentry.inode, wanted.dentry.inode},
                                             {facts.dentry.super, wanted.dentry.super},
                                             {facts.dentry.inline_name, wanted.dentry.inline_name},
                                             {facts.mark.wd, wanted.mark.wd},
                                             {facts.mark.connector, wanted.mark.connector}})
                EXPECT_TRUE(got == right || got == kUnknown) << row.call << " " << nth << ": " << got;
            EXPECT_EQ(0u, c.kernel.perf.open_events()) << row.call;
            EXPECT_TRUE(c.kernel.definitions().empty()) << row.call << " " << nth;
            testlib::take_log();
        }
        EXPECT_GT(incomplete, 0) << row.call;
    }
}
