/*
 * Records that name directories by handle: what is yielded, what is passed over, and that nothing outside is touched.
 */
#include "linux/fs/fs_record.h"

#include <gtest/gtest.h>

#include <vector>

#include "testlib/fs_records.h"
#include "testlib/records.h"

using namespace testlib;

namespace
{

enum fs_cut read_record(const std::string &bytes, struct fs_record &out)
{
    return fs_record_at(bytes.data(), bytes.size(), 0, &out);
}

std::string bytes_of(const struct fs_key &key) { return {key.bytes, key.len}; }
std::string name_of(const struct fs_entry &entry) { return {entry.name, entry.name_len}; }

enum fs_cut cut_of(const std::string &bytes)
{
    struct fs_record record;
    return read_record(bytes, record);
}

TEST(FsRecord, AnEntryHasADirectoryANameAndAnObject)
{
    struct fs_record record;
    const std::string bytes = entry_record(0x100, 77, handle(1), "name", handle(2));
    ASSERT_EQ(FS_CUT_RECORD, read_record(bytes, record));
    EXPECT_EQ(0x100u, record.mask);
    EXPECT_EQ(77, record.pid);
    EXPECT_EQ(bytes.size(), record.size);
    EXPECT_EQ(handle(1).bytes, bytes_of(record.entry.dir));
    EXPECT_EQ(1, record.entry.dir.fsid[0]);
    EXPECT_EQ(1, record.entry.dir.type);
    EXPECT_EQ("name", name_of(record.entry));
    EXPECT_EQ(handle(2).bytes, bytes_of(record.object));
    EXPECT_EQ(0u, record.to.dir.len);
}

TEST(FsRecord, ARenameHasBothEntriesOrOneOfThem)
{
    struct fs_record record;
    const std::string both = rename_record(FS_MASK_RENAME, 1, handle(1), "old", handle(2), "new", handle(3));
    ASSERT_EQ(FS_CUT_RECORD, read_record(both, record));
    EXPECT_EQ("old", name_of(record.entry));
    EXPECT_EQ("new", name_of(record.to));
    EXPECT_EQ(handle(2).bytes, bytes_of(record.to.dir));
    const std::string one = named_record(FS_MASK_RENAME, 1, {info(kInfoNew, handle(2), "new")});
    ASSERT_EQ(FS_CUT_RECORD, read_record(one, record));
    EXPECT_EQ(0u, record.entry.dir.len);
    EXPECT_EQ("new", name_of(record.to));
}

TEST(FsRecord, ADotIsTheDirectoryItself)
{
    struct fs_record record;
    const std::string bytes = named_record(4, 1, {info(kInfoEntry, handle(1), ".")});
    ASSERT_EQ(FS_CUT_RECORD, read_record(bytes, record));
    EXPECT_EQ(0u, record.entry.name_len);
    const std::string nameless = named_record(4, 1, {info(kInfoDirectory, handle(1))});
    ASSERT_EQ(FS_CUT_RECORD, read_record(nameless, record));
    EXPECT_EQ(0u, record.entry.name_len);
    EXPECT_EQ(handle(1).bytes, bytes_of(record.entry.dir));
}

TEST(FsRecord, HandlesOfAnyLengthAndType)
{
    for (const size_t size : {1, 8, 12, 20, 127, 128}) {
        struct fs_record record;
        const Handle long_one = {1, std::string(size, 'h'), -1};
        const std::string bytes = entry_record(0x100, 1, long_one, "n", long_one);
        ASSERT_EQ(FS_CUT_RECORD, read_record(bytes, record)) << size;
        EXPECT_EQ(long_one.bytes, bytes_of(record.entry.dir));
        EXPECT_EQ(-1, record.object.type);
    }
    EXPECT_EQ(FS_CUT_SKIP, cut_of(entry_record(0x100, 1, {1, std::string(129, 'h')}, "n", handle(1))));
    EXPECT_EQ(FS_CUT_SKIP, cut_of(entry_record(0x100, 1, {1, ""}, "n", handle(1))));
}

TEST(FsRecord, NamesOfAnyBytesUpTo255)
{
    std::string all;
    for (int byte = 1; byte < 256; byte++)
        if (byte != '/')
            all += static_cast<char>(byte);
    all += 'x';
    ASSERT_EQ(255u, all.size());
    struct fs_record record;
    const std::string bytes = entry_record(0x100, 1, handle(1), all, handle(2));
    ASSERT_EQ(FS_CUT_RECORD, read_record(bytes, record));
    EXPECT_EQ(all, name_of(record.entry));
    for (const std::string &name : {all + "y", std::string("a/b"), std::string(".."), std::string()})
        EXPECT_EQ(FS_CUT_SKIP, cut_of(entry_record(0x100, 1, handle(1), name, handle(2)))) << name;
}

TEST(FsRecord, UnknownInformationIsPassedOver)
{
    struct fs_record record;
    const std::string bytes = named_record(
        0x100, 1, {info_raw(4, 8, std::string(4, 'p')), info_raw(200, 4, ""), info(kInfoEntry, handle(1), "n")});
    ASSERT_EQ(FS_CUT_RECORD, read_record(bytes, record));
    EXPECT_EQ("n", name_of(record.entry));
}

TEST(FsRecord, InformationThatLiesIsPassedOverWithItsRecord)
{
    const std::string good = info(kInfoEntry, handle(1), "n");
    const std::vector<std::string> bad = {
        info_raw(kInfoEntry, 0, ""),                                           /* would never end */
        info_raw(kInfoEntry, 3, ""),                                           /* shorter than its header */
        info_raw(kInfoEntry, 200, ""),                                         /* longer than the record */
        info_raw(kInfoObject, 12, std::string(8, 'f')),                        /* no handle */
        info_raw(kInfoObject, 20, std::string(8, 'f') + "\x7f\0\0\0\1\0\0\0"), /* the handle is longer */
        "x",                                                                   /* no header */
    };
    for (const std::string &part : bad) {
        struct fs_record record;
        const std::string bytes = named_record(0x100, 1, {good, part}) + named_record(0x200, 1, {good});
        ASSERT_EQ(FS_CUT_SKIP, read_record(bytes, record));
        EXPECT_EQ(FS_CUT_RECORD, fs_record_at(bytes.data(), bytes.size(), record.size, &record));
    }
    std::string open_name = named_record(0x100, 1, {info_raw(kInfoEntry, 32, good.substr(4, 24) + "abcd")});
    EXPECT_EQ(FS_CUT_SKIP, cut_of(open_name)) << "a name that does not end";
}

TEST(FsRecord, PartsOfTwoFileSystemsMakeNoSense)
{
    EXPECT_EQ(FS_CUT_SKIP, cut_of(entry_record(0x100, 1, handle(1, 1), "n", handle(2, 2))));
    EXPECT_EQ(FS_CUT_SKIP,
              cut_of(rename_record(FS_MASK_RENAME, 1, handle(1, 1), "a", handle(2, 2), "b", handle(3, 1))));
}

TEST(FsRecord, OtherVersionsArePassedOver)
{
    const std::string extra(8, '\0');
    EXPECT_EQ(FS_CUT_SKIP, cut_of(fanotify_record_raw(32, 4, 24, 0x100, -1, 1, extra)));
    EXPECT_EQ(FS_CUT_SKIP, cut_of(fanotify_record_raw(32, 3, 20, 0x100, -1, 1, extra)));
    EXPECT_EQ(FS_CUT_SKIP, cut_of(fanotify_record_raw(32, 3, 40, 0x100, -1, 1, extra)));
}

TEST(FsRecord, WhatIsCutIsTheEnd)
{
    const std::string bytes = entry_record(0x100, 1, handle(1), "name", handle(2));
    for (size_t size = 0; size < bytes.size(); size++) {
        struct fs_record record;
        const std::vector<char> cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_EQ(FS_CUT_END, fs_record_at(cut.data(), cut.size(), 0, &record)) << size;
    }
    EXPECT_EQ(FS_CUT_END, cut_of(fanotify_record_raw(8, 3, 24, 0x100, -1, 1)));
}

}  // namespace
