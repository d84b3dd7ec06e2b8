/* A spool's files, as a crash, a broken disk or an older fmon left them. The input is the frames of a segment: what is
 * read lies inside of them and in order, and a spool that finds them can be used. */
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "fuzz.h"
#include "output/spool/segment.h"

using namespace output;

namespace
{

constexpr uint32_t kSalt = 0x31323334;

void check_inside(std::string_view whole, std::string_view part)
{
    FUZZ_CHECK(part.data() >= whole.data() && part.size() <= whole.size());
    FUZZ_CHECK(part.data() + part.size() <= whole.data() + whole.size());
}

void check_frame(std::string_view bytes)
{
    Frame frame;
    if (cut_frame(kSalt, bytes, frame) != FrameCut::kRecord)
        return;
    FUZZ_CHECK(frame.size % kFrameStep == 0 && frame.size <= bytes.size() && fits_frame(frame.record));
    check_inside(bytes, frame.record.kind);
    check_inside(bytes, frame.record.key);
    check_inside(bytes, frame.record.text);
    std::string again;
    append_frame(kSalt, frame.ordinal, frame.record, again);
    FUZZ_CHECK(again.size() == frame.size && frame_size(frame.record) == frame.size);
}

/* The number of records that a reader finds. */
size_t count_records(int fd, uint64_t end)
{
    SegmentReader reader(fd, kSalt);
    Frame frame;
    size_t count = 0;
    for (uint64_t before = reader.offset(); reader.next(end, frame); before = reader.offset()) {
        FUZZ_CHECK(reader.offset() >= before + frame.size && reader.offset() <= end);
        count++;
    }
    FUZZ_CHECK(reader.error() == 0);
    return count;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    SegmentHead head;
    if (read_segment_head(bytes, head))
        FUZZ_CHECK(memchr(head.origin, '\0', sizeof head.origin));
    check_frame(bytes);

    const int fd = memfd_create("segment", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0);
    const uint64_t end = sizeof(SegmentHead) + size / kFrameStep * kFrameStep;
    FUZZ_CHECK(write_at(fd, bytes, sizeof(SegmentHead)) == 0);
    const size_t found = count_records(fd, end);
    std::string more;
    append_frame(kSalt, 1, {1, false, "kind", "key", "text"}, more);
    FUZZ_CHECK(write_at(fd, more, end) == 0);
    FUZZ_CHECK(count_records(fd, end + more.size()) <= found + 1);
    close(fd);
    return 0;
}
