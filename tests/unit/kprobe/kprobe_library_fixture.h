/*
 * kprobe_library_fixture.h: the library as a whole over a made-up kernel, and handles with their descriptors.
 */
#ifndef UNIT_KPROBE_LIBRARY_FIXTURE_H
#define UNIT_KPROBE_LIBRARY_FIXTURE_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "kprobe_instance_fixture.h"
#include "kprobe_subjects.h"
#include "library.h"
#include "testlib/kernel_double/library_thread.h"

namespace kprobe_fixture
{

using kprobe::Library;

/* Without what the library's thread has open for a moment. */
inline int lasting_descriptors()
{
    int open = -1;
    EXPECT_TRUE(testlib::at_rest([&] { open = open_descriptors(); }));
    return open;
}

/* A handle with its descriptors. */
struct Source {
    void *handle = nullptr;
    int32_t *fds = nullptr, count = 0;

    Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    ~Source() { forget(); }
    bool open(Library &library, const char *name)
    {
        handle = library.create(name, &fds, &count);
        return handle != nullptr;
    }
    void forget()
    {
        for (int32_t i = 0; i < count; i++)
            close(fds[i]);
        free(fds);
        fds = nullptr;
        count = 0;
    }
};

struct Environment {
    const char *name;
    Environment(const char *variable, const char *value) : name(variable) { setenv(name, value, 1); }
    ~Environment() { unsetenv(name); }
};

struct Whole {
    testlib::KernelDouble kernel;
    testlib::KernelObjects objects;
    Library probes;
    uint64_t super;
    std::optional<Subjects> subjects; /* 32-bit kernels do not describe their types */

    explicit Whole(bool is_64 = true) : kernel(is_64), objects(&kernel.memory), super(objects.super_block(kDevice))
    {
        kernel.default_files();
        if (!is_64)
            subjects.emplace(&kernel);
        received.clear();
        testlib::take_log();
    }
    ~Whole() { probes.shut_down(); }

    bool works() { return probes.os_info() != nullptr; }
    void add(void *handle, const std::string &name)
    {
        const auto instance = probes.find(handle);
        ASSERT_TRUE(instance);
        ASSERT_EQ(0, instance->add(testlib::file_probe(kernel.is_64, name).record(), keep));
        ASSERT_EQ(0, instance->enable(name, true));
    }
    int create(const std::string &path, int cpu = 0)
    {
        return kernel.hit({"security_inode_create", {0, objects.path(super, path), 0}, 77, 78, cpu});
    }
    /* Parses as the monitor does, until so many have come or a second has gone. */
    Paths wait_for(const Source &source, size_t n)
    {
        std::vector<pollfd> polled;
        for (int32_t i = 0; i < source.count; i++)
            polled.push_back({source.fds[i], POLLIN, 0});
        while (received.size() < n && poll(polled.data(), polled.size(), 1000) > 0)
            for (size_t i = 0; i < polled.size(); i++)
                EXPECT_GE(polled[i].revents ? probes.parse(static_cast<int32_t>(i), source.handle) : 0, 0);
        return paths();
    }
};

/* How many descriptors this process may have. */
struct DescriptorLimit {
    rlimit before = {};
    explicit DescriptorLimit(rlim_t soft)
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit now = {soft, before.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &now));
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
};

}  // namespace kprobe_fixture

#endif
