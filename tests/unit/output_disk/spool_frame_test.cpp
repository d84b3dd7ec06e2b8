/* A spool's bytes: frames cut from what was written, from parts of it and from what was changed. */
#include "output/spool/frame.h"

#include <gtest/gtest.h>

#include <string>

#include "output/spool/segment.h"

using namespace output;

namespace
{

constexpr uint32_t kSalt = 0x12345678;

const SpoolRecord kRecord = {7, false, "create", "/data/a", "{\"path\":\"/data/a\"}"};

std::string framed(const SpoolRecord &record, uint64_t ordinal = 3)
{
    std::string bytes;
    append_frame(kSalt, ordinal, record, bytes);
    return bytes;
}

FrameCut cut_of(const std::string &bytes)
{
    Frame frame;
    return cut_frame(kSalt, bytes, frame);
}

}  // namespace

TEST(SpoolFrame, ARecordIsCutAsItWasWritten)
{
    const std::string bytes = framed(kRecord) + "behind";
    Frame frame;
    ASSERT_EQ(FrameCut::kRecord, cut_frame(kSalt, bytes, frame));
    EXPECT_EQ(3u, frame.ordinal);
    EXPECT_EQ(7u, frame.record.number);
    EXPECT_FALSE(frame.record.own);
    EXPECT_EQ("create", frame.record.kind);
    EXPECT_EQ("/data/a", frame.record.key);
    EXPECT_EQ(kRecord.text, frame.record.text);
    EXPECT_EQ(bytes.size() - 6, frame.size);
    EXPECT_EQ(0u, frame.size % kFrameStep);
    EXPECT_EQ(frame.size, frame_size(kRecord));
}

TEST(SpoolFrame, EmptyPartsAndTheOutputsOwnRecordsAreKept)
{
    Frame frame;
    const std::string bytes = framed({1, true, "", "", ""});
    ASSERT_EQ(FrameCut::kRecord, cut_frame(kSalt, bytes, frame));
    EXPECT_TRUE(frame.record.own);
    EXPECT_EQ("", frame.record.text);
}

TEST(SpoolFrame, ACutOffFrameSaysHowLongItIs)
{
    const std::string bytes = framed(kRecord);
    for (size_t size = 0; size < bytes.size(); size++) {
        Frame frame;
        EXPECT_EQ(FrameCut::kShort, cut_frame(kSalt, std::string_view(bytes).substr(0, size), frame)) << size;
        EXPECT_EQ(size < 32 ? 32 : bytes.size(), frame.size);
    }
}

TEST(SpoolFrame, NoChangedBitPasses)
{
    const std::string bytes = framed(kRecord);
    const size_t checked = 32 + kRecord.kind.size() + kRecord.key.size() + kRecord.text.size();
    for (size_t bit = 0; bit < checked * 8; bit++) {
        std::string changed = bytes;
        changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << bit % 8));
        EXPECT_NE(FrameCut::kRecord, cut_of(changed)) << bit;
    }
}

TEST(SpoolFrame, AFrameOfAnotherSegmentIsNone)
{
    std::string bytes;
    append_frame(kSalt + 1, 1, kRecord, bytes);
    EXPECT_EQ(FrameCut::kDamaged, cut_of(bytes));
}

TEST(SpoolFrame, WhatIsTooLongDoesNotFit)
{
    const std::string longest(kMaxSpoolText, 'x'), longer(kMaxSpoolText + 1, 'x');
    EXPECT_TRUE(fits_frame({1, false, "", "", longest}));
    EXPECT_FALSE(fits_frame({1, false, "", "", longer}));
    EXPECT_FALSE(fits_frame({1, false, "", std::string(kMaxSpoolKey + 1, 'x'), ""}));
    EXPECT_FALSE(fits_frame({1, false, std::string(kMaxSpoolKind + 1, 'x'), "", ""}));
    EXPECT_EQ(FrameCut::kRecord, cut_of(framed({1, false, "", "", longest})));
}

TEST(SpoolFrame, AHeadIsReadBackAndEveryChangeIsSeen)
{
    const SegmentHead head = make_segment_head(kSalt, 9, "boot:instance");
    const std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
    SegmentHead read;
    ASSERT_TRUE(read_segment_head(bytes, read));
    EXPECT_EQ(9u, read.first);
    EXPECT_EQ(kSalt, read.salt);
    EXPECT_STREQ("boot:instance", read.origin);
    for (size_t i = 0; i < bytes.size(); i++) {
        std::string changed = bytes;
        changed[i] = static_cast<char>(changed[i] ^ 4);
        EXPECT_FALSE(read_segment_head(changed, read)) << i;
    }
    EXPECT_FALSE(read_segment_head(std::string_view(bytes).substr(1), read));
}

TEST(SpoolFrame, ALongOriginIsCut)
{
    const SegmentHead head = make_segment_head(kSalt, 9, std::string(1000, 'x'));
    EXPECT_EQ(std::string(487, 'x'), head.origin);
}

TEST(SpoolFrame, NamesOfSegmentsAreReadBack)
{
    EXPECT_EQ("00000000000000ff.segment", segment_name(255));
    EXPECT_EQ(255u, first_of_name("00000000000000ff.segment"));
    EXPECT_EQ(UINT64_MAX, first_of_name(segment_name(UINT64_MAX)));
    for (const char *other : {"", "lock", "position", "00000000000000ff", "00000000000000FF.segment",
                              "0000000000000000.segment", "-0000000000000ff.segment", "00000000000000ff.segmenu"})
        EXPECT_EQ(0u, first_of_name(other)) << other;
}
