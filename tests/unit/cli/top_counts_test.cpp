/* What `fmon top` counts: windows, tables, filters, and the bound. */
#include <gtest/gtest.h>

#include "cli/top/counts.h"
#include "orx_fmon.h"

using namespace cli;
using Strings = std::vector<std::string>;

namespace
{

Strings names(const std::vector<Row> &rows)
{
    Strings all;
    for (const Row &row : rows)
        all.push_back(row.name + (row.rest ? "*" : ""));
    return all;
}

class TopCounts : public testing::Test
{
protected:
    void happens(const char *path, uint32_t pid, const char *process, int times = 1, const char *container = "")
    {
        for (int i = 0; i < times; i++)
            counts.add({path, FMON_MODIFY, pid, process, container}, now);
    }
    std::vector<Row> rows(By by, const std::string &zoom = "", const std::string &filter = "",
                          Sort sort = Sort::kRate) const
    {
        return counts.rows({by, sort, zoom, filter}, now);
    }

    Counts counts;
    uint64_t now = 10'000;
};

}  // namespace

TEST(TopWindow, HasThisSecondAndTheFourBefore)
{
    Window window;
    window.add(10'900, 2);
    window.add(11'000, 3);
    EXPECT_EQ(5u, window.sum(11'000));
    EXPECT_EQ(5u, window.sum(14'999));
    EXPECT_EQ(3u, window.sum(15'000));
    EXPECT_EQ(0u, window.sum(16'000));
    window.add(14'000, 1);
    EXPECT_EQ(6u, window.sum(14'500));
    window.add(30'000, 1);
    EXPECT_EQ(1u, window.sum(30'000));
}

TEST(TopWindow, TakesAnotherIn)
{
    Window older, newer;
    older.add(10'000, 1);
    older.add(12'000, 2);
    newer.add(12'500, 4);
    newer.add(15'000, 8);
    newer.add(older);
    EXPECT_EQ(14u, newer.sum(15'000));
    Window empty;
    empty.add(newer);
    EXPECT_EQ(14u, empty.sum(15'000));
    Window other;
    other.add(13'000, 1);
    other.add(newer);
    EXPECT_EQ(15u, other.sum(15'000));
}

TEST(TopWindow, SpansWhatWasWatched)
{
    EXPECT_EQ(1000u, Window::span_ms(0));
    EXPECT_EQ(2500u, Window::span_ms(2500));
    EXPECT_EQ(4250u, Window::span_ms(90'250));
}

TEST_F(TopCounts, FilesWithTheirBusiestProcess)
{
    happens("/a/1", 7, "cat", 3);
    happens("/a/1", 8, "dog", 5);
    happens("/a/2", 7, "cat", 2);
    const std::vector<Row> all = rows(By::kFile);
    ASSERT_EQ((Strings{"/a/1", "/a/2"}), names(all));
    EXPECT_EQ(8u, all[0].recent);
    EXPECT_EQ(8u, all[0].total);
    EXPECT_EQ("dog[8]", all[0].companion);
    EXPECT_EQ(uint32_t{FMON_MODIFY}, all[0].mask);
    EXPECT_EQ(10u, counts.total());
    EXPECT_EQ(10u, counts.recent(now));
}

TEST_F(TopCounts, DirectoriesProcessesAndContainers)
{
    happens("/a/1", 7, "cat", 3, "c1");
    happens("/a/2", 7, "cat", 2, "c1");
    happens("/b/x/1", 0, "", 4);
    EXPECT_EQ((Strings{"/a", "/b/x"}), names(rows(By::kDirectory)));
    const std::vector<Row> processes = rows(By::kProcess);
    EXPECT_EQ((Strings{"cat[7]", "?"}), names(processes));
    EXPECT_EQ("/a", processes[0].companion);
    const std::vector<Row> containers = rows(By::kContainer);
    EXPECT_EQ((Strings{"c1", ""}), names(containers));
    EXPECT_EQ("cat[7]", containers[0].companion);
}

TEST_F(TopCounts, ZoomShowsWhatIsBelow)
{
    happens("/a/1", 7, "cat", 5);
    happens("/a/b/2", 7, "cat", 4);
    happens("/a/b/c/3", 7, "cat", 3);
    happens("/ab/4", 7, "cat", 9);
    happens("/top", 7, "cat", 1);
    EXPECT_EQ((Strings{"/a/1", "/a/b/2", "/a/b/c/3"}), names(rows(By::kFile, "/a")));
    const std::vector<Row> below = rows(By::kDirectory, "/a");
    EXPECT_EQ((Strings{"/a/b", "/a"}), names(below));
    EXPECT_EQ(7u, below[0].recent);
    EXPECT_EQ((Strings{"/a", "/ab", "/"}), names(rows(By::kDirectory, "/")));
    EXPECT_EQ((Strings{}), names(rows(By::kFile, "/nothing")));
}

TEST_F(TopCounts, FiltersByPathProcessAndContainerInAnyCase)
{
    happens("/a/Report", 7, "cat");
    happens("/a/2", 8, "dog", 1, "web");
    EXPECT_EQ(Strings{"/a/Report"}, names(rows(By::kFile, "", "report")));
    EXPECT_EQ(Strings{"/a/2"}, names(rows(By::kFile, "", "DOG[8]")));
    EXPECT_EQ(Strings{"dog[8]"}, names(rows(By::kProcess, "", "web")));
}

TEST_F(TopCounts, SortsByEachKey)
{
    now = 1000;
    happens("/old", 7, "cat", 9);
    now = 20'000;
    happens("/b", 7, "cat", 2);
    now = 20'500;
    happens("/a", 7, "cat", 1);
    EXPECT_EQ((Strings{"/b", "/a", "/old"}), names(rows(By::kFile)));
    EXPECT_EQ((Strings{"/old", "/b", "/a"}), names(rows(By::kFile, "", "", Sort::kTotal)));
    EXPECT_EQ((Strings{"/a", "/b", "/old"}), names(rows(By::kFile, "", "", Sort::kLatest)));
    EXPECT_EQ((Strings{"/a", "/b", "/old"}), names(rows(By::kFile, "", "", Sort::kName)));
}

TEST_F(TopCounts, KindsOfTheWindow)
{
    counts.add({"/a", FMON_CREATE | FMON_MODIFY}, now);
    counts.add({"/a", FMON_MODIFY}, now);
    counts.add({"/a", FMON_LINK}, now);
    const std::vector<Kind> kinds = counts.kinds(now);
    ASSERT_EQ(3u, kinds.size());
    EXPECT_EQ("modify", kinds[0].name);
    EXPECT_EQ(2u, kinds[0].recent);
    EXPECT_EQ(1u, kinds[2].recent);
    EXPECT_TRUE(counts.kinds(now + 6000).empty());
}

/* Files that are each touched once: their directory and their program keep the sum. */
TEST(TopBound, QuietFilesBecomeTheRestOfTheirDirectory)
{
    Counts counts(64);
    for (int i = 0; i < 1000; i++) {
        const std::string path = "/tmp/f" + std::to_string(i);
        counts.add({path, FMON_CREATE, static_cast<uint32_t>(1000 + i), "cc1"}, static_cast<uint64_t>(i));
        EXPECT_LE(counts.pairs(), 64u);
    }
    const std::vector<Row> directories = counts.rows({By::kDirectory}, 1000);
    ASSERT_EQ(1u, directories.size());
    EXPECT_EQ(1000u, directories[0].total);
    EXPECT_EQ(1000u, directories[0].recent);
    const std::vector<Row> files = counts.rows({By::kFile}, 1000);
    EXPECT_EQ("/tmp", files[0].name);
    EXPECT_TRUE(files[0].rest);
    EXPECT_EQ("cc1", counts.rows({By::kProcess}, 1000)[0].name);
    EXPECT_EQ("/tmp/f999", counts.rows({By::kFile, Sort::kLatest}, 1000)[0].name);
}

/* Nothing that a stranger chooses makes it grow. */
TEST(TopBound, HoldsForDirectoriesProcessesAndContainersThatAreAllNew)
{
    Counts counts(64);
    for (int i = 0; i < 2000; i++) {
        const std::string n = std::to_string(i), path = "/d" + n + "/f", process = "p" + n, container = "c" + n;
        counts.add({path, FMON_CREATE, 1, process, container}, static_cast<uint64_t>(i));
        EXPECT_LE(counts.pairs(), 64u);
    }
    uint64_t total = 0;
    for (const Row &row : counts.rows({By::kDirectory}, 2000))
        total += row.total;
    EXPECT_EQ(2000u, total);
    EXPECT_EQ("/", counts.rows({By::kFile, Sort::kTotal}, 2000)[0].name);
}
