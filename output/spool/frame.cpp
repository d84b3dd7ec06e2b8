#include "frame.h"

#include <algorithm>
#include <cstring>

#include "crc32c.h"

namespace output
{

namespace
{

constexpr char kMagic[8] = {'f', 'm', 'o', 'n', 's', 'p', 'l', '1'};
constexpr uint8_t kOwn = 1;

struct FrameHead {
    uint32_t salt;
    uint32_t crc; /* of what follows up to the filling */
    uint64_t ordinal;
    uint64_t number;
    uint32_t text;
    uint16_t key;
    uint8_t kind;
    uint8_t flags;
};
static_assert(sizeof(FrameHead) == 32);

constexpr size_t kBeforeChecked = offsetof(FrameHead, ordinal);

size_t payload(const FrameHead &head) { return size_t{head.text} + head.key + head.kind; }

size_t filled_up(size_t size) { return (size + kFrameStep - 1) / kFrameStep * kFrameStep; }

uint32_t head_crc(const SegmentHead &head)
{
    constexpr size_t kFrom = offsetof(SegmentHead, salt);
    return crc32c(0, reinterpret_cast<const char *>(&head) + kFrom, sizeof head - kFrom);
}

void cut_payload(const FrameHead &head, const char *at, SpoolRecord &out)
{
    out.number = head.number;
    out.own = head.flags & kOwn;
    out.kind = {at, head.kind};
    out.key = {at + head.kind, head.key};
    out.text = {at + head.kind + head.key, head.text};
}

}  // namespace

SegmentHead make_segment_head(uint32_t salt, uint64_t first, std::string_view origin)
{
    SegmentHead head = {};
    memcpy(head.magic, kMagic, sizeof kMagic);
    head.salt = salt;
    head.first = first;
    memcpy(head.origin, origin.data(), std::min(origin.size(), sizeof head.origin - 1));
    head.crc = head_crc(head);
    return head;
}

bool read_segment_head(std::string_view bytes, SegmentHead &out)
{
    if (bytes.size() < sizeof out)
        return false;
    memcpy(&out, bytes.data(), sizeof out);
    return memcmp(out.magic, kMagic, sizeof kMagic) == 0 && out.crc == head_crc(out) &&
           memchr(out.origin, '\0', sizeof out.origin);
}

bool fits_frame(const SpoolRecord &record)
{
    return record.text.size() <= kMaxSpoolText && record.key.size() <= kMaxSpoolKey &&
           record.kind.size() <= kMaxSpoolKind;
}

size_t frame_size(const SpoolRecord &record)
{
    return filled_up(sizeof(FrameHead) + record.text.size() + record.key.size() + record.kind.size());
}

void append_frame(uint32_t salt, uint64_t ordinal, const SpoolRecord &record, std::string &out)
{
    const size_t begin = out.size();
    FrameHead head = {salt,
                      0,
                      ordinal,
                      record.number,
                      static_cast<uint32_t>(record.text.size()),
                      static_cast<uint16_t>(record.key.size()),
                      static_cast<uint8_t>(record.kind.size()),
                      record.own ? kOwn : uint8_t{0}};
    out.append(reinterpret_cast<const char *>(&head), sizeof head);
    out.append(record.kind).append(record.key).append(record.text);
    const size_t checked = out.size() - begin - kBeforeChecked;
    head.crc = crc32c(salt, out.data() + begin + kBeforeChecked, checked);
    memcpy(out.data() + begin + offsetof(FrameHead, crc), &head.crc, sizeof head.crc);
    out.append(begin + frame_size(record) - out.size(), '\0');
}

FrameCut cut_frame(uint32_t salt, std::string_view bytes, Frame &out)
{
    FrameHead head;
    out.size = sizeof head;
    if (bytes.size() < sizeof head)
        return FrameCut::kShort;
    memcpy(&head, bytes.data(), sizeof head);
    if (head.salt != salt || head.text > kMaxSpoolText)
        return FrameCut::kDamaged;
    out.size = filled_up(sizeof head + payload(head));
    if (bytes.size() < out.size)
        return FrameCut::kShort;
    const size_t checked = sizeof head - kBeforeChecked + payload(head);
    if (crc32c(salt, bytes.data() + kBeforeChecked, checked) != head.crc)
        return FrameCut::kDamaged;
    out.ordinal = head.ordinal;
    cut_payload(head, bytes.data() + sizeof head, out.record);
    return FrameCut::kRecord;
}

}  // namespace output
