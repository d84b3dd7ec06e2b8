/* A spool: order, acknowledgements, starting anew, the bound, damage. */
#include "output/spool/spool.h"

#include "spool_testing.h"

using namespace output;
using spool_testing::kOrigin;
using spool_testing::SpoolTest;

TEST_F(SpoolTest, RecordsComeBackInOrder)
{
    ASSERT_TRUE(open()) << error;
    EXPECT_FALSE(spool->has_unread());
    EXPECT_EQ(100u, put(100));
    EXPECT_EQ(50u, put(50));
    EXPECT_TRUE(spool->has_unread());
    EXPECT_EQ(range(1, 150), get(1000));
    EXPECT_FALSE(spool->has_unread());
    EXPECT_TRUE(get().empty());
    put(1);
    EXPECT_EQ(range(151, 151), get());
    EXPECT_EQ(151u, spool->figures().waiting);
}

TEST_F(SpoolTest, AnEntryKnowsWhoseItIs)
{
    ASSERT_TRUE(open());
    const SpoolRecord own = {77, true, "heartbeat", "", "{}"};
    ASSERT_EQ(1u, spool->append({&own, 1}, error));
    std::deque<SpoolEntry> entries;
    ASSERT_TRUE(spool->read(1, entries));
    EXPECT_TRUE(entries[0].own);
    EXPECT_EQ(77u, entries[0].number);
    EXPECT_EQ(kOrigin, *entries[0].origin);
    EXPECT_EQ("", entries[0].key());
}

TEST_F(SpoolTest, WhatWasNotAcknowledgedIsReadAgain)
{
    ASSERT_TRUE(open());
    put(100);
    EXPECT_EQ(range(1, 100), get());
    spool->acknowledge(40);
    EXPECT_EQ(60u, spool->figures().waiting);
    last_ordinal = 0;
    ASSERT_TRUE(open());
    EXPECT_EQ(60u, spool->figures().waiting);
    EXPECT_EQ(range(41, 100), get());
    spool->acknowledge(last_ordinal);
    ASSERT_TRUE(open());
    EXPECT_EQ(0u, spool->figures().waiting);
    EXPECT_TRUE(get().empty());
    put(1);
    EXPECT_EQ(range(101, 101), get());
}

TEST_F(SpoolTest, OneBootsRecordsFollowAnothers)
{
    ASSERT_TRUE(open("one:web"));
    put(2);
    ASSERT_TRUE(open("two:web"));
    put(2);
    std::deque<SpoolEntry> entries;
    while (spool->read(1 << 20, entries)) {
    }
    ASSERT_EQ(4u, entries.size());
    EXPECT_EQ("one:web", *entries[1].origin);
    EXPECT_EQ("two:web", *entries[2].origin);
    EXPECT_EQ(2u, segments().size());
}

TEST_F(SpoolTest, TheSameBootGoesOnInTheSameSegment)
{
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(open());
        put(2);
    }
    EXPECT_EQ(1u, segments().size());
    EXPECT_EQ(range(1, 6), get());
}

TEST_F(SpoolTest, AcknowledgedSegmentsGo)
{
    limits.segment = 4096;
    ASSERT_TRUE(open());
    put(100, 100);
    const size_t all = segments().size();
    EXPECT_GT(all, 3u);
    get();
    spool->acknowledge(1);
    EXPECT_EQ(all, segments().size());
    spool->acknowledge(50);
    EXPECT_LT(segments().size(), all);
    spool->acknowledge(100);
    EXPECT_LE(segments().size(), 1u); /* the one that is written to */
    EXPECT_EQ(spool->figures().segments, segments().size());
}

TEST_F(SpoolTest, TheOldestGoWhenItIsFull)
{
    limits.bytes = 64 << 10;
    ASSERT_TRUE(open());
    EXPECT_EQ(2000u, put(2000, 100));
    const SpoolFigures figures = spool->figures();
    EXPECT_LE(figures.bytes, limits.bytes);
    EXPECT_GT(figures.dropped, 1000u);
    EXPECT_EQ(2000u, figures.dropped + figures.waiting);
    EXPECT_EQ(range(figures.dropped + 1, 2000), get());
    EXPECT_EQ(0u, spool->figures().damaged);
}

TEST_F(SpoolTest, WhatWasReadIsNotDropped)
{
    limits.bytes = 64 << 10;
    ASSERT_TRUE(open());
    put(100, 100);
    const size_t early = get().size();
    put(2000, 100);
    EXPECT_EQ(2100u, early + spool->figures().dropped + get().size());
}

