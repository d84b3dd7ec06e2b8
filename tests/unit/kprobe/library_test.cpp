/* The library as a whole over a made-up kernel: its start, its instances, its thread. */
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

#include "kprobe_library_fixture.h"
#include "testlib/fault.h"
#include "testlib/kernel_double/btf_blob.h"

using namespace kprobe_fixture;
using testlib::Fault;
using testlib::has_line;
using testlib::KernelDouble;
using testlib::take_log;

/* ---- start ---- */

TEST(KprobeLibrary, SaysWhatTheKernelIs)
{
    for (const bool is_64 : {true, false}) {
        Whole w(is_64);
        w.kernel.release = "5.10.223-test";
        w.kernel.file("/sys/devices/system/cpu/online", "0-2\n");
        const kp_os_info *info = w.probes.os_info();
        ASSERT_NE(nullptr, info);
        EXPECT_EQ(5, info->major);
        EXPECT_EQ(10, info->minor);
        EXPECT_EQ(223, info->patch);
        EXPECT_EQ(is_64 ? KP_ARCH_X86_64 : KP_ARCH_X86_32, info->arch);
        EXPECT_EQ(1, info->count);
        EXPECT_EQ(static_cast<uint32_t>(getpid()), info->pid);
        EXPECT_STREQ("", w.probes.why_not());
        EXPECT_TRUE(w.kernel.definitions().empty()) << "the trial is gone";
        EXPECT_EQ(0u, w.kernel.perf.open_events());
        Source source;
        ASSERT_TRUE(source.open(w.probes, "clt_file"));
        EXPECT_EQ(1, source.count);
        EXPECT_NE(static_cast<uint32_t>(getpid()), w.probes.os_info()->pid) << "the thread, whose events are left out";
    }
}

TEST(KprobeLibrary, CannotWork)
{
    const struct {
        std::function<void(KernelDouble &)> change;
        const char *why;
    } rows[] = {
        {[](KernelDouble &k) { k.no_file(k.tracing("README")); }, "tracefs is not mounted"},
        {[](KernelDouble &k) { k.no_file(k.tracing("kprobe_events")); }, "has no kernel probes"},
        {[](KernelDouble &k) { k.no_file("/sys/devices/system/cpu/online"); }, "online CPUs cannot be read"},
        {[](KernelDouble &k) { k.machine = "riscv64"; }, "not for riscv64"},
        {[](KernelDouble &k) { k.release = "x"; }, "release cannot be read"},
        {[](KernelDouble &k) { k.no_file("/sys/kernel/btf/vmlinux"); }, "keeps an entry's directory, an entry's name"},
        {[](KernelDouble &k) { k.refuse("proof", "locked down"); }, "the kernel refuses probes: locked down"},
    };
    for (const auto &row : rows) {
        Whole w;
        row.change(w.kernel);
        EXPECT_FALSE(w.works());
        EXPECT_NE(std::string::npos, std::string(w.probes.why_not()).find(row.why)) << w.probes.why_not();
        const auto lines = take_log();
        EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), [](const auto &line) { return line[0] == '2'; }));
        EXPECT_TRUE(has_line(lines, std::string("2 kernel probes are not available: ") + w.probes.why_not()));
        Source source;
        EXPECT_FALSE(source.open(w.probes, "clt_file"));
        EXPECT_FALSE(w.works());
        EXPECT_TRUE(take_log().empty()) << "it is said once";
        EXPECT_TRUE(w.kernel.definitions().empty());
    }
}

TEST(KprobeLibrary, PerfEventsThatAreNotAllowed)
{
    for (const int nth : {1, 2}) { /* the ring's, the probe's */
        Whole w;
        const Fault fault("perf_event_open", nth, EACCES);
        EXPECT_FALSE(w.works());
        EXPECT_STREQ("perf events cannot be opened: Permission denied", w.probes.why_not());
        EXPECT_TRUE(w.kernel.definitions().empty());
        EXPECT_EQ(0u, w.kernel.perf.open_events());
    }
}

TEST(KprobeLibrary, DefinitionsOfTheDeadGoAtStart)
{
    Whole w;
    kprobe::Tracefs tracefs;
    std::string why;
    ASSERT_TRUE(tracefs.find(why));
    ASSERT_EQ(0, tracefs.define("p:orx_4194305_5_0_clt_file/Kc_4194305 vfs_link", why));
    ASSERT_EQ(0, tracefs.define("p:others/Kc vfs_link", why));
    ASSERT_TRUE(w.works());
    EXPECT_EQ(Paths{"p:others/Kc vfs_link"}, w.kernel.definitions());
}

/* ---- instances ---- */

