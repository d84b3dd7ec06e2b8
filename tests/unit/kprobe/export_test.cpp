/* The entries as the monitor calls them: where probes cannot work, with bad arguments, in a forked process. */
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

#include "kp_thread_utils.h"
#include "kprobe_instance_fixture.h"
#include "kprobe_subjects.h"
#include "testlib/in_child.h"
#include "testlib/kernel_double/library_thread.h"

using namespace kprobe_fixture;
using testlib::KernelDouble;

namespace
{

const int garbage = 7;
std::promise<void> fork_begun;

/* Every entry with a handle that is none, and whatever else it takes. */
void expect_negative(void *handle)
{
    const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc");
    kp_probe_def def = probe.record();
    kp_losses losses;
    EXPECT_GT(0, _kp_evt_reg(handle, &def, keep));
    EXPECT_GT(0, _kp_evt_reg(handle, nullptr, keep));
    EXPECT_GT(0, _kp_evt_reg(handle, &def, nullptr));
    EXPECT_GT(0, kp_event_parse(0, handle));
    EXPECT_GT(0, kp_event_parse(-1, handle));
    EXPECT_GT(0, _kp_event_enable(1, "Kc", handle));
    EXPECT_GT(0, _kp_event_enable(1, nullptr, handle));
    EXPECT_GT(0, _kp_event_filter("Kc", "mnt==1", handle));
    EXPECT_GT(0, _kp_event_filter(nullptr, "mnt==1", handle));
    EXPECT_GT(0, _kp_event_filter("Kc", nullptr, handle));
    EXPECT_GT(0, _cache_clean(handle));
    EXPECT_GT(0, kp_loss_counts(handle, &losses));
    EXPECT_GT(0, kp_loss_counts(handle, nullptr));
    EXPECT_GT(0, kp_ins_del(handle));
}

void expect_negative_for_all()
{
    int local;
    for (const void *handle :
         {static_cast<const void *>(nullptr), static_cast<const void *>(&garbage), static_cast<const void *>(&local),
          reinterpret_cast<const void *>(~uintptr_t{0}), reinterpret_cast<const void *>(uintptr_t{1}),
          reinterpret_cast<const void *>(uintptr_t{257})})
        expect_negative(const_cast<void *>(handle));
}

/* A made-up kernel under a library that goes on: it goes while the library's thread rests, and is in none of its calls.
 */
struct LeftKernel {
    std::unique_ptr<KernelDouble> kernel = std::make_unique<KernelDouble>();

    LeftKernel() { kernel->default_files(); }
    LeftKernel(const LeftKernel &) = delete;
    LeftKernel &operator=(const LeftKernel &) = delete;
    ~LeftKernel()
    {
        EXPECT_TRUE(testlib::at_rest([this] { kernel.reset(); }));
    }
};

/* An instance. */
struct Started {
    int32_t *fds = nullptr, count = 0;
    void *handle;

    explicit Started(const char *name = "clt_file") : handle(_kp_ins_crt(name, &fds, &count))
    {
        EXPECT_NE(nullptr, handle);
        EXPECT_EQ(1, count);
    }
    Started(const Started &) = delete;
    Started &operator=(const Started &) = delete;
    ~Started() { free(fds); }
};

uint64_t delivered_in_all()
{
    kp_losses losses = {};
    EXPECT_EQ(0, kp_losses_total(&losses));
    return losses.delivered;
}

}  // namespace

TEST(KprobeExport, WhereProbesCannotWork)
{
    in_child([] {
        KernelDouble kernel;
        kernel.no_file(kernel.tracing("README"));
        EXPECT_GT(0, _os_info_get(nullptr));
        const kp_os_info *info = reinterpret_cast<const kp_os_info *>(&garbage);
        EXPECT_GT(0, _os_info_get(&info));
        EXPECT_EQ(nullptr, info);
        EXPECT_GT(strlen(kp_unavailable()), 10u);
        int32_t *fds = nullptr, count = 5;
        EXPECT_EQ(nullptr, _kp_ins_crt("clt_file", &fds, &count));
        EXPECT_EQ(nullptr, fds);
        EXPECT_EQ(5, count);
        expect_negative_for_all();
    });
}

