/*
 * doctor_testing.h: what the tests of the doctor share.
 */
#ifndef UNIT_DOCTOR_TESTING_H
#define UNIT_DOCTOR_TESTING_H

#include <gtest/gtest.h>

#include "agent/mounts.h"

namespace cli_testing
{

/* What a line of /proc/PID/mountinfo says. */
inline agent::Mount mount_of(const char *line)
{
    agent::Mount mount;
    EXPECT_TRUE(agent::parse_mount(line, mount)) << line;
    return mount;
}

}  // namespace cli_testing

#endif
