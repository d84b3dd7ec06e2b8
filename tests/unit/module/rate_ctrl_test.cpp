/* Tests of linux/rate_ctrl.h: the allowance of reads for each descriptor. */

#include "linux/rate_ctrl.h"

#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include "linux/fmon_linux.h"
#include "testlib/fake_host.h"

namespace
{

constexpr int kSlots = 4;

/* Four descriptor positions whose periods began at kStart; position 1 is unusable. */
class RateCtrlTest : public ::testing::Test
{
protected:
    static constexpr uint32_t kStart = 5000;

    RateCtrlTest()
    {
        testlib::reset_host();
        saved_ = fmlnx;
        fmlnx.fds = fds_;
        fmlnx.fd_num = kSlots;
        fmlnx.period_start = start_;
        fmlnx.delay = delay_;
        fmlnx.io_count = count_;
        fmlnx.rate_limit = fmlnx.rate_interval = fmlnx.rate_log = 0;
        begin(kStart);
    }
    ~RateCtrlTest() override { fmlnx = saved_; }

    void begin(uint32_t at)
    {
        for (int i = 0; i < kSlots; i++)
            start_[i] = at;
    }
    /* The delay of position 0 after `count` reads, `elapsed` ms into its period. */
    uint32_t delay_at(uint32_t elapsed, uint32_t count)
    {
        count_[0] = count;
        rate_ctrl(&fmon, start_[0] + elapsed);
        return delay_[0];
    }

