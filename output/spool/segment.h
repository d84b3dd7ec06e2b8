/*
 * segment.h: a file of a spool: made, opened, written behind its end, and read record by record.
 */
#ifndef OUTPUT_SPOOL_SEGMENT_H
#define OUTPUT_SPOOL_SEGMENT_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "common/fd.h"
#include "frame.h"

namespace output
{

/* The name of the segment whose first frame has this ordinal, and back; 0: no segment is called so. */
std::string segment_name(uint64_t first);
uint64_t first_of_name(std::string_view name);

/* An open segment. */
struct SegmentFile {
    common::Fd fd{};
    uint32_t salt = 0;
    uint64_t first = 0;
    std::shared_ptr<const std::string> origin{};
};

/* All return 0 or errno. EBADMSG: the file is no segment of that name. */
int make_segment(int directory, uint64_t first, const std::string &origin, SegmentFile &out);
int open_segment(int directory, uint64_t first, int flags, SegmentFile &out);
int write_at(int fd, std::string_view bytes, uint64_t offset);

class SegmentReader
{
public:
    SegmentReader(int fd, uint32_t salt) : fd_(fd), salt_(salt) {}

    /* The next record that lies before the offset `end`, from where the frames written so far end; damage is skipped.
     * The views in `out` hold until the next call. False: there is none, or the file cannot be read: see error(). */
    bool next(uint64_t end, Frame &out);

    int error() const { return error_; }      /* errno of what could not be read; the reader stays there */
    uint64_t offset() const { return good_; } /* behind the last record */

private:
    bool fill(size_t wanted, uint64_t end);
    std::string_view rest() const
    {
        const uint64_t passed = at_ - buffer_at_;
        return passed < buffer_.size() ? std::string_view(buffer_).substr(passed) : std::string_view();
    }

    const int fd_;
    const uint32_t salt_;
    std::string buffer_;
    uint64_t buffer_at_ = sizeof(SegmentHead); /* offset of the buffer's first byte */
    uint64_t at_ = sizeof(SegmentHead);
    uint64_t good_ = sizeof(SegmentHead);
    int error_ = 0;
};

}  // namespace output

#endif
