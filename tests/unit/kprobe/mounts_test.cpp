/* The mount table: its lines, and which mount stands for a device. */
#include "mounts.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <random>

using namespace kprobe;

namespace
{

const char *const kTable =
    "20 1 8:1 / / rw,relatime shared:1 - ext4 /dev/root rw\n"
    "23 20 0:20 / /tmp rw - tmpfs tmpfs rw\n"
    "31 20 0:20 / /srv/bind rw master:4 propagate_from:2 - tmpfs tmpfs rw\n"
    "22 20 0:20 /below /srv/part rw shared:9 - tmpfs tmpfs rw\n";

MountMap map_of(std::vector<Mount> mounts)
{
    MountMap map;
    map.refresh(std::move(mounts));
    return map;
}

}  // namespace

TEST(KprobeMounts, Lines)
{
    const std::vector<Mount> mounts = parse_mounts(kTable);
    ASSERT_EQ(4u, mounts.size());
    EXPECT_EQ(20, mounts[0].id);
    EXPECT_EQ(8u << 20 | 1, mounts[0].device);
    EXPECT_EQ("/", mounts[0].point);
    EXPECT_TRUE(mounts[0].whole);
    EXPECT_EQ("/srv/bind", mounts[2].point);
    EXPECT_TRUE(mounts[2].whole);
    EXPECT_EQ("/srv/part", mounts[3].point);
    EXPECT_FALSE(mounts[3].whole);
}

TEST(KprobeMounts, LargeDevices)
{
    const std::vector<Mount> mounts = parse_mounts("5 1 259:1048575 / /x rw - ext4 /dev/x rw\n");
    ASSERT_EQ(1u, mounts.size());
    EXPECT_EQ(259u << 20 | 1048575, mounts[0].device);
}

TEST(KprobeMounts, Escapes)
{
    const struct {
        const char *written, *meant;
    } rows[] = {{"/a\\040b", "/a b"}, {"/\\011\\012\\134", "/\t\n\\"}, {"/a\\04", "/a\\04"},
                {"/a\\", "/a\\"},     {"/a\\089", "/a\\089"},          {"/\\134040", "/\\040"},
                {"/#\\043", "/##"},   {"/\\303\\274", "/\xc3\xbc"}};
    for (const auto &row : rows) {
        const auto mounts = parse_mounts("5 1 0:9 / " + std::string(row.written) + " rw - tmpfs t rw\n");
        ASSERT_EQ(1u, mounts.size()) << row.written;
        EXPECT_EQ(row.meant, mounts[0].point);
    }
}

TEST(KprobeMounts, LinesThatAreNone)
{
    for (const char *line : {"", "\n\n\n", "x", "5", "5 1", "5 1 0", "5 1 0:", "5 1 :9 / / rw", "a 1 0:9 / / rw",
                             "5 1 0:9 /", "5 1 0:9 / ", "5 1 0:9", "   ", "5 1 0:9  "})
        EXPECT_TRUE(parse_mounts(line).empty()) << line;
    const std::vector<Mount> mounts = parse_mounts("rubbish\n5 1 0:9 / /x rw\nmore");
    ASSERT_EQ(1u, mounts.size());
    EXPECT_EQ("/x", mounts[0].point);
    EXPECT_EQ(1u, parse_mounts("5 1 0:9 / /last-without-an-end").size());
}

TEST(KprobeMounts, AnyBytes)
{
    std::mt19937 random(7);
    for (int round = 0; round < 20000; round++) {
        std::string text = kTable;
        for (int i = 0; i < 4; i++)
            text[random() % text.size()] = static_cast<char>(random());
        text.resize(random() % text.size());
        for (const Mount &mount : parse_mounts(text))
            ASSERT_FALSE(mount.point.empty());
    }
}

TEST(KprobeMounts, TheLowestWholeMountStandsForADevice)
{
    const MountMap map = map_of(parse_mounts(kTable));
    EXPECT_EQ(23, map.id_of(20)); /* 22 shows a part */
    EXPECT_EQ(20, map.id_of(8 << 20 | 1));
    EXPECT_EQ(0, map.id_of(21));
    EXPECT_EQ(20u, map.device_of(31));
    EXPECT_EQ(20u, map.device_of(22));
    EXPECT_EQ(0u, map.device_of(99));
    EXPECT_STREQ("/tmp", map.point_of(20));
    EXPECT_EQ(nullptr, map.point_of(21));
    EXPECT_EQ(9, map_of({{9, 7, false, "/b"}, {12, 7, false, "/c"}}).id_of(7)); /* parts only */
}

