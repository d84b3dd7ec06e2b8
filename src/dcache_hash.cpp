/*
 * The name hash. Its values decide bucket places only and nothing outside the process sees them, but they must be the
 * same for a component inside a path and for the stored copy of its name: bytes behind the length never count.
 */
#include "dcache.h"

#include <bit>
#include <cstring>

namespace
{

constexpr uint64_t kGoldenRatio = 0x61C8864680B583EB;
constexpr uint32_t kWord = 8;

constexpr bool kLittle = std::endian::native == std::endian::little;
static_assert(kLittle || std::endian::native == std::endian::big);

/* The byte of a word that lies last in memory. */
constexpr uint64_t kEighthByte = kLittle ? uint64_t{0xff} << 56 : uint64_t{0xff};

/* Whether any byte is zero: the lowest byte to borrow into a clear top bit can only be a zero one. */
bool has_zero_byte(uint64_t w) { return ((w - 0x0101010101010101) & ~w & 0x8080808080808080) != 0; }

/* A word of the first `count` (below 8) bytes of `name` in memory order, those from a NUL on taken as zero. */
uint64_t load_bytes(const char *name, uint32_t count)
{
    uint64_t w = 0;
    for (uint32_t i = 0; i < count && name[i]; i++) {
        const uint32_t place = kLittle ? i : kWord - 1 - i;
        w |= uint64_t{static_cast<unsigned char>(name[i])} << (8 * place);
    }
    return w;
}

/* A full word. It is defined as a bounded string copy of size 8 into a zeroed word: seven bytes and a NUL, so the
 * eighth byte is never seen. One load gives the same, without scanning the name to its end. */
uint64_t load_word(const char *name)
{
    uint64_t w;
    memcpy(&w, name, sizeof(w));
    if (has_zero_byte(w | kEighthByte)) [[unlikely]] /* no name holds a NUL, but a caller's text may */
        return load_bytes(name, kWord - 1);
    return w & ~kEighthByte;
}

}  // namespace

uint32_t full_name_hash(uint64_t salt, const char *name, uint32_t len)
{
    uint64_t x = 0;
    uint64_t y = salt;
    for (; len >= kWord; name += kWord, len -= kWord) {
        x ^= load_word(name);
        y ^= x;
        x = std::rotl(x, 12);
        x += y;
        y = std::rotl(y, 45);
        y *= 9;
    }
    x ^= load_bytes(name, len); /* the rest is taken in without a round of its own */
    y ^= x * kGoldenRatio;
    y *= kGoldenRatio;
    return static_cast<uint32_t>(y >> 32);
}
