#include "segment.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>

namespace output
{

namespace
{

constexpr std::string_view kEnding = ".segment";
constexpr size_t kDigits = 16;
constexpr size_t kChunk = size_t{256} << 10; /* bytes that are read at once */

std::string_view head_bytes(const SegmentHead &head) { return {reinterpret_cast<const char *>(&head), sizeof head}; }

/* Bytes, 0 at the end of the file, or -1. */
ssize_t read_some(int fd, char *to, size_t size, uint64_t offset)
{
    ssize_t got;
    do
        got = pread(fd, to, size, static_cast<off_t>(offset));
    while (got < 0 && errno == EINTR);
    return got;
}

int read_head(int fd, SegmentHead &head)
{
    char bytes[sizeof head];
    const ssize_t got = read_some(fd, bytes, sizeof bytes, 0);
    if (got < 0)
        return errno;
    return read_segment_head({bytes, static_cast<size_t>(got)}, head) ? 0 : EBADMSG;
}

}  // namespace

std::string segment_name(uint64_t first)
{
    char name[kDigits + kEnding.size() + 1];
    snprintf(name, sizeof name, "%016llx%s", static_cast<unsigned long long>(first), kEnding.data());
    return name;
}

uint64_t first_of_name(std::string_view name)
{
    uint64_t first = 0;
    if (name.size() == kDigits + kEnding.size())
        std::from_chars(name.data(), name.data() + kDigits, first, 16);
    return first != 0 && name == segment_name(first) ? first : 0;
}

int make_segment(int directory, uint64_t first, const std::string &origin, SegmentFile &out)
{
    uint32_t salt;
    if (getrandom(&salt, sizeof salt, 0) != sizeof salt)
        return errno;
    const std::string name = segment_name(first);
    common::Fd fd(openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd)
        return errno;
    const SegmentHead head = make_segment_head(salt, first, origin);
    if (const int error = write_at(fd.get(), head_bytes(head), 0); error != 0) {
        unlinkat(directory, name.c_str(), 0);
        return error;
    }
    out = {std::move(fd), salt, first, std::make_shared<const std::string>(head.origin)};
    return 0;
}

int open_segment(int directory, uint64_t first, int flags, SegmentFile &out)
{
    common::Fd fd(openat(directory, segment_name(first).c_str(), flags | O_CLOEXEC | O_NOFOLLOW));
    if (!fd)
        return errno;
    SegmentHead head = {};
    if (const int error = read_head(fd.get(), head); error != 0)
        return error;
    if (head.first != first)
        return EBADMSG;
    out = {std::move(fd), head.salt, first, std::make_shared<const std::string>(head.origin)};
    return 0;
}

int write_at(int fd, std::string_view bytes, uint64_t offset)
{
    while (!bytes.empty()) {
        const ssize_t wrote = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return wrote < 0 ? errno : EIO;
        bytes.remove_prefix(static_cast<size_t>(wrote));
        offset += static_cast<uint64_t>(wrote);
    }
    return 0;
}

/* Has `wanted` bytes from at_ on in the buffer. False: the file ends before, or error_. */
bool SegmentReader::fill(size_t wanted, uint64_t end)
{
    buffer_.erase(0, at_ - buffer_at_);
    buffer_at_ = at_;
    const size_t target = std::min<uint64_t>(std::max(wanted, kChunk), end - at_);
    size_t have = buffer_.size();
    buffer_.resize(std::max(target, have));
    while (have < wanted) {
        const ssize_t got = read_some(fd_, buffer_.data() + have, target - have, buffer_at_ + have);
        error_ = got < 0 ? errno : 0;
        if (got <= 0)
            break;
        have += static_cast<size_t>(got);
    }
    buffer_.resize(have);
    return have >= wanted;
}

bool SegmentReader::next(uint64_t end, Frame &out)
{
    error_ = 0;
    while (at_ + kFrameStep <= end) {
        const FrameCut cut = cut_frame(salt_, rest(), out);
        if (cut == FrameCut::kRecord) {
            good_ = at_ += out.size;
            return true;
        }
        const bool fits = cut == FrameCut::kShort && out.size <= end - at_;
        if (fits && fill(out.size, end))
            continue;
        if (error_ != 0)
            return false;
        at_ = std::min(at_ + kFrameStep, end);
    }
    return false;
}

}  // namespace output
