#include "crc32c.h"

#include <array>
#include <cstring>

namespace output
{

namespace
{

constexpr uint32_t kPolynomial = 0x82f63b78; /* bits in reverse order */

constexpr std::array<uint32_t, 256> make_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; bit++)
            value = (value >> 1) ^ (value & 1 ? kPolynomial : 0);
        table[i] = value;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kTable = make_table();

#ifdef __x86_64__

__attribute__((target("sse4.2"))) uint32_t by_instruction(uint32_t before, const void *bytes, size_t size)
{
    const unsigned char *at = static_cast<const unsigned char *>(bytes);
    uint64_t value = ~before;
    for (; size >= 8; size -= 8, at += 8) {
        uint64_t word;
        memcpy(&word, at, sizeof word);
        value = __builtin_ia32_crc32di(value, word);
    }
    uint32_t rest = static_cast<uint32_t>(value);
    for (; size > 0; size--, at++)
        rest = __builtin_ia32_crc32qi(rest, *at);
    return ~rest;
}

bool has_instruction()
{
    static const bool has = __builtin_cpu_supports("sse4.2");
    return has;
}

#else

uint32_t by_instruction(uint32_t before, const void *bytes, size_t size)
{
    return crc32c_portable(before, bytes, size);
}
bool has_instruction() { return false; }

#endif

}  // namespace

uint32_t crc32c_portable(uint32_t before, const void *bytes, size_t size)
{
    const unsigned char *at = static_cast<const unsigned char *>(bytes);
    uint32_t value = ~before;
    for (; size > 0; size--, at++)
        value = (value >> 8) ^ kTable[(value ^ *at) & 0xff];
    return ~value;
}

uint32_t crc32c(uint32_t before, const void *bytes, size_t size)
{
    return has_instruction() ? by_instruction(before, bytes, size) : crc32c_portable(before, bytes, size);
}

}  // namespace output