TEST(KprobeLibrary, FromAHitToTheCallback)
{
    for (const bool is_64 : {true, false}) {
        Whole w(is_64);
        Source source;
        ASSERT_TRUE(source.open(w.probes, "clt_file"));
        w.add(source.handle, "Kc");
        for (int burst = 0; burst < 3; burst++) {
            Paths wanted;
            for (int i = 0; i < 5; i++) {
                wanted.push_back("/d/f" + std::to_string(i));
                ASSERT_EQ(1, w.create(wanted.back(), i % 2));
            }
            EXPECT_EQ(wanted, w.wait_for(source, wanted.size())) << burst;
            if (burst > 0) {
                EXPECT_TRUE(testlib::await_sleep()); /* until the wake-up */
            }
        }
    }
}

TEST(KprobeLibrary, AKernelThatCountsFailedFetches)
{
    for (const bool counts : {false, true}) {
        Whole w;
        w.kernel.faults_are_misses = counts;
        Source source;
        ASSERT_TRUE(source.open(w.probes, "clt_inotify"));
        ASSERT_EQ(0, w.probes.find(source.handle)->add(testlib::inotify_probe_of(true, 6, 1).record(), keep));
        w.kernel.faults_are_misses = true;
        w.kernel.hit({"inotify_handle_inode_event", {0, IN_IGNORED, 0, 0, 0, 0}});
        kp_losses losses = {};
        ASSERT_EQ(0, w.probes.losses(losses));
        EXPECT_EQ(counts, losses.missed == 0);
    }
}

TEST(KprobeLibrary, WhatIsNotAskedForProperly)
{
    Whole w;
    int32_t *fds = nullptr, count = 0;
    EXPECT_EQ(nullptr, w.probes.create(nullptr, &fds, &count));
    EXPECT_EQ(nullptr, w.probes.create("", &fds, &count));
    EXPECT_EQ(nullptr, w.probes.create("a", nullptr, &count));
    EXPECT_EQ(nullptr, w.probes.create("a", &fds, nullptr));
    EXPECT_EQ(nullptr, fds);
    Source source;
    ASSERT_TRUE(source.open(w.probes, "a"));
    for (const int32_t index : {-1, 1, 255, INT32_MIN, INT32_MAX})
        EXPECT_EQ(-EINVAL, w.probes.parse(index, source.handle)) << index;
    EXPECT_EQ(0, w.probes.parse(0, source.handle));
}

TEST(KprobeLibrary, HandlesAreRecognised)
{
    Whole w;
    ASSERT_TRUE(w.works());
    Source first;
    ASSERT_TRUE(first.open(w.probes, "a"));
    const auto number = reinterpret_cast<uintptr_t>(first.handle);
    for (const uintptr_t made_up : {uintptr_t{0}, number + 1, number + 256, number - 1, ~uintptr_t{0}, number << 8}) {
        void *handle = reinterpret_cast<void *>(made_up);
        EXPECT_EQ(nullptr, w.probes.find(handle)) << made_up;
        EXPECT_EQ(-EINVAL, w.probes.remove(handle)) << made_up;
        EXPECT_EQ(-EINVAL, w.probes.parse(0, handle)) << made_up;
    }
    EXPECT_EQ(0, w.probes.remove(first.handle));
    EXPECT_EQ(-EINVAL, w.probes.remove(first.handle));
    Source second;
    ASSERT_TRUE(second.open(w.probes, "a")); /* in the same place */
    EXPECT_NE(first.handle, second.handle);
    EXPECT_EQ(nullptr, w.probes.find(first.handle));
}

TEST(KprobeLibrary, ANameAgainEndsTheOneBefore)
{
    Whole w;
    const int before = open_descriptors();
    Source first, second;
    ASSERT_TRUE(first.open(w.probes, "clt_file"));
    w.add(first.handle, "Kc");
    const int with_one = lasting_descriptors();
    ASSERT_TRUE(second.open(w.probes, "clt_file"));
    EXPECT_EQ(nullptr, w.probes.find(first.handle));
    EXPECT_TRUE(w.kernel.definitions().empty());
    w.add(second.handle, "Kc");
    EXPECT_EQ(with_one + 1, lasting_descriptors()) << "the descriptors handed out are the caller's";
    EXPECT_EQ(1, w.create("/a"));
    EXPECT_EQ(Paths{"/a"}, w.wait_for(second, 1));
    first.forget();
    second.forget();
    w.probes.shut_down();
    EXPECT_LE(open_descriptors(), before + 2) << "what the thread slept on";
    EXPECT_TRUE(w.kernel.definitions().empty());
    EXPECT_STREQ("the process is ending", w.probes.why_not());
    EXPECT_EQ(nullptr, w.probes.find(second.handle));
}

TEST(KprobeLibrary, MadeAndEndedAgainAndAgain)
{
    Whole w;
    w.kernel.file("/sys/devices/system/cpu/online", "0\n");
    int descriptors = 0;
    for (int round = 0; round < 100; round++) {
        Source source;
        ASSERT_TRUE(source.open(w.probes, "clt_file")) << round;
        w.add(source.handle, "Kc");
        w.create("/x");
        ASSERT_EQ(0, w.probes.remove(source.handle));
        source.forget();
        if (round == 0)
            descriptors = lasting_descriptors();
        ASSERT_EQ(descriptors, lasting_descriptors()) << round;
        ASSERT_EQ(0u, w.kernel.perf.open_events());
    }
    EXPECT_TRUE(w.kernel.definitions().empty());
}

