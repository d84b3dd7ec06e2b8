/*
 * doctor_testing.h: what the tests of the doctor share.
 */
#ifndef UNIT_DOCTOR_TESTING_H
#define UNIT_DOCTOR_TESTING_H

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>

#include "agent/mounts.h"
#include "cli/doctor/doctor.h"

namespace cli_testing
{

/* What a line of /proc/PID/mountinfo says. */
inline agent::Mount mount_of(const char *line)
{
    agent::Mount mount;
    EXPECT_TRUE(agent::parse_mount(line, mount)) << line;
    return mount;
}

/* The one check of that name. */
inline cli::Check find(const cli::Checks &checks, const std::string &name)
{
    const auto is_it = [&](const cli::Check &check) { return check.name == name; };
    EXPECT_EQ(1, std::count_if(checks.begin(), checks.end(), is_it)) << name;
    const auto found = std::find_if(checks.begin(), checks.end(), is_it);
    return found == checks.end() ? cli::Check{"", "", cli::State::kOk, "", "", true} : *found;
}

inline bool has(const cli::Checks &checks, const std::string &name)
{
    return std::any_of(checks.begin(), checks.end(), [&](const cli::Check &check) { return check.name == name; });
}

inline void expect(const cli::Check &check, cli::State state, std::initializer_list<const char *> parts)
{
    EXPECT_STREQ(cli::state_name(check.state), cli::state_name(state)) << check.name << ": " << check.text;
    for (const char *part : parts)
        EXPECT_NE((check.text + ": " + check.remedy).find(part), std::string::npos)
            << "no '" << part << "' in: " << check.text << ": " << check.remedy;
}

}  // namespace cli_testing

#endif
