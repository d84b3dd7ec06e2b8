/*
 * Loud directories outside, of whose files the kernel is asked to report nothing: which ones, and that none stays
 * silent inside a watched tree without a loss being counted.
 */
#include <string>

#include "fs_fixture.h"
#include "testlib/fault.h"

using namespace fs_unit;
using testlib::overflow_record;

namespace
{

using Numbers = std::vector<int>;

constexpr int kWatched = 10, kOutside = 11, kLoud = 20, kOther = 21;

class FsLoud : public FsFixture
{
protected:
    FsLoud()
    {
        world.disk = {{2, {0, ""}},
                      {kWatched, {2, "w"}},
                      {kOutside, {2, "o"}},
                      {kLoud, {kOutside, "l"}},
                      {kOther, {kOutside, "m"}}};
        begin(4);
    }
    void begin(uint32_t most)
    {
        restart(1000, true, most);
        world.ignored.clear();
        EXPECT_EQ(0, anchor(kWatched, "/w"));
    }
    void churn(int directory, int files, uint64_t flags = 0)
    {
        for (int i = 0; i < files; i++)
            take(made(directory, "f" + std::to_string(i), 1000 + i, flags));
        told();
    }
    void silence(int directory) { churn(directory, 1100); }
    /* On the disk, too. */
    std::string move(int what, int to, const std::string &name)
    {
        const Place from = world.disk[what];
        world.disk[what] = {to, name};
        return moved(from.parent, from.name, to, name, what);
    }
    uint64_t losses() { return std::exchange(world.lost[FS_LOST_UNRESOLVED], 0); }
};

TEST_F(FsLoud, ADirectoryOutsideIsIgnoredAfterAThousandRecords)
{
    churn(kLoud, 1000);
    EXPECT_EQ((Numbers{}), world.ignored);
    churn(kLoud, 100);
    EXPECT_EQ((Numbers{kLoud}), world.ignored);
    EXPECT_EQ(1u, counts().ignored);
    churn(kOther, 2500, kDir); /* of directories the kernel goes on reporting */
    churn(kWatched, 2500);
    EXPECT_EQ((Numbers{kLoud}), world.ignored);
    EXPECT_EQ(0u, losses());
}

TEST_F(FsLoud, NoneIsWhereNoneIsAskedFor)
{
    begin(0);
    churn(kLoud, 5000);
    EXPECT_EQ((Numbers{}), world.ignored);
}

TEST_F(FsLoud, WhatHasAWatchOfItsOwnIsNeverIgnored)
{
    ASSERT_EQ(0, anchor(kLoud, "/o/l", 2, false));
    silence(kLoud);
    EXPECT_EQ((Numbers{}), world.ignored);
}

TEST_F(FsLoud, WhoseMarkTheKernelForgotIsIgnoredAgain)
{
    silence(kLoud);
    churn(kLoud, 1100);
    EXPECT_EQ((Numbers{kLoud, kLoud}), world.ignored);
    EXPECT_EQ(1u, counts().ignored);
}

TEST_F(FsLoud, WhereThereIsNoPlaceTheOthersGiveTheirs)
{
    begin(2);
    for (int directory = 30; directory < 33; directory++) {
        world.disk[directory] = {kOutside, std::to_string(directory)};
        silence(directory);
    }
    EXPECT_EQ((Numbers{30, 32}), world.ignored);
    silence(kLoud);
    EXPECT_EQ((Numbers{32, kLoud}), world.ignored);
    world.heeds = false; /* the kernel cannot be told now: the one that is ignored stays so */
    silence(kOther);
    EXPECT_EQ((Numbers{32, kLoud}), world.ignored);
    EXPECT_EQ(2u, counts().ignored);
    world.heeds = true;
    take(made(kOther, "f", 50));
    EXPECT_EQ(0u, losses());
}

TEST_F(FsLoud, WhatAKernelRefusesCostsNothing)
{
    world.ignores = false;
    silence(kLoud);
    EXPECT_EQ(0u, counts().ignored);
    world.ignores = true;
    silence(kLoud);
    EXPECT_EQ(1u, counts().ignored);
}

TEST_F(FsLoud, WhatComesInsideIsHeardAgainAndALoss)
{
    silence(kLoud);
    take(move(kLoud, kWatched, "l"));
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(1u, losses());
    EXPECT_EQ((Lines{"to /w/l"}), told());
    take(made(kLoud, "g", 60));
    EXPECT_EQ((Lines{"create /w/l/g"}), told());
    EXPECT_EQ(0u, losses());
}

TEST_F(FsLoud, SoIsWhatComesWithADirectoryAbove)
{
    silence(kLoud);
    silence(kOther);
    take(move(kOutside, kWatched, "o"));
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(2u, losses());
}

TEST_F(FsLoud, WhatWasInsideForAMomentOnlyIsALossToo)
{
    silence(kLoud);
    take(move(kLoud, kWatched, "l") + move(kLoud, kOutside, "l2"));
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_LE(1u, losses());
}

TEST_F(FsLoud, WhatStaysOutsideStaysIgnored)
{
    silence(kLoud);
    world.disk[40] = {kOutside, "n"};
    take(move(kLoud, 40, "x") + move(40, 2, "n"));
    take(move(kOther, kWatched, "m")); /* something else comes inside */
    EXPECT_EQ((Numbers{kLoud}), world.ignored);
    EXPECT_EQ(0u, losses());
}

TEST_F(FsLoud, AWatchThatIsAddedAboveHearsIt)
{
    silence(kLoud);
    ASSERT_EQ(0, anchor(kWatched, "/w", 2));
    EXPECT_EQ((Numbers{kLoud}), world.ignored);
    ASSERT_EQ(0, anchor(kOutside, "/o", 3));
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(0u, losses());
    take(made(kLoud, "g", 60));
    EXPECT_EQ((Lines{"create /o/l/g"}), told());
}

TEST_F(FsLoud, AWatchOfTheDirectoryItselfHearsIt)
{
    for (const bool recursive : {true, false}) {
        begin(4);
        silence(kLoud);
        ASSERT_EQ(0, anchor(kLoud, "/o/l", 2, recursive));
        EXPECT_EQ((Numbers{}), world.ignored) << recursive;
        EXPECT_EQ(0u, losses());
    }
}

TEST_F(FsLoud, SoDoesAMountInsideOfAWatchedTree)
{
    silence(kLoud);
    ASSERT_EQ(0, join(kOutside, 1, kWatched, "point", 5));
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(0u, losses());
    take(made(kLoud, "g", 60));
    EXPECT_EQ((Lines{"create /w/point/l/g"}), told());
}

TEST_F(FsLoud, WhatCannotBeHeardAtOnceIsALossFromTheBeginningToTheEnd)
{
    silence(kLoud);
    world.heeds = false;
    take(move(kLoud, kWatched, "l"));
    EXPECT_EQ(1u, losses());
    take(made(kWatched, "g", 60));
    EXPECT_EQ(0u, losses()) << "counted already";
    world.heeds = true;
    take(made(kWatched, "h", 61));
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(1u, losses()) << "what happened meanwhile";
    take(made(kWatched, "i", 62));
    EXPECT_EQ(0u, losses());
}

TEST_F(FsLoud, AWatchThatIsAddedWhereNothingCanBeHeardBeginsWithALoss)
{
    silence(kLoud);
    world.heeds = false;
    ASSERT_EQ(0, anchor(kOutside, "/o", 3));
    EXPECT_EQ(1u, losses());
    world.heeds = true;
    take({});
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(1u, losses());
}

TEST_F(FsLoud, AfterAnOverflowAllAreHeard)
{
    silence(kLoud);
    silence(kOther);
    take(overflow_record());
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(0u, losses());
    EXPECT_EQ(1u, world.lost[FS_LOST_OVERFLOW]);
}

TEST_F(FsLoud, WithTheLastWatchAllAreHeard)
{
    silence(kLoud);
    fs_engine_remove(engine, 1);
    EXPECT_EQ((Numbers{}), world.ignored);
    EXPECT_EQ(0u, counts().ignored);
}

TEST_F(FsLoud, WhatCouldNotBeHeardThenIsWithTheNextWatch)
{
    silence(kLoud);
    world.heeds = false;
    fs_engine_remove(engine, 1);
    EXPECT_EQ((Numbers{kLoud}), world.ignored);
    world.heeds = true;
    ASSERT_EQ(0, anchor(kOutside, "/o", 3));
    EXPECT_EQ((Numbers{}), world.ignored);
}

TEST_F(FsLoud, OfAFileSystemThatIsForgottenAllAreHeard)
{
    silence(kLoud);
    const int32_t one[2] = {1, 0}, other[2] = {2, 0};
    fs_engine_forget(engine, other);
    EXPECT_EQ((Numbers{kLoud}), world.ignored);
    fs_engine_forget(engine, one);
    EXPECT_EQ((Numbers{}), world.ignored);
}

TEST_F(FsLoud, WithoutMemoryThereIsNoEngine)
{
    const testlib::Fault fault("calloc", 3, ENOMEM);
    restart(1000, true, 4);
    EXPECT_EQ(nullptr, engine);
    EXPECT_TRUE(fault.hit());
}

}  // namespace