TEST(KprobeMounts, WantedIdsComeFirst)
{
    MountMap map = map_of(parse_mounts(kTable));
    map.want({31, 22, 0, 99});
    EXPECT_EQ(22, map.id_of(20));
    EXPECT_EQ(20, map.id_of(8 << 20 | 1));
    map.want({31});
    EXPECT_EQ(31, map.id_of(20));
    map.want({});
    EXPECT_EQ(23, map.id_of(20));
    map.want({0, 99}); /* no mount of any device */
    EXPECT_EQ(0, map.id_of(0));
}

TEST(KprobeMounts, AMountPointMountedAnew)
{
    MountMap map = map_of({{20, 1, true, "/"}, {23, 20, true, "/tmp"}});
    map.want({23});
    map.refresh({{20, 1, true, "/"}, {40, 33, true, "/tmp"}});
    EXPECT_EQ(33u, map.device_of(23)) << "the monitor keeps the id that it knows";
    EXPECT_EQ(23, map.id_of(33));
    EXPECT_EQ(0, map.id_of(20));
    map.refresh({{20, 1, true, "/"}});
    EXPECT_EQ(0u, map.device_of(23));
    map.refresh({{20, 1, true, "/"}, {41, 34, true, "/tmp"}, {42, 35, true, "/tmp"}});
    EXPECT_EQ(35u, map.device_of(23)) << "the mount on top";
}

TEST(KprobeMounts, AnIdThatIsUsedAgain)
{
    MountMap map = map_of({{23, 20, true, "/tmp"}});
    map.refresh({});
    map.refresh({{23, 50, true, "/other"}});
    EXPECT_EQ(50u, map.device_of(23));
}

TEST(KprobeMounts, WhatIsRememberedHasAnEnd)
{
    MountMap map;
    for (int id = 1; id <= 1100; id++)
        map.refresh({{id, static_cast<uint32_t>(id), true, "/m" + std::to_string(id)}});
    std::vector<Mount> all;
    for (int id = 1; id <= 1100; id++)
        all.push_back({10000 + id, static_cast<uint32_t>(20000 + id), true, "/m" + std::to_string(id)});
    map.refresh(all);
    EXPECT_EQ(21100u, map.device_of(1100));
    EXPECT_EQ(20077u, map.device_of(77)); /* of 1100 that went, the last 1024 */
    EXPECT_EQ(0u, map.device_of(76));
    EXPECT_EQ(0u, map.device_of(1));
}

/* Each record asks, and each change of the table refreshes it: neither may depend on how much is mounted. */
TEST(KprobeMounts, ManyMountsCostNoMoreThanFew)
{
    const auto nanoseconds_a_record = [](uint32_t mounts) {
        std::vector<Mount> all;
        for (uint32_t i = 1; i <= mounts; i++)
            all.push_back({static_cast<int32_t>(i), i, true, "/m" + std::to_string(i)});
        MountMap map = map_of(all);
        constexpr uint32_t kRecords = 20000;
        uint64_t sum = 0;
        const auto began = std::chrono::steady_clock::now();
        for (uint32_t i = 0; i < kRecords; i++)
            sum += static_cast<uint64_t>(map.id_of(mounts - i % mounts % 100));
        const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - began;
        EXPECT_GT(sum, 0u);
        return took.count() / kRecords;
    };
    nanoseconds_a_record(100);
    EXPECT_LT(nanoseconds_a_record(20000), 20 * nanoseconds_a_record(100) + 2000);
}

TEST(KprobeMounts, ARefreshOfManyMountsIsLinear)
{
    const auto seconds = [](int mounts) {
        std::vector<Mount> all;
        for (int i = 1; i <= mounts; i++)
            all.push_back({i, static_cast<uint32_t>(i), true, "/m" + std::to_string(i)});
        MountMap map = map_of(all);
        for (Mount &mount : all)
            mount.id += 1000000;
        const auto began = std::chrono::steady_clock::now();
        map.refresh(all);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
        EXPECT_EQ(1000001, map.id_of(1));
        return took.count();
    };
    seconds(1000);
    EXPECT_LT(seconds(20000), 20 * 10 * seconds(1000) + 0.1) << "and not four hundred times as much";
}

TEST(KprobeMounts, ThisMachinesTable)
{
    const std::vector<Mount> mounts = read_mounts();
    ASSERT_FALSE(mounts.empty());
    for (const Mount &mount : mounts) {
        EXPECT_GT(mount.id, 0);
        EXPECT_EQ('/', mount.point[0]);
    }
}
