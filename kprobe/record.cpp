#include "record.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cstring>

namespace kprobe
{

namespace
{

constexpr uint32_t kEventOnChild = 0x08000000;  // the kernel's own mark on a mask; nobody outside knows it

const RawField *find(const std::vector<RawField> &fields, const std::string &name)
{
    const auto it = std::find_if(fields.begin(), fields.end(), [&](const RawField &f) { return f.name == name; });
    return it == fields.end() ? nullptr : &*it;
}

bool all_zero(const unsigned char *bytes, uint32_t size)
{
    return std::all_of(bytes, bytes + size, [](unsigned char c) { return c == 0; });
}

void clean_mask(unsigned char *record)
{
    uint32_t mask;
    memcpy(&mask, record + 12, sizeof(mask));
    mask &= ~kEventOnChild;
    memcpy(record + 12, &mask, sizeof(mask));
}

}  // namespace

bool Layout::resolve(const Plan &plan, const std::vector<RawField> &fields)
{
    *this = {};
    shape_ = plan.shape;
    by_device_ = plan.by_device;
    size_ = plan.size;
    for (const Piece &piece : plan.pieces) {
        const RawField *field = find(fields, piece.arg);
        if (!field || piece.to + piece.size > size_)
            return false;
        copies_.push_back({field->offset, std::min(field->size, piece.size), piece.to, piece.size});
        raw_size_ = std::max(raw_size_, field->offset + field->size);
    }
    return (!plan.name_pointer || look_at(fields, "z", name_pointer_)) &&
           (!plan.names_group || look_at(fields, "g", group_));
}

bool Layout::look_at(const std::vector<RawField> &fields, const std::string &name, Copy &out)
{
    const RawField *field = find(fields, name);
    if (!field)
        return false;
    out = {field->offset, field->size, 0, 0};
    raw_size_ = std::max(raw_size_, field->offset + field->size);
    return true;
}

uint64_t Layout::group(const unsigned char *raw) const
{
    uint64_t value = 0;
    memcpy(&value, raw + group_.from, std::min<size_t>(group_.from_size, sizeof(value)));
    return value;
}

bool Layout::fill(const unsigned char *raw, uint32_t raw_size, unsigned char *out) const
{
    if (raw_size < raw_size_)
        return false;
    memset(out, 0, size_);
    for (const Copy &copy : copies_)
        memcpy(out + copy.to, raw + copy.from, copy.from_size);
    if (name_pointer_.from_size != 0) {
        // Without a name the fetch failed, and what stands in its place is the name of an earlier event.
        if (all_zero(raw + name_pointer_.from, name_pointer_.from_size))
            memset(out + kInotifyHead, 0, size_ - kInotifyHead);
        clean_mask(out);
    }
    return !by_device_ || has_all_names(out);
}

bool has_all_names(const unsigned char *record)
{
    for (uint32_t level = 1; level <= kAncestors; level++) {
        const unsigned char first = record[4 + (kAncestors - level) * kAncestorSize];
        if (first == '/')
            break;
        if (first == 0)
            return false;
    }
    return record[kLeafOffset] != 0;
}

bool WatchEnds::passes(const unsigned char *record)
{
    constexpr size_t kMost = 4096;  // where a watch's end was lost
    int32_t wd;
    uint32_t mask;
    memcpy(&wd, record + 8, sizeof(wd));
    memcpy(&mask, record + 12, sizeof(mask));
    if (mask & IN_DELETE_SELF) {
        if (ending_.size() >= kMost)
            ending_.clear();
        ending_.insert(wd);
        return true;
    }
    return (mask & IN_IGNORED) != 0 && ending_.erase(wd) != 0;
}

bool put_mount_id(const MountMap &mounts, unsigned char *record)
{
    uint32_t device;
    memcpy(&device, record, sizeof(device));
    const int32_t id = mounts.id_of(device);
    memcpy(record, &id, sizeof(id));
    return id != 0;
}

}  // namespace kprobe
