/* Tests of orx_host.h: log lines that one thread takes for itself. */

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "host_support.h"
#include "orx_base.h"
#include "orx_host.h"

namespace
{

using host_test::CapturedStderr;

using Lines = std::vector<std::string>;

void keep(int level, const char *file, int line, const char *text, void *arg)
{
    static_cast<Lines *>(arg)->push_back(std::to_string(level) + " " + file + ":" + std::to_string(line) + " " + text);
}

class LogCapture : public testing::Test
{
protected:
    void SetUp() override { error_output_level = ORX_LOG_WARNING; }
    void TearDown() override
    {
        orx_host_log_capture(nullptr, nullptr);
        orx_host_log_sink(nullptr, nullptr);
        error_output_level = ORX_LOG_WARNING;
    }
    Lines captured_, seen_;
};

TEST_F(LogCapture, TakesLinesOfEveryLevelAndLogsWhatWasLoggedBefore)
{
    CapturedStderr err;
    orx_host_log_capture(keep, &captured_);
    EXPECT_EQ(ORX_LOG_DEBUG, error_output_level);
    error_output(ORX_LOG_DEBUG, "a.c", 1, "debug %d\n", 7);
    error_output(ORX_LOG_WARNING, "a.c", 2, "warning");
    orx_host_log_capture(nullptr, nullptr);
    error_output(ORX_LOG_DEBUG, "a.c", 3, "not seen");
    EXPECT_EQ(ORX_LOG_WARNING, error_output_level);
    EXPECT_EQ((Lines{"4 a.c:1 debug 7", "2 a.c:2 warning"}), captured_);
    ASSERT_EQ(1u, err.lines().size());
    EXPECT_TRUE(err.lines()[0].ends_with("] warning"));
}

TEST_F(LogCapture, LeavesOtherThreadsAndTheSinkAsTheyWere)
{
    CapturedStderr err;
    orx_host_log_sink(keep, &seen_);
    orx_host_log_capture(keep, &captured_);
    error_output(ORX_LOG_DEBUG, "a.c", 1, "mine");
    std::thread([] {
        error_output(ORX_LOG_DEBUG, "b.c", 1, "too low");
        error_output(ORX_LOG_ERROR, "b.c", 2, "theirs");
    }).join();
    EXPECT_EQ(Lines{"4 a.c:1 mine"}, captured_);
    EXPECT_EQ(Lines{"1 b.c:2 theirs"}, seen_);
    EXPECT_EQ(1u, err.lines().size());
}

TEST_F(LogCapture, AtTheHighestLevelLinesGoBothWays)
{
    CapturedStderr err;
    error_output_level = ORX_LOG_DEBUG;
    orx_host_log_capture(keep, &captured_);
    error_output(ORX_LOG_DEBUG, "a.c", 1, "x");
    orx_host_log_capture(nullptr, nullptr);
    EXPECT_EQ(ORX_LOG_DEBUG, error_output_level);
    EXPECT_EQ(1u, captured_.size());
    EXPECT_EQ(1u, err.lines().size());
}

/* The level comes back when the last of several threads is done. */
TEST_F(LogCapture, SeveralThreadsAtOnce)
{
    CapturedStderr err;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([&wrong, i] {
            for (int round = 0; round < 200; round++) {
                Lines mine;
                orx_host_log_capture(keep, &mine);
                error_output(ORX_LOG_DEBUG, "t.c", i, "x");
                orx_host_log_capture(nullptr, nullptr);
                wrong += mine != Lines{"4 t.c:" + std::to_string(i) + " x"};
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(ORX_LOG_WARNING, error_output_level);
    EXPECT_EQ("", err.text());
}

TEST_F(LogCapture, EndingWhatWasNotBegunDoesNothing)
{
    orx_host_log_capture(nullptr, nullptr);
    EXPECT_EQ(ORX_LOG_WARNING, error_output_level);
    orx_host_log_capture(keep, &captured_);
    orx_host_log_capture(keep, &seen_); /* another place for the same thread's lines */
    error_output(ORX_LOG_DEBUG, "a.c", 1, "x");
    orx_host_log_capture(nullptr, nullptr);
    EXPECT_EQ(ORX_LOG_WARNING, error_output_level);
    EXPECT_TRUE(captured_.empty());
    EXPECT_EQ(1u, seen_.size());
}

}  // namespace
