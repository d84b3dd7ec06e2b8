/*
 * dcache_iterate_fixture.h: walks over a temporary tree, for the tests of the walk over the disk.
 */
#ifndef TESTS_DCACHE_ITERATE_FIXTURE_H
#define TESTS_DCACHE_ITERATE_FIXTURE_H

#include <algorithm>
#include <cstring>

#include "dcache_fixture.h"
#include "linux/dcache_iterate.h"
#include "testlib/tree.h"

using Paths = std::vector<std::string>;

class DcacheIterateTest : public DcacheFixture
{
protected:
    ~DcacheIterateTest() override
    {
        stop_walk();
        EXPECT_EQ(fds_before, testlib::open_fds());
    }

    void make_dirs(std::initializer_list<const char *> paths)
    {
        for (const char *path : paths)
            disk.dir(path);
    }
    int start_walk(int32_t max_depth = 0, int32_t max_subdirs = 0, const void *data = kZeros)
    {
        struct dentry *start = add(disk.root());
        testlib::log_clear();
        int result = dcache_iterate_start(&cache, start, &it, max_depth, max_subdirs, data);
        started = result == 0;
        return result;
    }
    void stop_walk()
    {
        if (started)
            dcache_iterate_stop(&it);
        started = false;
    }
    /* The next directory, relative to the start; "" at the end. */
    std::string take_next()
    {
        struct dentry *d = dcache_iterate_next(&it);
        return d ? full_path(d).substr(disk.root().size() + 1) : "";
    }
    Paths take_all()
    {
        Paths paths;
        for (std::string path; !(path = take_next()).empty();)
            paths.push_back(path);
        return paths;
    }
    /* The whole walk, sorted: streams tell entries in an order of their own. */
    Paths walk(int32_t max_depth = 0, int32_t max_subdirs = 0)
    {
        EXPECT_EQ(0, start_walk(max_depth, max_subdirs));
        Paths paths = take_all();
        stop_walk();
        std::sort(paths.begin(), paths.end());
        return paths;
    }
    std::string open_failed(const std::string &below, int err)
    {
        return "open dir " + disk.path(below) + " failed: " + strerror(err) + "\n";
    }

    static constexpr unsigned char kZeros[DCACHE_DATA_SIZE] = {};
    const int fds_before = testlib::open_fds();
    testlib::TempTree disk;
    struct dcache_iterate it;
    bool started = false;
};

#endif
