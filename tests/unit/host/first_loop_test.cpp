/* A program in which no event loop has been made: the first one opens what all share. */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "orx_event_loop.h"

/* However many descriptors are left. */
TEST(FirstLoop, NeverEndsTheProcessForWantOfDescriptors)
{
    for (int left = 0; left < 12; left++) {
        const pid_t child = fork();
        if (child == 0) {
            const struct rlimit tight = {64, 64};
            setrlimit(RLIMIT_NOFILE, &tight);
            std::vector<int> taken;
            for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;)
                taken.push_back(fd);
            for (int i = 0; i < left; i++)
                close(taken[taken.size() - 1 - static_cast<size_t>(i)]);
            const int once = cl_event_loop_once();
            _exit(once == (left < 6 ? -1 : 0) ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(0, status) << left;
    }
}