    int32_t fds_[kSlots] = {10, -1, 12, 0};
    uint32_t start_[kSlots] = {}, delay_[kSlots] = {}, count_[kSlots] = {};

private:
    struct fmlnx_t saved_;
};

TEST_F(RateCtrlTest, TheIntervalIsKeptWithinItsBounds)
{
    const struct {
        uint32_t given, stored;
    } rows[] = {{0, 10},    {5, 10},      {9, 10},      {10, 10},     {11, 11},          {200, 200},
                {999, 999}, {1000, 1000}, {1001, 1000}, {5000, 1000}, {UINT32_MAX, 1000}};
    for (const auto &row : rows) {
        EXPECT_EQ(0, fmon_linux_rate_ctrl(1, row.given, 0));
        EXPECT_EQ(row.stored, fmlnx.rate_interval) << row.given;
    }
}

TEST_F(RateCtrlTest, SettingsAreStoredAndCountsForgiven)
{
    for (int i = 0; i < kSlots; i++)
        delay_[i] = count_[i] = 7;
    EXPECT_EQ(0, fmon_linux_rate_ctrl(10, 200, 3));
    EXPECT_EQ(10u, fmlnx.rate_limit);
    EXPECT_EQ(3u, fmlnx.rate_log);
    for (int i = 0; i < kSlots; i++) {
        EXPECT_EQ(0u, delay_[i]);
        EXPECT_EQ(0u, count_[i]);
        EXPECT_EQ(kStart, start_[i]) << "the running period goes on";
    }
}

TEST_F(RateCtrlTest, SettingsBeforeTheStartTouchNoDescriptor)
{
    fmlnx.fd_num = 0;
    fmlnx.delay = fmlnx.io_count = nullptr;
    EXPECT_EQ(0, fmon_linux_rate_ctrl(10, 200, 0));
}

TEST_F(RateCtrlTest, WithoutLimitAndLogNothingIsComputed)
{
    fmon_linux_rate_ctrl(0, 200, 0);
    delay_[0] = 3;
    count_[0] = 99;
    rate_ctrl(&fmon, kStart + 5000);
    EXPECT_EQ(3u, delay_[0]);
    EXPECT_EQ(99u, count_[0]);
    EXPECT_EQ(kStart, start_[0]);
}

/* limit 10, interval 200: 3 reads a slot, 10 a second. */
TEST_F(RateCtrlTest, TheAllowanceIsSpreadOverTheSecond)
{
    const struct {
        uint32_t elapsed, count, delay;
    } rows[] = {
        {0, 0, 0},     {0, 2, 0},      {0, 3, 200},    {50, 2, 0},   {50, 3, 150},         {50, 9, 150},
        {199, 3, 1},   {199, 2, 0},    {200, 3, 0},    {200, 5, 0},  {200, 6, 200},        {399, 6, 1},
        {400, 6, 0},   {400, 8, 0},    {400, 9, 200},  {599, 9, 1},  {600, 9, 0},          {999, 9, 0},
        {0, 10, 1000}, {500, 10, 500}, {500, 11, 500}, {999, 10, 1}, {999, UINT32_MAX, 1},
    };
    fmon_linux_rate_ctrl(10, 200, 0);
    for (const auto &row : rows)
        EXPECT_EQ(row.delay, delay_at(row.elapsed, row.count)) << row.elapsed << " ms, " << row.count << " reads";
}

TEST_F(RateCtrlTest, OtherSettingsFollowTheSameFormula)
{
    const struct {
        uint32_t limit, interval, elapsed, count, delay;
    } rows[] = {
        {1, 1000, 0, 0, 0},   {1, 1000, 0, 1, 1000}, {100, 10, 0, 1, 0},    {100, 10, 0, 2, 10},
        {100, 10, 9, 2, 1},   {100, 10, 10, 2, 0},   {100, 10, 999, 99, 0}, {100, 10, 995, 100, 5},
        {1000, 10, 5, 10, 0}, {1000, 10, 5, 11, 5},  {10, 1000, 500, 9, 0}, {10, 1000, 500, 10, 500},
        {10, 300, 299, 3, 0}, {10, 300, 299, 4, 1},  {10, 300, 900, 9, 0},  {10, 999, 0, 9, 0},
        {10, 999, 999, 9, 0}, {10, 501, 0, 9, 0},    {10, 500, 0, 5, 0},    {10, 500, 0, 6, 500},
        {7, 11, 0, 1, 11},    {7, 11, 0, 0, 0},      {7, 11, 12, 2, 10},    {7, 11, 990, 7, 10},
    };
    for (const auto &row : rows) {
        fmon_linux_rate_ctrl(row.limit, row.interval, 0);
        EXPECT_EQ(row.delay, delay_at(row.elapsed, row.count))
            << row.limit << "/" << row.interval << ": " << row.elapsed << " ms, " << row.count << " reads";
    }
}

/* One read in each of the first slots until the limit is used up; the limit is looked at before the slot's share. */
TEST_F(RateCtrlTest, ALimitBelowTheNumberOfSlotsAllowsOneReadASlotUpToTheLimit)
{
    fmon_linux_rate_ctrl(3, 100, 0);
    EXPECT_EQ(0u, delay_at(0, 0));
    EXPECT_EQ(100u, delay_at(0, 1));
    EXPECT_EQ(0u, delay_at(100, 1));
    EXPECT_EQ(100u, delay_at(100, 2));
    EXPECT_EQ(800u, delay_at(200, 3));
}

TEST_F(RateCtrlTest, LimitOneIsOneReadASecond)
{
    fmon_linux_rate_ctrl(1, 200, 0);
    EXPECT_EQ(0u, delay_at(0, 0));
    EXPECT_EQ(999u, delay_at(1, 1));
    EXPECT_EQ(1u, delay_at(999, 1));
    EXPECT_EQ(0u, delay_at(1000, 1));
    EXPECT_EQ(0u, count_[0]);
}

TEST_F(RateCtrlTest, ThePeriodEndsAt1000Milliseconds)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    EXPECT_EQ(1u, delay_at(999, 10));
    EXPECT_EQ(10u, count_[0]);
    EXPECT_EQ(kStart, start_[0]);

    EXPECT_EQ(0u, delay_at(1000, 10));
    EXPECT_EQ(0u, count_[0]);
    EXPECT_EQ(kStart + 1000, start_[0]);

    EXPECT_EQ(0u, delay_at(1001, 10));
    EXPECT_EQ(kStart + 2001, start_[0]);
}

TEST_F(RateCtrlTest, TheFirstPassAfterTheStartOpensAPeriod)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    begin(0);
    EXPECT_EQ(0u, delay_at(123456, 50));
    EXPECT_EQ(0u, count_[0]);
    EXPECT_EQ(123456u, start_[0]);
}