TEST_F(SpoolTest, ADropInTheMiddleOfReadingSkipsWhatWasDropped)
{
    limits.bytes = 64 << 10;
    ASSERT_TRUE(open());
    put(300, 100);
    std::deque<SpoolEntry> entries;
    ASSERT_TRUE(spool->read(1000, entries));
    put(2000, 100);
    const uint64_t dropped = spool->figures().dropped;
    EXPECT_EQ(range(entries.size() + dropped + 1, 2300), get());
}

TEST_F(SpoolTest, TheBytesOnDiskAreWhatItSays)
{
    limits.segment = 4096;
    ASSERT_TRUE(open());
    put(100, 100);
    uint64_t bytes = 0;
    for (const std::string &path : segments())
        bytes += std::filesystem::file_size(path);
    EXPECT_EQ(bytes, spool->figures().bytes);
    ASSERT_TRUE(open());
    EXPECT_EQ(bytes, spool->figures().bytes);
}

TEST_F(SpoolTest, ATornTailIsCutAtEveryByte)
{
    ASSERT_TRUE(open());
    put(3, 20);
    spool.reset();
    const std::string path = segments()[0], all = content(path);
    const size_t frame = (all.size() - sizeof(SegmentHead)) / 3;
    for (size_t size = all.size() - frame; size < all.size(); size++) {
        change(path, all.substr(0, size));
        last_ordinal = 0;
        ASSERT_TRUE(open()) << error;
        EXPECT_EQ(range(1, 2), get()) << size;
        EXPECT_EQ(all.size() - frame, std::filesystem::file_size(path));
        next_number = 3;
        put(1, 20);
        EXPECT_EQ(range(3, 3), get()) << size;
        spool.reset();
    }
}

TEST_F(SpoolTest, ASegmentWithoutARecordGoes)
{
    for (const char *text : {"", "no segment"}) {
        tree.dir("spool");
        change(tree.path("spool/" + segment_name(5)), text);
        chmod(directory().c_str(), 0700);
        ASSERT_TRUE(open()) << error;
        EXPECT_TRUE(segments().empty());
        EXPECT_EQ(0u, spool->figures().waiting);
    }
}

TEST_F(SpoolTest, ADamagedMiddleIsSkippedAndCounted)
{
    ASSERT_TRUE(open());
    put(100, 100);
    spool.reset();
    const std::string path = segments()[0];
    std::string bytes = content(path);
    bytes.replace(bytes.size() / 2, 200, std::string(200, '\xff'));
    change(path, bytes);
    ASSERT_TRUE(open());
    const std::vector<uint64_t> numbers = get();
    const uint64_t damaged = spool->figures().damaged;
    EXPECT_GE(damaged, 2u);
    EXPECT_LE(damaged, 3u);
    EXPECT_EQ(100u, numbers.size() + damaged);
    EXPECT_EQ(100u, numbers.back());
}

TEST_F(SpoolTest, ABrokenSegmentBetweenOthersIsCounted)
{
    limits.segment = 4096;
    ASSERT_TRUE(open());
    put(100, 100);
    spool.reset();
    const std::vector<std::string> paths = segments();
    const uint64_t lost = std::stoull(std::filesystem::path(paths[2]).filename(), nullptr, 16) -
                          std::stoull(std::filesystem::path(paths[1]).filename(), nullptr, 16);
    change(paths[1], "");
    ASSERT_TRUE(open());
    EXPECT_EQ(100u - lost, get().size());
    EXPECT_EQ(lost, spool->figures().damaged);
}

TEST_F(SpoolTest, ABrokenEndOfASegmentBeforeTheLastIsCounted)
{
    limits.segment = 4096;
    ASSERT_TRUE(open());
    put(100, 100);
    spool.reset();
    const std::string path = segments()[0], bytes = content(path);
    change(path, bytes.substr(0, bytes.size() - 1));
    ASSERT_TRUE(open());
    EXPECT_EQ(99u, get().size());
    EXPECT_EQ(1u, spool->figures().damaged);
}

TEST_F(SpoolTest, ALengthThatLiesIsDamageAndNoMore)
{
    ASSERT_TRUE(open());
    put(10, 100);
    spool.reset();
    const std::string path = segments()[0];
    std::string bytes = content(path);
    bytes[sizeof(SegmentHead) + 24 + 1] = '\x7f'; /* the first frame's length */
    change(path, bytes);
    ASSERT_TRUE(open());
    EXPECT_EQ(range(2, 10), get());
    EXPECT_EQ(1u, spool->figures().damaged);
}

