/*
 * frame.h: what a spool's files are made of, as bytes.
 *
 * A segment is a file: a head of 512 bytes, then frames, one a record, each filled up to a multiple of 8 bytes. The
 * checksum of a frame begins with a number that the segment alone has, and that stands at the beginning of each of its
 * frames: after damage the next frame is found by it, and nobody who has chosen the name of a file, and so a record's
 * bytes, can have written a frame into a record. Numbers are the machine's: a spool stays where it was made.
 */
#ifndef OUTPUT_SPOOL_FRAME_H
#define OUTPUT_SPOOL_FRAME_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace output
{

inline constexpr size_t kMaxSpoolText = size_t{1} << 20; /* bytes of a record's text */
inline constexpr size_t kMaxSpoolKey = UINT16_MAX;
inline constexpr size_t kMaxSpoolKind = UINT8_MAX;
inline constexpr size_t kFrameStep = 8; /* frames begin at multiples of it */

struct SpoolRecord {
    uint64_t number = 0; /* the record's */
    bool own = false;    /* made by the output itself: `number` is one of its own numbers */
    std::string_view kind, key, text;
};

/* A record as it stands in a segment. The views are of the bytes it was cut from. */
struct Frame {
    uint64_t ordinal = 0; /* the place in the spool: grows by 1 from record to record, over all segments */
    SpoolRecord record;
    size_t size = 0; /* bytes of the frame; what cut_frame() lacks, as far as it can know, when it says kShort */
};

struct SegmentHead {
    char magic[8];
    uint32_t crc; /* of what follows */
    uint32_t salt;
    uint64_t first;   /* ordinal of the first frame */
    char origin[488]; /* boot:instance, ends in a NUL */
};
static_assert(sizeof(SegmentHead) == 512);

/* Longer origins are cut. */
SegmentHead make_segment_head(uint32_t salt, uint64_t first, std::string_view origin);
/* False: these bytes are no head. */
bool read_segment_head(std::string_view bytes, SegmentHead &out);

/* Whether the record is short enough. */
bool fits_frame(const SpoolRecord &record);
size_t frame_size(const SpoolRecord &record);
void append_frame(uint32_t salt, uint64_t ordinal, const SpoolRecord &record, std::string &out);

enum class FrameCut {
    kRecord,
    kShort,   /* the bytes end before the frame does, if there is one */
    kDamaged, /* no frame begins here */
};
/* The frame at the beginning of `bytes`. */
FrameCut cut_frame(uint32_t salt, std::string_view bytes, Frame &out);

}  // namespace output

#endif
