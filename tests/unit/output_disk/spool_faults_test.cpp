/* A spool on a disk that refuses: what is said, what is kept, and that it goes on. */
#include "spool_testing.h"
#include "testlib/fault.h"

using namespace output;
using spool_testing::kOrigin;
using testlib::Fault;

namespace
{

class SpoolFaults : public spool_testing::SpoolTest
{
protected:
    /* Opens, appends, reads and settles with each call of `name` failing in turn: every step either says so or is done,
     * and afterwards all is there that was accepted. `kept`: nothing may be counted as damaged. */
    void try_each(const char *name, int err)
    {
        int runs = testlib::fail_each(name, err, [&](Fault &) {
            spool.reset();
            tree.remove("spool");
            next_number = 1;
            last_ordinal = 0;
            if (!open() || put(3) < 3 || !spool->settle(0, error)) {
                EXPECT_NE(error.find("spool /"), std::string::npos) << error;
                EXPECT_NE(error.find(strerror(err)), std::string::npos) << error;
            }
        });
        EXPECT_GT(runs, 0) << name;
    }
    void all_is_there()
    {
        spool.reset();
        last_ordinal = 0;
        ASSERT_TRUE(open()) << error;
        put(4 - next_number);
        EXPECT_EQ(range(1, 3), get());
        EXPECT_EQ(0u, spool->figures().damaged);
    }
};

}  // namespace

TEST_F(SpoolFaults, EachCallThatFailsIsSaidAndTheNextRunIsWhole)
{
    for (const char *name :
         {"openat", "open", "fstat", "flock", "fdopendir", "pread", "getrandom", "pwrite", "fsync"}) {
        try_each(name, EIO);
        all_is_there();
    }
}

TEST_F(SpoolFaults, AFailedSyncIsSaid)
{
    ASSERT_TRUE(open());
    put(3);
    {
        const Fault fault("fdatasync", 1, EIO);
        EXPECT_FALSE(spool->settle(5000, error));
    }
    EXPECT_NE(error.find("Input/output error"), std::string::npos) << error;
    put(1);
    const Fault fault("fcntl", 1, EMFILE);
    EXPECT_TRUE(spool->settle(5999, error)); /* a second has not passed */
    EXPECT_FALSE(fault.hit());
    EXPECT_FALSE(spool->settle(6000, error));
}

TEST_F(SpoolFaults, AFailedSyncOfEachBatchTakesNothing)
{
    limits.sync = SpoolSync::kBatch;
    ASSERT_TRUE(open());
    put(1);
    {
        const Fault fault("fdatasync", 1, EIO);
        EXPECT_EQ(0u, put(3));
    }
    EXPECT_EQ(3u, put(3));
    EXPECT_EQ(range(1, 4), get());
}

TEST_F(SpoolFaults, AFullDiskTakesNothingAndLeavesNothingBehind)
{
    ASSERT_TRUE(open());
    put(2, 100);
    const auto before = std::filesystem::file_size(segments()[0]);
    {
        const Fault fault("pwrite", 1, ENOSPC);
        EXPECT_EQ(0u, put(10, 100));
    }
    EXPECT_EQ("spool " + directory() + ": No space left on device", error);
    EXPECT_EQ(before, std::filesystem::file_size(segments()[0]));
    EXPECT_EQ(range(1, 2), get());
    EXPECT_EQ(10u, put(10, 100));
    EXPECT_EQ(range(3, 12), get());
}

TEST_F(SpoolFaults, WhatCouldNotBeCutOffIsWrittenOver)
{
    ASSERT_TRUE(open());
    put(2, 100);
    {
        const Fault full("pwrite", 1, ENOSPC), stuck("ftruncate", 1, EIO);
        EXPECT_EQ(0u, put(10, 100));
    }
    EXPECT_EQ(10u, put(10, 100));
    EXPECT_EQ(range(1, 12), get());
}

TEST_F(SpoolFaults, AFullDiskAtANewSegmentLeavesNoFile)
{
    ASSERT_TRUE(open());
    {
        const Fault fault("pwrite", 1, ENOSPC);
        EXPECT_EQ(0u, put(1));
    }
    EXPECT_TRUE(segments().empty());
    EXPECT_EQ(1u, put(1));
}

TEST_F(SpoolFaults, AnUnreadableSegmentIsCounted)
{
    ASSERT_TRUE(open());
    put(5);
    const Fault fault("pread", 2, EIO, 100); /* the first reads the head */
    EXPECT_TRUE(get().empty());
    EXPECT_EQ(5u, spool->figures().damaged);
}

TEST_F(SpoolFaults, AnInterruptedCallIsMadeAgain)
{
    ASSERT_TRUE(open());
    const Fault writes("pwrite", 1, EINTR), reads("pread", 2, EINTR);
    EXPECT_EQ(5u, put(5));
    EXPECT_EQ(range(1, 5), get());
    EXPECT_TRUE(writes.hit());
    EXPECT_TRUE(reads.hit());
}

TEST_F(SpoolFaults, WithoutADescriptorItIsReadLater)
{
    ASSERT_TRUE(open());
    put(5);
    {
        const Fault fault("openat", 1, EMFILE);
        EXPECT_TRUE(get().empty());
    }
    EXPECT_EQ(range(1, 5), get());
}

TEST_F(SpoolFaults, AnOpenThatFailsHoldsNothing)
{
    ASSERT_TRUE(open());
    put(5);
    for (const char *name : {"fstatat", "ftruncate"}) {
        spool.reset();
        std::ofstream(segments()[0], std::ios::app) << "torn";
        {
            const Fault fault(name, 1, EIO);
            EXPECT_FALSE(open()) << name;
        }
        const int before = testlib::open_fds();
        spool.reset();
        EXPECT_EQ(before, testlib::open_fds());
        EXPECT_TRUE(open()) << error;
    }
    EXPECT_EQ(range(1, 5), get());
}

TEST_F(SpoolFaults, ASegmentThatCannotBeTakenAwayIsAcknowledgedAllTheSame)
{
    limits.segment = 4096;
    ASSERT_TRUE(open());
    put(100, 100);
    get();
    {
        const Fault fault("unlinkat", 1, EIO, 100);
        spool->acknowledge(100);
    }
    ASSERT_TRUE(open());
    EXPECT_TRUE(get().empty());
    EXPECT_EQ(0u, spool->figures().waiting);
    EXPECT_LE(segments().size(), 1u); /* tried again */
}

TEST_F(SpoolFaults, ADirectoryThatCannotBeMadeIsNamed)
{
    const Fault fault("mkdirat", 2, EROFS, 100);
    EXPECT_FALSE(open());
    EXPECT_NE(error.find("Read-only file system"), std::string::npos) << error;
}