TEST_F(SpoolTest, APositionThatIsGoneOrBrokenMeansFromTheBeginning)
{
    for (const char *text : {"", "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"}) {
        tree.remove("spool");
        next_number = 1;
        last_ordinal = 0;
        ASSERT_TRUE(open());
        put(10);
        get();
        spool->acknowledge(5);
        spool.reset();
        change(tree.path("spool/position"), text);
        last_ordinal = 0;
        ASSERT_TRUE(open());
        EXPECT_EQ(range(1, 10), get());
        spool.reset();
    }
}

TEST_F(SpoolTest, APositionHalfWrittenIsTheOneBefore)
{
    ASSERT_TRUE(open());
    put(10);
    get();
    for (const uint64_t ordinal : {3, 6}) {
        spool->acknowledge(ordinal);
        ASSERT_TRUE(spool->settle(0, error));
    }
    spool.reset();
    const std::string path = tree.path("spool/position");
    std::string bytes = content(path);
    bytes[8] ^= 1; /* the slot that the second was written to */
    change(path, bytes);
    last_ordinal = 0;
    ASSERT_TRUE(open());
    EXPECT_EQ(range(4, 10), get());
}

TEST_F(SpoolTest, TooLongIsDroppedAndCounted)
{
    ASSERT_TRUE(open());
    const std::string text(kMaxSpoolText + 1, 'x');
    const SpoolRecord records[] = {
        {1, false, "create", "/key", "1 "}, {2, false, "", "", text}, {3, false, "create", "/key", "3 "}};
    EXPECT_EQ(3u, spool->append(records, error));
    EXPECT_EQ((std::vector<uint64_t>{1, 3}), get());
    EXPECT_EQ(1u, spool->figures().dropped);
}

TEST_F(SpoolTest, FilesAreTheOwnersAlone)
{
    ASSERT_TRUE(open());
    put(1);
    for (const char *name : {"spool", "spool/position", "spool/lock"}) {
        struct stat st;
        ASSERT_EQ(0, stat(tree.path(name).c_str(), &st));
        EXPECT_EQ(0u, st.st_mode & 077) << name;
    }
    struct stat st;
    ASSERT_EQ(0, stat(segments()[0].c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
}

TEST_F(SpoolTest, DirectoriesAreMadeOnTheWay)
{
    limits = {};
    Spool deep(tree.path("a/b/c/"), kOrigin, limits);
    EXPECT_TRUE(deep.open(error)) << error;
    EXPECT_TRUE(std::filesystem::is_directory(tree.path("a/b/c")));
}

TEST_F(SpoolTest, ADirectoryInWhichOthersMayWriteIsRefused)
{
    tree.dir("spool");
    chmod(directory().c_str(), 0770);
    EXPECT_FALSE(open());
    EXPECT_EQ("spool " + directory() + ": others may write there: chmod go-w " + directory(), error);
    chmod(directory().c_str(), 01777);
    EXPECT_FALSE(open());
    chmod(directory().c_str(), 0700);
    EXPECT_TRUE(open());
}

TEST_F(SpoolTest, SoIsOneBelowSuchADirectory)
{
    chmod(tree.dir("open").c_str(), 0777);
    Spool below(tree.path("open/spool"), kOrigin, limits);
    EXPECT_FALSE(below.open(error));
    EXPECT_NE(error.find("/open: others may write there"), std::string::npos) << error;
}

TEST_F(SpoolTest, SoIsAnothersDirectory)
{
    NEED(testlib::is_root(), "files of another user need root");
    tree.dir("spool");
    ASSERT_EQ(0, chown(directory().c_str(), 12345, 12345));
    EXPECT_FALSE(open());
    EXPECT_NE(error.find("belongs to user 12345"), std::string::npos) << error;
}

TEST_F(SpoolTest, SoIsALink)
{
    tree.dir("elsewhere");
    tree.link("spool", tree.path("elsewhere"));
    EXPECT_FALSE(open());
    EXPECT_NE(error.find(directory()), std::string::npos) << error;
}

TEST_F(SpoolTest, ARelativePathIsRefused)
{
    Spool relative("spool", kOrigin, limits);
    EXPECT_FALSE(relative.open(error));
    EXPECT_EQ("spool spool: the path must begin with \"/\"", error);
}

TEST_F(SpoolTest, OneOutputUsesItAtATime)
{
    ASSERT_TRUE(open());
    Spool second(directory(), kOrigin, limits);
    EXPECT_FALSE(second.open(error));
    EXPECT_NE(error.find("another output uses it"), std::string::npos) << error;
    spool.reset();
    EXPECT_TRUE(second.open(error)) << error;
}
