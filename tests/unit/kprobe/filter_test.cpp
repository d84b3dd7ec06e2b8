/* Filters: devices in the place of mount ids, and nothing else touched. */
#include "filter.h"

#include <gtest/gtest.h>

#include "mounts.h"

using namespace kprobe;

namespace
{

MountMap some_mounts()
{
    MountMap mounts;
    mounts.refresh({{1, 8 << 20 | 1, true, "/"}, {10, 20, true, "/tmp"}, {2147483647, 30, true, "/last"}});
    return mounts;
}

std::string by_device(const std::string &filter) { return filter_by_device(filter, some_mounts()); }

using Ids = std::vector<int32_t>;

}  // namespace

TEST(KprobeFilter, IdsBecomeDevices)
{
    EXPECT_EQ("mnt==8388609", by_device("mnt==1"));
    EXPECT_EQ("mnt==8388609||mnt==20", by_device("mnt==1||mnt==10"));
    EXPECT_EQ("(mnt==20||mnt==0)&&m==8&&f>=32768&&f<=36863", by_device("(mnt==10||mnt==0)&&m==8&&f>=32768&&f<=36863"));
    EXPECT_EQ("mnt == 20 && common_pid!=10", by_device("mnt == 10 && common_pid!=10"));
    EXPECT_EQ("mnt!=30", by_device("mnt!=2147483647"));
}

TEST(KprobeFilter, IdsWithoutADeviceMatchNothing)
{
    EXPECT_EQ("mnt==0", by_device("mnt==0"));
    EXPECT_EQ("mnt==4294967295", by_device("mnt==77"));
    EXPECT_EQ("mnt==4294967295||mnt==20", by_device("mnt==100||mnt==10"));
}

TEST(KprobeFilter, OtherNamesStay)
{
    for (const char *filter : {"", "xmnt==1", "mnt2==1", "_mnt==1", "mnt_==1", "m==1", "mnt", "mnt==", "mntx",
                               "1mnt==1", "m==8&&f>=32768", "mnt==m", "mnt==other"})
        EXPECT_EQ(filter, by_device(filter));
}

TEST(KprobeFilter, NumbersBeyond32BitsAreNoMount)
{
    EXPECT_EQ("mnt==4294967295", by_device("mnt==2147483648"));
    EXPECT_EQ("mnt==4294967295", by_device("mnt==99999999999999999999999"));
    EXPECT_EQ("mnt==4294967295||mnt==20", by_device("mnt==18446744073709551617||mnt==10"));
}

TEST(KprobeFilter, IdsThatAreNamed)
{
    EXPECT_EQ((Ids{1, 10}), mount_ids("mnt==1||mnt==10"));
    EXPECT_EQ((Ids{0, 5}), mount_ids("(mnt==0||mnt==5)&&xmnt==6&&mnt2==7&&common_pid!=8"));
    EXPECT_EQ(Ids{}, mount_ids(""));
    EXPECT_EQ(Ids{}, mount_ids("m==8&&mnt"));
}

// With 25 mounts and more the monitor's buffer of 256 bytes has no room for all of it.
TEST(KprobeFilter, ACloseFilterThatWasCutOff)
{
    Definition close_write;
    close_write.point = "__fsnotify_parent";
    const std::string mounts = "(mnt==10||mnt==0)", whole = mounts + "&&m==8&&f>=32768&&f<=36863";
    for (size_t length = mounts.size(); length <= whole.size(); length++)
        EXPECT_EQ(whole, whole_filter(close_write, whole.substr(0, length)));
    for (const char *other : {"", "(mnt==10||mnt==", "&&m==8&&f>=32768&&f<=36863", "(mnt==1)&&m==9", "mnt==1"})
        EXPECT_EQ(other, whole_filter(close_write, other));
    Definition create;
    create.point = "security_inode_create";
    EXPECT_EQ(mounts, whole_filter(create, mounts));
}

TEST(KprobeFilter, EndsOfWatchesPass)
{
    EXPECT_EQ("(common_pid!=12&&w!=0)||m&33792", filter_with_ends("common_pid!=12&&w!=0"));
    EXPECT_EQ("", filter_with_ends(""));
}

TEST(KprobeFilter, ThreadsThatAreLeftOut)
{
    using Threads = std::vector<uint32_t>;
    EXPECT_EQ((Threads{12, 7}), threads_left_out("common_pid!=12&&common_pid!=7&&w!=0"));
    EXPECT_EQ(Threads{}, threads_left_out("w!=0&&common_pid==3"));
    EXPECT_EQ(Threads{}, threads_left_out("common_pid!=&&common_pid!=-1&&common_pid!=99999999999"));
}
