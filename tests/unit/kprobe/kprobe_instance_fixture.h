/*
 * kprobe_instance_fixture.h: an instance over a made-up kernel, and the records that it hands on.
 */
#ifndef UNIT_KPROBE_INSTANCE_FIXTURE_H
#define UNIT_KPROBE_INSTANCE_FIXTURE_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "instance.h"
#include "kprobe_facts.h"
#include "testlib/kernel_double/agent_log.h"
#include "testlib/kernel_double/kernel_double.h"
#include "testlib/kernel_double/kernel_objects.h"

namespace kprobe_fixture
{

/* A file record as the monitor reads it. */
struct Received {
    uint32_t pid;
    std::vector<unsigned char> bytes;

    uint32_t word(size_t at) const
    {
        uint32_t value;
        memcpy(&value, bytes.data() + at, sizeof(value));
        return value;
    }
    uint32_t mount() const { return word(0); }
    std::string text(size_t at, size_t room) const
    {
        const auto *from = reinterpret_cast<const char *>(bytes.data()) + at;
        return {from, strnlen(from, room)};
    }
    /* "/a/b/c" of the names below the root. */
    std::string path() const
    {
        std::string out = "/" + text(kprobe::kLeafOffset, kprobe::kLeafSize);
        for (uint32_t level = 1; level <= kprobe::kAncestors; level++) {
            const std::string name =
                text(4 + (kprobe::kAncestors - level) * kprobe::kAncestorSize, kprobe::kAncestorSize);
            if (name == "/")
                return out;
            out = "/" + name + out;
        }
        return "no root:" + out;
    }
};

inline std::vector<Received> received;

inline void keep(uint32_t pid, void *record, uint32_t size)
{
    auto *bytes = static_cast<unsigned char *>(record);
    received.push_back({pid, {bytes, bytes + size}});
    memset(record, 0xee, size); /* the monitor writes into it */
}

inline std::vector<std::string> paths()
{
    std::vector<std::string> out;
    for (const Received &record : received)
        out.push_back(record.path());
    received.clear();
    return out;
}

inline bool is_readable(int fd)
{
    pollfd polled = {fd, POLLIN, 0};
    return poll(&polled, 1, 0) == 1;
}

inline int open_descriptors()
{
    DIR *dir = opendir("/proc/self/fd");
    int n = 0;
    while (readdir(dir))
        n++;
    closedir(dir);
    return n;
}

constexpr uint32_t kDevice = 20; /* of mount 23 */

struct Fixture {
    testlib::KernelDouble kernel;
    testlib::KernelObjects objects;
    kprobe::Tracefs tracefs;
    kprobe::Facts facts;
    /* On the heap: the thread sanitizer takes locks on the stack for those of an earlier test that stood there. */
    std::unique_ptr<kprobe::Instance> owned;
    kprobe::Instance &instance;
    uint64_t super;

    explicit Fixture(bool is_64 = true, kprobe::Sizes sizes = {1 << 16, 1 << 18}, std::vector<int> cpus = {0, 1})
        : kernel(is_64),
          objects(&kernel.memory),
          facts(is_64 ? kprobe_facts::amd64_6_1() : kprobe_facts::i386_6_1()),
          owned(std::make_unique<kprobe::Instance>(tracefs, facts, "orx_1_2_3_clt_file")),
          instance(*owned),
          super(objects.super_block(kDevice))
    {
        std::string why;
        kernel.default_files();
        received.clear();
        testlib::take_log();
        EXPECT_TRUE(tracefs.find(why)) << why;
        EXPECT_EQ(0, instance.open(cpus, sizes));
    }

    int add(const testlib::ModuleProbe &probe) { return instance.add(probe.record(), keep); }
    int add(const std::string &name, const std::string &filter = "")
    {
        return add(testlib::file_probe(kernel.is_64, name, filter));
    }
    void add_on(const std::string &name)
    {
        ASSERT_EQ(0, add(name));
        ASSERT_EQ(0, instance.enable(name, true));
    }

    /* The creation of a file. Returns how many records came of it. */
    int create(const std::string &path, uint64_t time = 0, int cpu = 0, uint32_t pid = 77)
    {
        return kernel.hit({"security_inode_create", {0, objects.path(super, path), 0}, pid, pid + 1, cpu, time});
    }
    bool sweep() { return instance.sweep(UINT64_MAX); }
    /* Time passes, and the events that had the filter before are closed. */
    void settle()
    {
        testlib::pass_time(kprobe::Replacement::kOverlap);
        EXPECT_FALSE(instance.close_replaced());
    }
    std::vector<std::string> parse(size_t budget = 1000)
    {
        sweep();
        instance.parse(budget);
        return paths();
    }
    kp_losses losses() { return instance.losses(); }
};

using Paths = std::vector<std::string>;

}  // namespace kprobe_fixture

#endif
