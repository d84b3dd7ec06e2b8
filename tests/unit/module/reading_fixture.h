/*
 * reading_fixture.h: a started monitor with a watch on the directory "a", for the tests of the readers.
 */
#ifndef TESTS_READING_FIXTURE_H
#define TESTS_READING_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "linux/fmon_linux.h"
#include "testlib/backend.h"
#include "testlib/fake_host.h"
#include "testlib/tree.h"

using Strings = std::vector<std::string>;

class Reading : public ::testing::Test
{
protected:
    Reading()
    {
        a = tree.dir("a");
        EXPECT_EQ(0, m.result);
        EXPECT_EQ(0, m.add(a, FMON_ALL_EVENTS, FMON_DIR));
        wd = testlib::wd_of(a);
        testlib::log_clear();
    }
    testlib::TempTree tree;
    testlib::LinuxMonitor m;
    std::string a;
    int wd;
};

#endif
