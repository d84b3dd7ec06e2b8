/* Tests of descriptors.h: the limit of descriptors, and the sentence for its end. */

#include "agent/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/fd.h"
#include "output/output.h"

using namespace agent;

TEST(CliDescriptors, TheSentenceNamesTheLimitThatWasReached)
{
    struct rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    EXPECT_NE(reason_text(EMFILE).find("no file descriptor is left"), std::string::npos);
    EXPECT_NE(reason_text(EMFILE).find("LimitNOFILE="), std::string::npos);
    EXPECT_NE(reason_text(ENFILE).find("sysctl fs.file-max"), std::string::npos);
    EXPECT_EQ(reason_text(EACCES), strerror(EACCES));
}

TEST(CliDescriptors, WhatIsLeftIsCounted)
{
    struct rlimit before, few;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    few = {64, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    const uint64_t left = descriptors_left();
    EXPECT_GT(left, 30u);
    EXPECT_LT(left, 64u);
    std::vector<common::Fd> taken;
    while (common::Fd fd{open("/dev/null", O_RDONLY | O_CLOEXEC)})
        taken.push_back(std::move(fd));
    EXPECT_EQ(0u, descriptors_left());
    output::Output output;
    std::string error;
    EXPECT_FALSE(output.open("/dev/null", true, error));
    EXPECT_NE(error.find("cannot write to /dev/null: no file descriptor is left"), std::string::npos) << error;
    taken.resize(taken.size() - 3);
    EXPECT_LE(descriptors_left(), 3u);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
}