TEST(KprobeLibrary, AsManyInstancesAsThereIsRoomFor)
{
    Whole w;
    w.kernel.file("/sys/devices/system/cpu/online", "0\n");
    std::vector<Source> sources(65);
    for (size_t i = 0; i < 64; i++)
        ASSERT_TRUE(sources[i].open(w.probes, ("i" + std::to_string(i)).c_str())) << i;
    EXPECT_FALSE(sources[64].open(w.probes, "one more"));
    EXPECT_EQ(0, w.probes.remove(sources[5].handle));
    EXPECT_TRUE(sources[64].open(w.probes, "one more"));
}

TEST(KprobeLibrary, NoInotifyInstanceWhereNoProbeReports)
{
    Whole w;
    testlib::KernelTypes types;
    types.functions = {"security_inode_create"};
    w.kernel.file("/sys/kernel/btf/vmlinux", kernel_types(types));
    Source inotify, file;
    EXPECT_FALSE(inotify.open(w.probes, "clt_inotify"));
    EXPECT_TRUE(has_line(take_log(), "the descriptor is used"));
    EXPECT_TRUE(file.open(w.probes, "clt_file"));
}

TEST(KprobeLibrary, CallsThatFailWhileAnInstanceIsMade)
{
    const int at_least[] = {1, 4, 1, 2, 1, 4, 1, 1};
    const char *const calls[] = {"epoll_create1", "perf_event_open", "pthread_create", "eventfd", "malloc",
                                 "mmap",          "fcntl",           "epoll_ctl"};
    for (size_t i = 0; i < std::size(calls); i++) {
        int failed = 0, descriptors = 0;
        const int runs = testlib::fail_each(calls[i], EMFILE, [&](Fault &fault) {
            Whole w;
            Fault *armed = &fault; /* counts from here on what the start called, too */
            Source source;
            const bool made = source.open(w.probes, "clt_file");
            EXPECT_TRUE(made || armed->hit()) << calls[i];
            failed += !made;
            EXPECT_EQ(made ? 4u : 0u, w.kernel.perf.open_events()) << calls[i];
            source.forget();
            w.probes.shut_down();
            if (descriptors == 0)
                descriptors = open_descriptors();
            EXPECT_NEAR(descriptors, open_descriptors(), 2) << calls[i];
        });
        EXPECT_GE(runs, at_least[i]) << calls[i];
        EXPECT_GE(failed, at_least[i]) << calls[i];
        take_log();
    }
}

TEST(KprobeLibrary, AStartThatFailedDoesNotStopTheNextInstance)
{
    Whole w;
    ASSERT_TRUE(w.works());
    Source source;
    const int before = open_descriptors();
    for (const char *call : {"pthread_create", "epoll_create1", "epoll_ctl"}) {
        const Fault fault(call, 1, EAGAIN);
        EXPECT_FALSE(source.open(w.probes, "clt_file"));
        EXPECT_EQ(before, open_descriptors()) << call;
    }
    ASSERT_TRUE(source.open(w.probes, "clt_file"));
    w.add(source.handle, "Kc");
    w.create("/a");
    EXPECT_EQ(Paths{"/a"}, w.wait_for(source, 1));
}

TEST(KprobeLibrary, ReasonsStayValid)
{
    Whole w;
    ASSERT_TRUE(w.works());
    const char *before = w.probes.why_not();
    std::thread asking([&] {
        for (int i = 0; i < 1000; i++)
            EXPECT_STRNE("x", w.probes.why_not());
    });
    w.probes.shut_down();
    asking.join();
    EXPECT_STREQ("", before);
    EXPECT_STREQ("the process is ending", w.probes.why_not());
}

/* Daemons close whatever is open, and know nothing of libraries. */
TEST(KprobeLibrary, RecordsComeAlsoWhenWhatTheThreadSleepsOnIsClosed)
{
    Whole w;
    Source source;
    ASSERT_TRUE(source.open(w.probes, "clt_file"));
    w.add(source.handle, "Kc");
    int closed = 0;
    for (int fd = 3; fd < 256; fd++) {
        char target[64] = "";
        const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
        if (length > 0 && std::string(target) == "anon_inode:[eventpoll]")
            closed += syscall(SYS_close, fd) == 0; /* behind the back of everybody, a sanitizer included */
    }
    EXPECT_EQ(1, closed);
    for (int i = 0; i < 3; i++) {
        w.create("/x");
        EXPECT_EQ(Paths{"/x"}, w.wait_for(source, 1)) << i;
        EXPECT_TRUE(testlib::await_turn());
    }
}
