/* Out of memory at every allocation of every entry: it fails as it says, no exception leaves it, and the next call
 * works as if nothing had been. */
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "kp_thread_utils.h"
#include "kprobe_instance_fixture.h"
#include "testlib/failing_new.h"
#include "testlib/in_child.h"
#include "testlib/kernel_double/library_thread.h"

namespace
{

thread_local long left = -1; /* allocations until one fails; negative: none does */
thread_local bool failed = false;
std::atomic<bool> others_fail{false};
std::atomic<int> others_failed{0};
thread_local bool is_mine = false;

}  // namespace

bool testlib::allocation_fails()
{
    const bool fails = !in_kernel() && ((left >= 0 && left-- == 0) || (others_fail && !is_mine));
    if (fails) {
        failed = true;
        others_failed += !is_mine;
    }
    return fails;
}

using namespace kprobe_fixture;

namespace
{

/* Fails the 1st, 2nd, ... allocation of `call`, until it is not reached. Returns how many were. */
template <typename Call, typename Check>
int fail_each_allocation(Call &&call, Check &&failed_as_it_should)
{
    for (int n = 0; n < 5000; n++) {
        failed = false;
        left = n;
        const auto result = call();
        left = -1;
        if (!failed)
            return n;
        EXPECT_TRUE(failed_as_it_should(result)) << "allocation " << n;
        testlib::take_log();
    }
    ADD_FAILURE() << "it never succeeded";
    return 0;
}

const auto is_negative = [](int32_t status) { return status < 0; };
const auto is_null = [](const void *pointer) { return pointer == nullptr; };
const auto is_any = [](int32_t) { return true; };

struct Library {
    testlib::KernelDouble kernel;
    testlib::KernelObjects objects;
    uint64_t super;
    void *handle = nullptr;
    int32_t *fds = nullptr, count = 0;

    Library() : objects(&kernel.memory), super(objects.super_block(kDevice)) { kernel.default_files(); }
    ~Library()
    {
        kp_ins_del(handle);
        free(fds);
    }
    void start()
    {
        handle = _kp_ins_crt("clt_file", &fds, &count);
        ASSERT_NE(nullptr, handle);
    }
    void add(const char *name)
    {
        const testlib::ModuleProbe probe = testlib::file_probe(true, name, "mnt==23");
        kp_probe_def def = probe.record();
        ASSERT_EQ(0, _kp_evt_reg(handle, &def, keep));
        ASSERT_EQ(0, _kp_event_enable(1, name, handle));
    }
    size_t expect_working() /* returns how many records came */
    {
        const size_t before = received.size();
        EXPECT_EQ(1, kernel.hit({"security_inode_create", {0, objects.path(super, "/works"), 0}}));
        pollfd polled = {fds[0], POLLIN, 0};
        EXPECT_EQ(1, poll(&polled, 1, 5000));
        while (is_readable(fds[0]) && kp_event_parse(0, handle) >= 0) {
        }
        EXPECT_GT(received.size(), before);
        EXPECT_EQ("/works", received.size() > before ? received.back().path() : "");
        return received.size() - before;
    }
};

}  // namespace

TEST(KprobeOutOfMemory, TheStart)
{
    in_child([] {
        Library library;
        const kp_os_info *info = nullptr;
        EXPECT_GT(fail_each_allocation([&] { return _os_info_get(&info); },
                                       [&](int32_t status) { return (status < 0) == (info == nullptr); }),
                  20);
        ASSERT_NE(nullptr, info);
        EXPECT_STREQ("", kp_unavailable());
        library.start();
        library.add("Kc");
        library.expect_working();
    });
}

TEST(KprobeOutOfMemory, WordsForIt)
{
    in_child([] {
        const testlib::KernelDouble kernel;
        left = 0;
        const char *words = kp_unavailable();
        left = -1;
        EXPECT_STREQ("out of memory", words);
    });
}

TEST(KprobeOutOfMemory, AnInstance)
{
    in_child([] {
        Library library;
        const kp_os_info *info;
        ASSERT_EQ(0, _os_info_get(&info));
        const int n = fail_each_allocation(
            [&]() -> void * {
                library.handle = _kp_ins_crt("clt_file", &library.fds, &library.count);
                EXPECT_EQ(library.handle ? 4u : 0u, library.kernel.perf.open_events());
                return library.handle;
            },
            is_null);
        EXPECT_GT(n, 10);
        library.add("Kc");
        library.expect_working();
    });
}

TEST(KprobeOutOfMemory, AProbe)
{
    in_child([] {
        Library library;
        library.start();
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc", "mnt==23");
        kp_probe_def def = probe.record();
        const int n = fail_each_allocation(
            [&] {
                const int32_t status = _kp_evt_reg(library.handle, &def, keep);
                EXPECT_EQ(status < 0 ? 4u : 8u, library.kernel.perf.open_events());
                return status;
            },
            is_negative);
        EXPECT_GT(n, 100);
        EXPECT_EQ(0, _kp_event_enable(1, "Kc", library.handle));
        EXPECT_EQ(1u, library.expect_working());
        EXPECT_EQ(0, kp_ins_del(library.handle));
        EXPECT_TRUE(library.kernel.definitions().empty()) << library.kernel.definitions()[0];
    });
}

