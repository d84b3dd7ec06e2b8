/*
 * main.cpp: the main function of every test program, in place of GoogleTest's. The status says what CTest shows:
 * 0: all cases passed; 77 ("Skipped"): none failed, and some could not run on this machine; another: some failed, or
 * the filter selected none.
 */
#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    if (status != 0 || testing::GTEST_FLAG(list_tests))
        return status;
    const testing::UnitTest &run = *testing::UnitTest::GetInstance();
    if (run.test_to_run_count() == 0) {
        fprintf(stderr, "no case was selected\n");
        return 1;
    }
    return run.skipped_test_count() > 0 ? 77 : 0;
}
