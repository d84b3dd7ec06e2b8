/*
 * random_bytes.h: bytes of no meaning.
 */
#ifndef TESTLIB_RANDOM_BYTES_H
#define TESTLIB_RANDOM_BYTES_H

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace testlib
{

/* Four to a number: with thread sanitizer the numbers took most of the time of the tests that need many. */
inline std::vector<unsigned char> random_bytes(std::mt19937 &random, size_t size)
{
    std::vector<unsigned char> bytes((size + 3) / 4 * 4);
    for (size_t at = 0; at < size; at += 4) {
        const auto number = static_cast<uint32_t>(random());
        memcpy(bytes.data() + at, &number, sizeof(number));
    }
    bytes.resize(size);
    return bytes;
}

}  // namespace testlib

#endif
