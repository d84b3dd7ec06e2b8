/*
 * watching_fixture.h: a started monitor over a made-up fanotify, for the tests of adding and deleting watches.
 */
#ifndef TESTS_WATCHING_FIXTURE_H
#define TESTS_WATCHING_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "linux/fmon_linux.h"
#include "testlib/backend.h"
#include "testlib/tree.h"

inline constexpr uint64_t kOnDir = 0x48000000;

class Watching : public ::testing::Test
{
protected:
    Watching() { EXPECT_EQ(0, m.result); }
    ~Watching() override { g_container_flag = 0; }
    uint64_t fan(const std::string &path) { return m.fanotify.mask_of(fmlnx.fan_fd[0], path); }
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
};

#endif