TEST_F(RateCtrlTest, ThePeriodGoesOnAcrossTheWrapOfTheClock)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    begin(0xffffff00u);
    EXPECT_EQ(64u, delay_at(336, 7)) << "slot 1, 336 ms into the period that began 256 ms before the wrap";
    EXPECT_EQ(0xffffff00u, start_[0]);
    EXPECT_EQ(1u, delay_at(999, 10));
    EXPECT_EQ(0u, delay_at(1000, 10));
    EXPECT_EQ(744u, start_[0]);
}

TEST_F(RateCtrlTest, AClockThatStepsBackEndsThePeriod)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    count_[0] = 10;
    rate_ctrl(&fmon, kStart - 1);
    EXPECT_EQ(0u, delay_[0]);
    EXPECT_EQ(kStart - 1, start_[0]);
}

TEST_F(RateCtrlTest, AnUnusableDescriptorIsNeverTouched)
{
    fmon_linux_rate_ctrl(10, 200, 1);
    delay_[1] = 5;
    count_[1] = 20;
    rate_ctrl(&fmon, kStart + 100);
    rate_ctrl(&fmon, kStart + 3000);
    EXPECT_EQ(5u, delay_[1]);
    EXPECT_EQ(20u, count_[1]);
    EXPECT_EQ(kStart, start_[1]);
    EXPECT_EQ(0, testlib::log_count_containing("fd[1]"));
}

TEST_F(RateCtrlTest, EachDescriptorHasItsOwnPeriodAndCount)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    start_[2] = kStart + 600;
    count_[0] = 10;
    count_[2] = 3;
    count_[3] = 1;
    rate_ctrl(&fmon, kStart + 700);
    EXPECT_EQ(300u, delay_[0]);
    EXPECT_EQ(100u, delay_[2]);
    EXPECT_EQ(0u, delay_[3]) << "descriptor 0 is as good as any";
}

TEST_F(RateCtrlTest, ADelayIsNotCountedDownButComputedAgain)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    EXPECT_EQ(150u, delay_at(50, 3));
    EXPECT_EQ(120u, delay_at(80, 3));
    EXPECT_EQ(0u, delay_at(200, 3));
}

TEST_F(RateCtrlTest, TheLogTellsEachBusyDescriptorOnceAPeriod)
{
    fmon_linux_rate_ctrl(10, 200, 1);
    count_[0] = 4;
    count_[3] = 0;
    rate_ctrl(&fmon, kStart + 999);
    EXPECT_EQ("", testlib::log_text());
    rate_ctrl(&fmon, kStart + 1234);
    EXPECT_TRUE(testlib::logged(4, "fd[0]: 4 io 1234 ms\n"));
    ASSERT_EQ(1u, testlib::log_lines().size()) << testlib::log_text();
    EXPECT_EQ("linux/rate_ctrl.c", testlib::log_lines()[0].file);
}

TEST_F(RateCtrlTest, LogWithoutLimitCountsPeriodsAndDelaysNobody)
{
    fmon_linux_rate_ctrl(0, 200, 1);
    EXPECT_EQ(0u, delay_at(100, 5000));
    EXPECT_EQ(5000u, count_[0]);
    EXPECT_EQ(0u, delay_at(1000, 5000));
    EXPECT_TRUE(testlib::logged(4, "fd[0]: 5000 io 1000 ms\n"));
    EXPECT_EQ(0u, count_[0]);
}

TEST_F(RateCtrlTest, LimitWithoutLogWritesNothing)
{
    fmon_linux_rate_ctrl(10, 200, 0);
    EXPECT_EQ(0u, delay_at(1000, 5));
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(RateCtrlTest, ALimitOutOfAllProportionAbortsInsteadOfWrapping)
{
    fmon_linux_rate_ctrl(INT32_MAX, 1000, 0);
    EXPECT_EXIT(rate_ctrl(&fmon, kStart), ::testing::KilledBySignal(SIGABRT), "");
    fmon_linux_rate_ctrl(INT32_MAX, 500, 0);
    EXPECT_EQ(0u, delay_at(0, 1000));
    EXPECT_EXIT(rate_ctrl(&fmon, kStart + 500), ::testing::KilledBySignal(SIGABRT), "") << "2 x (2^30)";
}

}  // namespace