/* Whatever this machine's kernel is, and whoever runs the test. */
TEST(KprobeExport, OnThisMachine)
{
    in_child([] {
        const kp_os_info *info = nullptr;
        const int32_t status = _os_info_get(&info);
        EXPECT_EQ(status == 0, info != nullptr);
        EXPECT_EQ(status == 0, strlen(kp_unavailable()) == 0) << kp_unavailable();
        EXPECT_GT(0, _os_info_get(nullptr));
        expect_negative_for_all();
    });
}

TEST(KprobeExport, WhereTheyWork)
{
    in_child([] {
        const LeftKernel left;
        const kp_os_info *info = nullptr;
        ASSERT_EQ(0, _os_info_get(&info));
        EXPECT_EQ(1, info->count);
        EXPECT_STREQ("", kp_unavailable());
        EXPECT_GT(0, _os_info_get(nullptr));
        expect_negative_for_all();
        const Started started;
        expect_negative_for_all();
    });
}

TEST(KprobeExport, switches)
{
    in_child([] {
        const LeftKernel left;
        KernelDouble &kernel = *left.kernel;
        const Started started;
        void *handle = started.handle;
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc", "mnt==23");
        kp_probe_def def = probe.record();
        EXPECT_GT(0, _kp_evt_reg(handle, &def, nullptr));
        ASSERT_EQ(0, _kp_evt_reg(handle, &def, keep));
        EXPECT_GT(0, _kp_event_enable(1, "Ku", handle));
        EXPECT_GT(0, _kp_event_enable(1, nullptr, handle));
        for (const uint8_t on : {uint8_t{1}, uint8_t{'1'}}) {
            EXPECT_EQ(0, _kp_event_enable(on, "Kc", handle));
            EXPECT_TRUE(kernel.perf.enabled(kernel.id_of("Kc")));
            EXPECT_EQ(0, _kp_event_enable(on & '0', "Kc", handle)); /* 0 or '0' */
            EXPECT_FALSE(kernel.perf.enabled(kernel.id_of("Kc")));
        }
    });
}

TEST(KprobeExport, a_record_and_its_count)
{
    in_child([] {
        const LeftKernel left;
        KernelDouble &kernel = *left.kernel;
        testlib::KernelObjects objects(&kernel.memory);
        const Started started;
        void *handle = started.handle;
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc", "mnt==23");
        kp_probe_def def = probe.record();
        ASSERT_EQ(0, _kp_evt_reg(handle, &def, keep));
        EXPECT_EQ(0, _kp_event_enable(1, "Kc", handle));
        EXPECT_EQ(0, _kp_event_filter("Kc", "", handle));
        kernel.hit({"security_inode_create", {0, objects.path(objects.super_block(kDevice), "/a"), 0}, 5, 6, 1});
        pollfd polled = {started.fds[0], POLLIN, 0};
        ASSERT_EQ(1, poll(&polled, 1, 5000));
        EXPECT_EQ(1, kp_event_parse(0, handle));
        EXPECT_EQ(Paths{"/a"}, paths());
        EXPECT_GT(0, kp_event_parse(2, handle));
        EXPECT_EQ(0, _cache_clean(handle));
        EXPECT_GT(0, kp_loss_counts(handle, nullptr));
        EXPECT_GT(0, kp_losses_total(nullptr));
        kp_losses losses;
        EXPECT_EQ(0, kp_loss_counts(handle, &losses));
        EXPECT_EQ(1u, losses.delivered);
        EXPECT_EQ(1u, delivered_in_all());
        const Started other("another");
        EXPECT_EQ(1u, delivered_in_all());
        EXPECT_EQ(0, kp_ins_del(handle));
        EXPECT_EQ(1u, delivered_in_all()) << "what ended has counted";
        expect_negative(handle);
        EXPECT_TRUE(kernel.definitions().empty());
    });
}

