/* Tests of linux/mount.h: the mount table read again and again. */

#include <cstring>

#include "mount_fixture.h"

namespace
{

using testlib::Fault;

/* ---- reading again ---- */

TEST_F(MountTest, AKnownMountKeepsItsEntryAndItsWatches)
{
    read(line("1", "/a").text());
    struct mount_entry *entry = entries()[0];
    hang_watch(entry);
    Line again = line("1", "/a");
    again.options = "rw,nosuid";
    again.fs = "xfs";
    read(again.text());
    ASSERT_EQ(1u, entries().size());
    EXPECT_EQ(entry, entries()[0]);
    EXPECT_EQ(0u, entry->flags) << "as it was first seen";
    EXPECT_STREQ("ext4", entry->fs);
    EXPECT_EQ(0u, entry->stale);
    EXPECT_FALSE(list_empty(&entry->watches));
}

TEST_F(MountTest, AnotherMountAtTheSamePointKeepsTheOldEntryAndId)
{
    read(line("1", "/a").text());
    struct mount_entry *entry = entries()[0];
    read(line("99", "/a").text());
    ASSERT_EQ(1u, entries().size());
    EXPECT_EQ(entry, entries()[0]);
    EXPECT_EQ(1, entry->mnt_id);
    EXPECT_STREQ("/a", search_mnt(1));
    EXPECT_EQ(nullptr, search_mnt(99));
}

TEST_F(MountTest, AMovedMountKeepsItsIdAndTheOldMountPoint)
{
    read(line("1", "/a").text());
    read(line("1", "/b").text());
    EXPECT_EQ("/a", listed());
}

TEST_F(MountTest, OfStackedMountsTheFirstIsListed)
{
    EXPECT_EQ("/a", listed(line("1", "/a").text() + line("2", "/a").text()));
    EXPECT_EQ(1, entries()[0]->mnt_id);
    EXPECT_EQ((std::vector<int32_t>{1}), ids());
}

TEST_F(MountTest, OfEqualIdsTheFirstIsListed)
{
    EXPECT_EQ("/a", listed(line("0x10", "/a").text() + line("16", "/b").text() + line("020", "/c").text()));
}

TEST_F(MountTest, AVanishedMountGoesWithItsWatchLinks)
{
    read(line("1", "/a").text() + line("2", "/b").text() + line("3", "/c").text());
    for (struct mount_entry *entry : entries()) {
        hang_watch(entry);
        hang_watch(entry);
    }
    read(line("2", "/b").text());
    EXPECT_EQ("/b", listed());
    EXPECT_FALSE(list_empty(&entries()[0]->watches));
    EXPECT_EQ(nullptr, search_mnt(1));
    EXPECT_EQ((std::vector<int32_t>{2}), ids());
}

TEST_F(MountTest, AMountThatBecomesReadOnlyGoes)
{
    read(line("1", "/a").text());
    Line again = line("1", "/a");
    again.options = "ro";
    EXPECT_EQ("", listed(again.text()));
}

TEST_F(MountTest, AnEmptyFileEmptiesTheList)
{
    read(line("1", "/a").text());
    EXPECT_EQ("", listed(""));
    EXPECT_EQ((std::vector<int32_t>{}), ids());
}

TEST_F(MountTest, ManyMountsComeAndGo)
{
    std::string text;
    for (int i = 1; i <= 1000; i++)
        text += line(std::to_string(i), "/m" + std::to_string(i)).text();
    read(text);
    EXPECT_EQ(1000u, ids().size());
    read(line("500", "/m500").text());
    EXPECT_EQ((std::vector<int32_t>{500}), ids());
}

TEST_F(MountTest, AnUnopenableFileKeepsTheList)
{
    read(line("1", "/a").text() + line("2", "/b").text());
    {
        const Fault fault("fopen", 1, EMFILE, 3);
        EXPECT_EQ(-1, get_mountinfo(list));
        EXPECT_EQ("/a /b", listed());
        EXPECT_EQ(1u, entries()[0]->stale) << "not seen again yet";
        EXPECT_STREQ("/b", search_mnt(2));
        EXPECT_EQ((std::vector<int32_t>{1, 2}), ids());
    }
    ASSERT_EQ(0, get_mountinfo(list));
    EXPECT_EQ("/a /b", listed());
    EXPECT_EQ(0u, entries()[0]->stale);
}

TEST_F(MountTest, AMissingFileLeavesAnEmptyListEmpty)
{
    EXPECT_EQ(-1, get_mountinfo(list));
    EXPECT_EQ((std::vector<int32_t>{}), ids());
}

TEST_F(MountTest, NoDescriptorIsLeftOpen)
{
    const std::vector<int> before = testlib::open_fd_list();
    read(line("1", "/a").text());
    read("");
    EXPECT_EQ(before, testlib::open_fd_list());
}

/* ---- failed allocations ---- */

TEST_F(MountTest, AFailedCopySkipsItsLineAndTheCountStaysRight)
{
    const std::string text = line("1", "/a").text() + line("2", "/b").text();
    write(text);
    for (const char *call : {"malloc", "calloc"}) {
        const int hits = testlib::fail_each(call, ENOMEM, [&](Fault &fault) {
            mount_release(list);
            ASSERT_EQ(0, get_mountinfo(list));
            EXPECT_EQ(fault.hit() ? 1u : 2u, entries().size());
        });
        EXPECT_EQ(strcmp(call, "malloc") == 0 ? 6 : 2, hits);
    }
}

TEST_F(MountTest, ALineSkippedForWantOfMemoryIsListedByTheNextRead)
{
    write(line("1", "/a").text() + line("2", "/b").text());
    {
        const Fault fault("malloc", 1, ENOMEM);
        ASSERT_EQ(0, get_mountinfo(list));
    }
    EXPECT_EQ("/b", listed());
    EXPECT_EQ((std::vector<int32_t>{2, 1}), ids());
}

/* ---- get_global_mnt ---- */

TEST_F(MountTest, TheIdsAreThoseOfTheListInItsOrder)
{
    write(line("7", "/a").text() + line("0x20", "/b").text() + line("5", "/c").text());
    EXPECT_EQ((std::vector<int32_t>{7, 32, 5}), ids());
    EXPECT_EQ("/a /b /c", listed()) << "the backend's own list was read";
}

TEST_F(MountTest, WithoutMountsThereAreNoIds)
{
    write("");
    int32_t *out = &fmlnx.fd_num;
    EXPECT_EQ(0, get_global_mnt(&out));
    EXPECT_EQ(nullptr, out);
}

TEST_F(MountTest, WithoutAPlaceForThemTheIdsAreNotGivenButTheListIsRead)
{
    write(line("7", "/a").text());
    EXPECT_EQ(0, get_global_mnt(nullptr));
    EXPECT_EQ("/a", listed());
}

TEST_F(MountTest, IdsThatCannotBeAllocatedAreReported)
{
    read(line("7", "/a").text() + line("8", "/b").text());
    const Fault fault("malloc", 1, ENOMEM);
    int32_t *out = nullptr;
    EXPECT_EQ(0, get_global_mnt(&out));
    EXPECT_EQ(nullptr, out);
    EXPECT_TRUE(testlib::logged(1, "get_global_mnt malloc failed, s_mnt_num:2")) << testlib::log_text();
}

/* A backend that starts again begins with an empty list, whether the old one was released or forgotten. */
TEST_F(MountTest, TheNumberFollowsTheListThatIsRead)
{
    read(line("1", "/a").text() + line("2", "/b").text());
    mount_release(list);
    EXPECT_EQ((std::vector<int32_t>{1, 2}), ids());

    list_head forgotten = {};
    list_head *first = list->next, *last = list->prev;
    list_init(list);
    EXPECT_EQ((std::vector<int32_t>{1, 2}), ids());
    forgotten = {first, last};
    first->prev = last->next = &forgotten;
    mount_release(&forgotten);
    EXPECT_STREQ("/a", search_mnt(1)) << "releasing another list changes nothing";
}

TEST_F(MountTest, AZeroedListIsReadAsAnEmptyOne)
{
    *list = {};
    EXPECT_EQ("/a", listed(line("1", "/a").text()));
}

/* ---- search_mnt ---- */

TEST_F(MountTest, AMountPointIsFoundByItsId)
{
    read(line("1", "/a").text() + line("2", "/b").text());
    EXPECT_STREQ("/a", search_mnt(1));
    EXPECT_STREQ("/b", search_mnt(2));
    EXPECT_EQ(nullptr, search_mnt(3));
}

TEST_F(MountTest, IdsBelowOneAreNeverFound)
{
    read(line("0", "/zero").text() + line("-4", "/negative").text());
    EXPECT_EQ("/zero /negative", listed());
    EXPECT_EQ(nullptr, search_mnt(0));
    EXPECT_EQ(nullptr, search_mnt(-4));
    EXPECT_EQ(nullptr, search_mnt(INT32_MIN));
}

TEST_F(MountTest, AfterTheReleaseNothingIsFound)
{
    read(line("1", "/a").text());
    mount_release(list);
    EXPECT_EQ(nullptr, search_mnt(1));
    mount_release(list);
    EXPECT_TRUE(list_empty(list));
}

TEST_F(MountTest, SearchingLooksAtTheListReadLast)
{
    list_head other = {};
    read(line("1", "/a").text());
    write(line("2", "/b").text());
    ASSERT_EQ(0, get_mountinfo(&other));
    EXPECT_EQ(nullptr, search_mnt(1));
    EXPECT_STREQ("/b", search_mnt(2));
    mount_release(&other);
}

/* ---- the machine's own file ---- */

TEST_F(MountTest, TheMachinesOwnTableIsReadWhole)
{
    testlib::clear_redirects();
    ASSERT_EQ(0, get_mountinfo(list));
    for (const struct mount_entry *entry : entries()) {
        EXPECT_EQ('/', entry->mount[0]);
        EXPECT_EQ('/', entry->dev[0]);
        EXPECT_EQ(0u, entry->flags & 0x1) << entry->mount;
        EXPECT_STREQ(entry->mount, search_mnt(entry->mnt_id));
    }
    EXPECT_EQ(entries().size(), ids().size());
}

}  // namespace
