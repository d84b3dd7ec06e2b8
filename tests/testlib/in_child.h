/*
 * in_child.h: runs the body of a case in a process of its own, for what the module keeps for the life of a process.
 */
#ifndef UNIT_IN_CHILD_H
#define UNIT_IN_CHILD_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

/* Failures of the body are printed by the child and fail the case. */
template <typename Body>
void in_child(Body body)
{
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status) << "see the failures above";
}

#endif