TEST(KprobeExport, InAForkedProcess)
{
    in_child([] {
        const LeftKernel left;
        KernelDouble &kernel = *left.kernel;
        testlib::KernelObjects objects(&kernel.memory);
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc");
        kp_probe_def def = probe.record();
        int32_t *fds = nullptr, count = 0;
        void *handle = _kp_ins_crt("clt_file", &fds, &count);
        ASSERT_NE(nullptr, handle);
        ASSERT_EQ(0, _kp_evt_reg(handle, &def, keep));
        ASSERT_EQ(0, _kp_event_enable(1, "Kc", handle));
        kernel.hit({"security_inode_create", {0, objects.path(objects.super_block(kDevice), "/a"), 0}});
        pollfd polled = {fds[0], POLLIN, 0};
        ASSERT_EQ(1, poll(&polled, 1, 5000));
        in_child([&] {
            const kp_os_info *info;
            EXPECT_GT(0, _os_info_get(&info));
            EXPECT_NE(nullptr, strstr(kp_unavailable(), "forked")) << kp_unavailable();
            int32_t *more = nullptr, n = 0;
            EXPECT_EQ(nullptr, _kp_ins_crt("clt_file", &more, &n));
            EXPECT_EQ(0u, kernel.perf.open_events()) << "they would go on costing when the parent has gone";
            EXPECT_GT(0, kp_event_parse(0, handle)) << "what waits is the parent's";
            EXPECT_GT(0, _cache_clean(handle));
            EXPECT_GT(0, kp_ins_del(handle));
            EXPECT_EQ(1u, kernel.definitions().size()) << "they are the parent's";
        });
        ASSERT_EQ(1, poll(&polled, 1, 0));
        EXPECT_EQ(1, kp_event_parse(0, handle));
        EXPECT_EQ(0, kp_ins_del(handle));
        EXPECT_TRUE(kernel.definitions().empty());
        free(fds);
    });
}

TEST(KprobeExport, AForkWhileTheLibraryTriesThingsOut)
{
    in_child([] {
        KernelDouble kernel(false);
        kernel.default_files();
        Subjects subjects(&kernel);
        std::thread forking;
        int status = -1;
        const auto looked_at = kernel.on_stat;
        kernel.on_stat = [&](const std::string &path) {
            looked_at(path);
            if (forking.joinable())
                return;
            /* Registered last, called first: then the library's own handler waits for the one that tries things out. */
            EXPECT_EQ(0, pthread_atfork([] { fork_begun.set_value(); }, nullptr, nullptr));
            forking = std::thread([&status] {
                const pid_t child = fork();
                if (child == 0) {
                    alarm(5); /* it must not wait for a thread that it does not have */
                    _exit(strstr(kp_unavailable(), "forked") ? 0 : 1);
                }
                waitpid(child, &status, 0);
            });
            fork_begun.get_future().wait();
        };
        const kp_os_info *info = nullptr;
        EXPECT_EQ(0, _os_info_get(&info));
        forking.join();
        EXPECT_EQ(0, status);
        EXPECT_TRUE(kernel.definitions().empty());
        EXPECT_EQ(0u, kernel.perf.open_events());
    });
}

TEST(KprobeExport, ManyForksWhileRecordsCome)
{
    in_child([] {
        const LeftKernel left;
        KernelDouble &kernel = *left.kernel;
        testlib::KernelObjects objects(&kernel.memory);
        const testlib::ModuleProbe probe = testlib::file_probe(true, "Kc");
        kp_probe_def def = probe.record();
        int32_t *fds = nullptr, count = 0;
        void *handle = _kp_ins_crt("clt_file", &fds, &count);
        ASSERT_EQ(0, _kp_evt_reg(handle, &def, keep));
        ASSERT_EQ(0, _kp_event_enable(1, "Kc", handle));
        const uint64_t entry = objects.path(objects.super_block(kDevice), "/a");
        for (int i = 0; i < 50; i++) {
            kernel.hit({"security_inode_create", {0, entry, 0}, 1, 2, i % 2});
            const pid_t child = fork();
            if (child == 0)
                _exit(kp_unavailable()[0] != '\0' ? 0 : 1);
            int status = -1;
            waitpid(child, &status, 0);
            ASSERT_EQ(0, status) << i;
        }
        EXPECT_TRUE(testlib::await_sleep());
        kp_event_parse(0, handle);
        EXPECT_EQ(50u, received.size());
        EXPECT_EQ(0, kp_ins_del(handle));
        free(fds);
    });
}
