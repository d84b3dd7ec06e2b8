/* Tests of linux/fmon_linux_global.cpp: which probes system-wide kinds switch. */

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "linux/fmon_linux.h"
#include "linux/probe/clt_file.h"
#include "testlib/fake_host.h"

/* The switch is compiled into this test with its two outgoing calls renamed, so that it is seen alone, without a probe
 * library. */
namespace
{
std::vector<std::string> calls;
void seen_enable_event(uint32_t event_bit, int on)
{
    char text[32];
    snprintf(text, sizeof(text), "0x%x=%c", event_bit, on);
    calls.push_back(text);
}
void seen_enable_filter(uint32_t event_bit) { calls.push_back("filter " + std::to_string(event_bit)); }
}  // namespace

#define enable_event seen_enable_event
#define enable_filter seen_enable_filter
#include "../../../../src/linux/fmon_linux_global.cpp"
#undef enable_event
#undef enable_filter

namespace
{

using Calls = std::vector<std::string>;

class GlobalSwitchTest : public ::testing::Test
{
protected:
    GlobalSwitchTest()
    {
        testlib::reset_host();
        calls.clear();
        saved_ = fmlnx.kp_global;
        fmlnx.kp_global = 1;
    }
    ~GlobalSwitchTest() override { fmlnx.kp_global = saved_; }

private:
    uint32_t saved_;
};

const Calls kAllOn = {"0x8=1", "0x40=1", "0x80=1", "0x200=1", "0x100=1"};
const Calls kAllOff = {"0x8=0", "0x40=0", "0x80=0", "0x200=0", "0x100=0"};

TEST_F(GlobalSwitchTest, AddingCloseWriteSwitchesItsProbeOnlyAndRemovingAllSwitchesAllOff)
{
    EXPECT_EQ(0, fmon_linux_add_global(0x8));
    EXPECT_EQ(Calls{"0x8=1"}, calls);
    calls.clear();
    EXPECT_EQ(0, fmon_linux_del_global(0));
    EXPECT_EQ(kAllOff, calls);
}

TEST_F(GlobalSwitchTest, AllFiveAreSwitchedOnInTheirOrder)
{
    EXPECT_EQ(0, fmon_linux_add_global(UINT32_MAX));
    EXPECT_EQ(kAllOn, calls);
}

TEST_F(GlobalSwitchTest, WhatIsStillWantedStaysOn)
{
    EXPECT_EQ(0, fmon_linux_del_global(0x8 | 0x100));
    EXPECT_EQ((Calls{"0x40=0", "0x80=0", "0x200=0"}), calls);
    calls.clear();
    EXPECT_EQ(0, fmon_linux_del_global(0x3c8));
    EXPECT_EQ(Calls{}, calls);
}

TEST_F(GlobalSwitchTest, AddingLeavesOthersAsTheyAre)
{
    EXPECT_EQ(0, fmon_linux_add_global(0x300));
    EXPECT_EQ((Calls{"0x200=1", "0x100=1"}), calls);
    calls.clear();
    EXPECT_EQ(0, fmon_linux_add_global(0xc0));
    EXPECT_EQ((Calls{"0x40=1", "0x80=1"}), calls);
}

TEST_F(GlobalSwitchTest, KindsWithoutAProbeSwitchNothing)
{
    EXPECT_EQ(0, fmon_linux_add_global(0x20));
    EXPECT_EQ(0, fmon_linux_add_global(0));
    EXPECT_EQ(0, fmon_linux_add_global(~0x3c8u));
    EXPECT_EQ(Calls{}, calls);
    EXPECT_EQ("", testlib::log_text());
}

TEST_F(GlobalSwitchTest, UpdatingRebuildsTheCreateFilterWhateverTheId)
{
    for (const int id : {0, 31, -1, 99}) {
        calls.clear();
        EXPECT_EQ(0, fmon_linux_update_global(id));
        EXPECT_EQ(Calls{"filter 256"}, calls);
    }
}

/* Also the state of a process in a container: the probes are never started there. */
TEST_F(GlobalSwitchTest, WithoutProbesEveryCallIsRefusedWithAWarning)
{
    for (const uint32_t state : {0u, 2u}) {
        testlib::log_clear();
        fmlnx.kp_global = state;
        EXPECT_EQ(-1, fmon_linux_add_global(0x8));
        EXPECT_EQ(-1, fmon_linux_add_global(0x20));
        EXPECT_EQ(-1, fmon_linux_del_global(0));
        EXPECT_EQ(-1, fmon_linux_update_global(0));
        EXPECT_EQ(4, testlib::log_count(2, "not support global event"));
        EXPECT_EQ("linux/fmon_linux.c", testlib::log_lines().at(0).file);
        EXPECT_EQ(Calls{}, calls);
    }
}

}  // namespace