/* A second probe at the same function: the first one is made anew. */
TEST(KprobeOutOfMemory, AProbeBehindAnother)
{
    in_child([] {
        Library library;
        library.start();
        library.add("Krf");
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Krt");
        kp_probe_def def = probe.record();
        fail_each_allocation([&] { return _kp_evt_reg(library.handle, &def, keep); }, is_any);
        library.add("Kc");
        EXPECT_GT(library.expect_working(), 0u);
        EXPECT_EQ(0, kp_ins_del(library.handle));
    });
}

TEST(KprobeOutOfMemory, SwitchesAndFilters)
{
    in_child([] {
        Library library;
        library.start();
        library.add("Kc");
        library.add("Km");
        void *handle = library.handle;
        for (const char *name : {"Kc", "Km"}) {
            fail_each_allocation([&] { return _kp_event_enable(1, name, handle); }, is_negative);
            const int n =
                fail_each_allocation([&] { return _kp_event_filter(name, "mnt==20||mnt==23", handle); }, is_any);
            EXPECT_GT(n, 5) << name;
            testlib::pass_time(kprobe::Replacement::kOverlap);
            EXPECT_TRUE(testlib::await_sleep()); /* the library's thread has closed what the change left open */
            EXPECT_EQ(4u + 8u, library.kernel.perf.open_events());
        }
        EXPECT_EQ(1u, library.expect_working());
    });
}

TEST(KprobeOutOfMemory, Records)
{
    in_child([] {
        Library library;
        library.start();
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc");
        kp_probe_def def = probe.record();
        static size_t handed;
        ASSERT_EQ(0, _kp_evt_reg(library.handle, &def, [](uint32_t, void *, uint32_t) { handed++; }));
        ASSERT_EQ(0, _kp_event_enable(1, "Kc", library.handle));
        const uint64_t entry = library.objects.path(library.super, "/a");
        size_t hits = 0;
        const int n = fail_each_allocation(
            [&] {
                const long armed = std::exchange(left, -1);
                library.kernel.hit({"security_inode_create", {0, entry, 0}});
                hits++;
                pollfd polled = {library.fds[0], POLLIN, 0};
                poll(&polled, 1, 5000);
                left = armed;
                return kp_event_parse(0, library.handle);
            },
            is_any);
        EXPECT_GE(n, 1);
        pollfd polled = {library.fds[0], POLLIN, 0};
        while (poll(&polled, 1, 200) > 0)
            kp_event_parse(0, library.handle);
        kp_losses losses;
        ASSERT_EQ(0, kp_loss_counts(library.handle, &losses));
        EXPECT_EQ(hits, losses.delivered + losses.unreadable) << "each is accounted for";
        EXPECT_EQ(handed, losses.delivered);
        EXPECT_GT(handed, 0u);
    });
}

TEST(KprobeOutOfMemory, TheRest)
{
    in_child([] {
        Library library;
        library.start();
        library.add("Kc");
        kp_losses losses;
        EXPECT_GT(fail_each_allocation([&] { return kp_loss_counts(library.handle, &losses); }, is_negative), 0);
        fail_each_allocation([&] { return _cache_clean(library.handle); }, is_negative);
        EXPECT_EQ(1u, library.expect_working());
    });
}

TEST(KprobeOutOfMemory, TheEndOfAnInstance)
{
    in_child([] {
        for (int n = 0; n < 30; n++) {
            /* Left behind: the library's thread goes on, and may be reading a file of this kernel when it would go. */
            Library &library = *new Library;
            library.start();
            library.add("Kc");
            left = n;
            const int32_t status = kp_ins_del(library.handle);
            left = -1;
            EXPECT_EQ(0, status) << n;
            EXPECT_GT(0, kp_ins_del(library.handle)) << n;
            EXPECT_EQ(0u, library.kernel.perf.open_events()) << n;
        }
    });
}

/* The thread that empties the rings: what it cannot take waits there. */
TEST(KprobeOutOfMemory, TheThread)
{
    in_child([] {
        is_mine = true;
        setenv("FMON_PROBE_RING_KB", "8", 1); /* records that go over its end need memory */
        Library library;
        library.start();
        library.add("Kc");
        others_fail = true;
        uint64_t hits = 0;
        for (; hits < 40; hits++) {
            library.kernel.hit({"security_inode_create", {0, library.objects.path(library.super, "/a"), 0}});
            EXPECT_TRUE(testlib::await_turn());
        }
        EXPECT_GT(others_failed, 0);
        others_fail = false;
        EXPECT_TRUE(testlib::await_turn());
        library.kernel.hit({"security_inode_create", {0, library.objects.path(library.super, "/a"), 0}});
        EXPECT_TRUE(testlib::await_sleep());
        while (is_readable(library.fds[0]) && kp_event_parse(0, library.handle) >= 0) {
        }
        kp_losses losses;
        ASSERT_EQ(0, kp_loss_counts(library.handle, &losses));
        EXPECT_EQ(hits + 1, losses.delivered + losses.ring);
        EXPECT_GE(losses.delivered, 17u) << "as many as the ring holds";
    });
}
