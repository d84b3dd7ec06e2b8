#include "position.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "crc32c.h"
#include "segment.h"

namespace output
{

namespace
{

struct Slot {
    uint64_t turn; /* grows from writing to writing; 0: never written */
    uint64_t value;
    uint32_t crc; /* of what stands before */
    uint32_t zero;
};
static_assert(sizeof(Slot) == 24);

uint32_t slot_crc(const Slot &slot) { return crc32c(0, &slot, offsetof(Slot, crc)); }

}  // namespace

int SpoolPosition::open(int directory)
{
    fd_.reset(openat(directory, "position", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd_)
        return errno;
    Slot slots[2] = {};
    if (pread(fd_.get(), slots, sizeof slots, 0) < 0)
        return errno;
    for (const Slot &slot : slots) {
        if (slot.crc != slot_crc(slot) || slot.turn <= turn_)
            continue;
        turn_ = slot.turn;
        value_ = slot.value;
    }
    return 0;
}

int SpoolPosition::store(uint64_t value)
{
    Slot slot = {turn_ + 1, value, 0, 0};
    slot.crc = slot_crc(slot);
    const uint64_t offset = slot.turn % 2 * sizeof slot;
    const int error = write_at(fd_.get(), {reinterpret_cast<const char *>(&slot), sizeof slot}, offset);
    if (error == 0) {
        turn_ = slot.turn;
        value_ = value;
    }
    return error;
}

}  // namespace output
